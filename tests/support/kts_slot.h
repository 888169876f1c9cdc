// A test with an open context for the keys of KTS slots, with everything below the driver watched:
// the store, the engine and mbed TLS. A program that uses this is built with what these need.
#pragma once

#include "tests/support/curve_context.h"
#include "tests/support/engine_double.h"
#include "tests/support/mbedtls_double.h"
#include "tests/support/store_double.h"

#include <stddef.h>
#include <stdint.h>

#include <ostream>
#include <string>

class KtsSlot : public CurveContext {
  protected:
    void SetUp() override
    {
        restore_store();
        restore_engine();
        CurveContext::SetUp();
        restore_mbedtls();
    }

    void put_into_store(const std::string& key_name, const Bytes& key)
    {
        write_store_file(PRIVATE_FILE, record(DEVICE_UID, key_name, "1", to_hex(key)));
    }

    KeyLibraryErrorCode load(uint32_t slot, bool force = false)
    {
        return set_kts_ecdsa_signing_key(context_buf(), slot, force);
    }

    // The peer key is in memory of exactly its size.
    KeyLibraryErrorCode make(uint32_t slot, const Bytes& peer, bool force = false)
    {
        const auto peer_copy = exact_copy(peer);
        return set_kts_hmac_signing_key(context_buf(), slot, peer_copy.get(), force);
    }

    // A buffer that is longer than any key, and shows what is written behind one.
    uint8_t* plant_long(KeyPointer field)
    {
        return plant(field, planted_);
    }

    static const size_t PLANTED_SIZE = 128;
    const Bytes planted_ = counting_from(0x80, PLANTED_SIZE);
    const Bytes key_ = counting_from(0x11, 32);
    const Bytes other_key_ = counting_from(0x55, 32);
};

// What the store answers, and what comes of it.
struct LoadOutcome {
    const char* name;
    StoreAnswer answer;
    KeyLibraryErrorCode result;
};

inline std::ostream& operator<<(std::ostream& stream, const LoadOutcome& outcome)
{
    return stream << outcome.name;
}

// The length of a key in the store files, and what comes of it where 32 bytes are asked for.
struct StoredLength {
    size_t len;
    KeyLibraryErrorCode result;
};

inline std::ostream& operator<<(std::ostream& stream, const StoredLength& stored)
{
    return stream << stored.len << " bytes";
}

inline const StoredLength STORED_LENGTHS[] = {
    {1, KeyLibrary_INVALID_KEY},    {16, KeyLibrary_INVALID_KEY},   {31, KeyLibrary_INVALID_KEY},
    {33, KeyLibrary_KEY_NOT_FOUND}, {64, KeyLibrary_KEY_NOT_FOUND},
};
