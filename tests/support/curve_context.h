// A test with an open context that may hold keys of KTS slots.
#pragma once

#include "tests/support/context_state.h"
#include "tests/support/kts_keys.h"
#include "tests/support/open_context.h"

class CurveContext : public OpenContext {
  protected:
    void TearDown() override
    {
        kts_keys_.adopt_from(context());
        OpenContext::TearDown();
    }

    KeyLibraryErrorCode clear()
    {
        kts_keys_.adopt_from(context());
        return key_lib_clear_keys(context_buf());
    }

    ContextState state()
    {
        return state_of(context());
    }

    // Gives a field a copy of `content`, in place of what it holds.
    uint8_t* plant(KeyPointer field, const Bytes& content)
    {
        free(context().*field);
        context().*field = malloc_copy(content);
        return context().*field;
    }

    void unload(KeyPointer field)
    {
        free(context().*field);
        context().*field = nullptr;
    }

  private:
    KtsKeys kts_keys_;
};
