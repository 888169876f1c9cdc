// The steps at which mbed TLS can fail an HMAC of up to 32 bytes, and what the driver prints then.
// A program that uses this is built with support/mbedtls_double.cpp.
#pragma once

#include "tests/support/mbedtls_double.h"

#include <ostream>

struct HmacFailure {
    const char* name;
    const char* function;
    int error;
    const char* message;
};

inline std::ostream& operator<<(std::ostream& stream, const HmacFailure& failure)
{
    return stream << failure.name;
}

inline const HmacFailure HMAC_FAILURES[] = {
    {"Setup", "mbedtls_md_setup", -0x5180, "  ! mbedtls_md_setup() returned -0x5180\n"},
    {"Starts", "mbedtls_md_hmac_starts", -0x5100,
     "  ! mbedtls_md_hmac_starts() returned -0x5100\n"},
    {"Update", "mbedtls_md_hmac_update", -0x5100,
     "  ! mbedtls_md_hmac_update() returned -0x5100\n"},
    {"Finish", "mbedtls_md_hmac_finish", -0x006E,
     "  ! mbedtls_md_hmac_finish() returned -0x006e\n"},
};
