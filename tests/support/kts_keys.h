// The two keys of a KTS slot outlive their context: it neither wipes nor frees them when it is
// cleared or closed. Here a test keeps the keys that it caused, so that nothing else can leak
// unseen.
#pragma once

#include "tests/support/context_record.h"

#include <stdint.h>
#include <stdlib.h>

#include <set>

class KtsKeys {
  public:
    KtsKeys() = default;
    KtsKeys(const KtsKeys&) = delete;
    KtsKeys& operator=(const KtsKeys&) = delete;

    ~KtsKeys()
    {
        for (uint8_t* key : keys_) {
            free(key);
        }
    }

    // To be called right before the context is cleared or closed.
    void adopt_from(const ContextRecord& context)
    {
        keys_.insert(context.kts_hmac_signing_key);
        keys_.insert(context.kts_ecdsa_signing_key);
    }

  private:
    std::set<uint8_t*> keys_;
};
