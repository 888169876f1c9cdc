// Stands between the driver and mbed TLS's one-shot SHA-256: keeps what it was asked for, and makes
// it fail when told to.
//
// A program that uses this is built with support/sha256_double.cpp and with WRAP
// mbedtls_sha256_ret.
#pragma once

#include "tests/support/bytes.h"

#include <stddef.h>
#include <stdint.h>

#include <vector>

struct Sha256Request {
    const uint8_t* input;
    size_t input_len;
    Bytes hash_before;
    int is224;
};

// The hashes are computed again, and the requests are forgotten.
void restore_sha256();

// Every request from here on is answered with `error`, without a look at the input. `output` is
// what the failed computation leaves in the hash.
void fail_sha256(int error, const Bytes& output = {});

const std::vector<Sha256Request>& sha256_requests();
