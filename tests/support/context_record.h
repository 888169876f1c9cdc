// The record behind a context, which callers never see. It is written down a second time here, so
// that tests can look at the driver's own object code from outside, and notice a change of layout.
#pragma once

#include <stdint.h>
#include <string.h>

struct ContextRecord {
    uint8_t* uid;
    uint8_t pwr_on_amtc0[6];
    uint32_t pwr_on_amtc0_len;
    uint8_t* hmac_root_key;
    uint8_t* hmac_session_key;
    uint8_t* ecdsa_signing_key;
    uint8_t* ecdsa_verification_key;
    uint8_t* ecdh_pub_key;
    uint32_t kts_slot;
    uint8_t* kts_hmac_signing_key;
    uint8_t* kts_ecdsa_signing_key;
};

using KeyPointer = uint8_t* ContextRecord::*;

// The record that the location `context_buf` points to; any alignment.
inline ContextRecord* record_of(const uint8_t* context_buf)
{
    ContextRecord* record = nullptr;
    memcpy(&record, context_buf, sizeof record);
    return record;
}
