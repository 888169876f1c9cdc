// The five functions that load a key from the key store, and how they differ.
#pragma once

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/context_record.h"

#include <stddef.h>
#include <stdint.h>

#include <ostream>
#include <string>

struct Loader {
    const char* function;
    KeyLibraryErrorCode (*load)(const uint8_t* context_buf, bool force);
    KeyPointer field;
    const char* field_name;
    const char* key_name;
    size_t buffer_size;
    uint32_t key_len; // asked for and required
    bool requires_uid;
    bool wipes_reported_length; // on a wrong length; else 32 bytes

    // Where the key starts in the buffer.
    size_t prefix_len() const
    {
        return buffer_size - key_len;
    }
};

inline std::ostream& operator<<(std::ostream& stream, const Loader& loader)
{
    return stream << loader.key_name;
}

inline const Loader LOADERS[] = {
    {"set_srk_as_hmac_root_signing_key", set_srk_as_hmac_root_signing_key,
     &ContextRecord::hmac_root_key, "hmac_root_key", "srk", 32, 32, true, false},
    {"set_crk_as_hmac_root_signing_key", set_crk_as_hmac_root_signing_key,
     &ContextRecord::hmac_root_key, "hmac_root_key", "crk", 32, 32, false, false},
    {"set_csk_as_hmac_session_signing_key", set_csk_as_hmac_session_signing_key,
     &ContextRecord::hmac_session_key, "hmac_session_key", "tmp_client_session_key", 32, 32, false,
     false},
    {"set_ecdsa_signing_key", set_ecdsa_signing_key, &ContextRecord::ecdsa_signing_key,
     "ecdsa_signing_key", "ecdsa_prv", 32, 32, true, true},
    {"set_ecdsa_verification_key", set_ecdsa_verification_key,
     &ContextRecord::ecdsa_verification_key, "ecdsa_verification_key", "ECDSA_DS_PuK", 65, 64, true,
     true},
};
