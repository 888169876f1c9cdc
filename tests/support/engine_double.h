// Stands between the driver and the elliptic-curve engine: keeps what the engine was asked for and,
// when told to, answers in its place. What the engine does is untouched until then.
//
// A program that uses this is built with support/engine_double.cpp and with WRAP of
// ecdh_shared_secret, ecdsa_sign and ecdsa_verify.
#pragma once

#include "tests/support/bytes.h"

#include <stdint.h>

#include <array>
#include <vector>

// All of a fixed size: keeping up to 64 requests of a kind takes no memory, so that a test can make
// the driver's allocations fail.
struct SecretRequest {
    const uint8_t* public_key;
    std::array<uint8_t, 65> public_key_bytes;
    std::array<uint8_t, 32> private_key_bytes;
    uint8_t* secret;
    std::array<uint8_t, 32> secret_before;
};

struct SignatureRequest {
    const uint8_t* private_key;
    std::array<uint8_t, 32> hash;
    uint8_t* signature;
};

struct VerificationRequest {
    const uint8_t* public_key;
    std::array<uint8_t, 32> hash;
    const uint8_t* signature;
};

struct EngineRequests {
    std::vector<SecretRequest> secrets;
    std::vector<SignatureRequest> signatures;
    std::vector<VerificationRequest> verifications;
};

// The engine answers by itself again, and the requests are forgotten.
void restore_engine();

// Every request from here on gets this result. `output` is written to the secret or the signature,
// whatever the result.
void answer_for_engine(int result, const Bytes& output = {});

const EngineRequests& engine_requests();
