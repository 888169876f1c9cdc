// Stands between the driver and mbed TLS's message digests: keeps which functions were called, in
// which order and with what, and makes one of the calls fail when told to. All other calls reach
// mbed TLS.
//
// A program that uses this is built with support/mbedtls_double.cpp and with WRAP of the functions
// that are defined there.
#pragma once

#include "tests/support/bytes.h"

#include <mbedtls/md.h>

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

struct MbedtlsCalls {
    std::vector<std::string> functions; // in the order of the calls
    std::vector<mbedtls_md_type_t> info_types;
    std::vector<int> hmac_flags;
    std::vector<const uint8_t*> keys;
    std::vector<size_t> key_lens;
    std::vector<size_t> piece_lens;
    Bytes fed; // all pieces together
    std::vector<uint8_t*> outputs;

    // How often a function was called.
    size_t count(const std::string& function) const;
};

// Forgets the calls so far, and lets all that follow pass.
void restore_mbedtls();

// Makes the `fail_at`-th call of a function from here on, counted from 1, return `error` and do
// nothing else.
void fail_in_mbedtls(const std::string& function, int error, size_t fail_at = 1);

const MbedtlsCalls& mbedtls_calls();
