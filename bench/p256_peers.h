// The four operations on P-256 as this library's engine and its peers offer them, on the same 16
// inputs, so that they can be timed and counted side by side.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <vector>

constexpr size_t INPUT_COUNT = 16;

// One input: a key pair, another side's public key, a hash, and a signature of it that holds.
struct P256Input {
    uint8_t private_key[32];
    uint8_t public_key[65];      // 0x04, X, Y
    uint8_t peer_public_key[65]; // likewise
    uint8_t hash[32];
    uint8_t signature[64]; // r, s
};

// Each operation takes the number of an input and tells whether it succeeded.
struct P256Peer {
    const char* name;
    bool (*make_key)(size_t input);
    bool (*ecdh)(size_t input);
    bool (*sign)(size_t input);
    bool (*verify)(size_t input);
};

struct P256Operation {
    const char* name;
    bool (*P256Peer::*run)(size_t input);
};

inline constexpr P256Operation P256_OPERATIONS[] = {
    {"make_key", &P256Peer::make_key},
    {"ECDH", &P256Peer::ecdh},
    {"sign", &P256Peer::sign},
    {"verify", &P256Peer::verify},
};

// Makes the inputs, by mbed TLS from fixed seeds, and readies the peers: the engine first, then
// mbed TLS with its group kept between calls and blinding on, BearSSL, and OpenSSL where it is
// built in. False when a peer disagrees with the engine about a secret or a signature.
bool set_up_p256_peers(std::vector<P256Peer>* peers);
