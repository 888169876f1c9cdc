// What a context holds, for comparing it before and after an operation.
#pragma once

#include "tests/support/bytes.h"
#include "tests/support/context_record.h"

#include <stddef.h>

#include <map>
#include <string>
#include <utility>

// By the names of the record's fields: keys in hexadecimal.
using ContextState = std::map<std::string, std::string>;

inline const char* const NOT_LOADED = "not loaded";

inline std::string key_state(const uint8_t* key, size_t size)
{
    return key == nullptr ? NOT_LOADED : to_hex(bytes_at(key, size));
}

inline ContextState state_of(const ContextRecord& context)
{
    return {
        {"uid", context.uid == nullptr ? "none" : reinterpret_cast<const char*>(context.uid)},
        {"pwr_on_amtc0", to_hex(bytes_at(context.pwr_on_amtc0, context.pwr_on_amtc0_len))},
        {"hmac_root_key", key_state(context.hmac_root_key, 32)},
        {"hmac_session_key", key_state(context.hmac_session_key, 32)},
        {"ecdsa_signing_key", key_state(context.ecdsa_signing_key, 32)},
        {"ecdsa_verification_key", key_state(context.ecdsa_verification_key, 65)},
        {"ecdh_pub_key", key_state(context.ecdh_pub_key, 65)},
        {"kts_slot", std::to_string(context.kts_slot)},
        {"kts_hmac_signing_key", key_state(context.kts_hmac_signing_key, 32)},
        {"kts_ecdsa_signing_key", key_state(context.kts_ecdsa_signing_key, 32)},
    };
}

// The state with some of its fields changed to what they are expected to be.
inline ContextState with(ContextState state, const ContextState& changes)
{
    for (const auto& [field, value] : changes) {
        state.at(field) = value;
    }
    return state;
}
