// A test with an open context, in a store directory of its own.
#pragma once

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/context_record.h"
#include "tests/support/store_directory.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <stdlib.h>

// The context's location is at an odd address, as a caller's byte buffer may be.
class OpenContext : public StoreDirectory {
  protected:
    void SetUp() override
    {
        StoreDirectory::SetUp();
        ASSERT_EQ(key_lib_open(DEVICE_UID, nullptr, nullptr, context_buf()), KeyLibrary_OK);
    }

    void TearDown() override
    {
        EXPECT_EQ(key_lib_close(context_buf()), KeyLibrary_OK);
        StoreDirectory::TearDown();
    }

    uint8_t* context_buf()
    {
        return location_ + 1;
    }

    ContextRecord& context()
    {
        return *record_of(context_buf());
    }

    // Takes the UID away, which no operation of the library does.
    void drop_uid()
    {
        free(context().uid);
        context().uid = nullptr;
    }

  private:
    alignas(void*) uint8_t location_[1 + sizeof(void*)] = {};
};
