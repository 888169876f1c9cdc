// P-256 key pairs for the driver's tests, made by OpenSSL, in the forms that the store and the
// driver's callers use. A program that uses this is built with support/ecc_openssl.cpp.
#pragma once

#include "tests/support/bytes.h"
#include "tests/support/ecc_openssl.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

struct P256KeyPair {
    Bytes private_key; // 32 bytes
    Bytes point;       // 0x04, X, Y
    Bytes coordinates; // X, Y: what a store or a peer gives
};

inline P256KeyPair key_pair_of(const Bytes& private_key)
{
    const Bytes point = openssl_base_mult(integer(private_key));
    return {private_key, point, {point.begin() + 1, point.end()}};
}

// The order of the base point's group: private keys are 1 to P256_ORDER - 1.
inline const mpz_class P256_ORDER =
    integer(hex("ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551"));

// 1 and -1 times the base point are left out: the engine cannot serve them everywhere.
inline P256KeyPair random_key_pair()
{
    return key_pair_of(bytes(2 + random_below(P256_ORDER - 3)));
}

inline bool has_odd_y(const P256KeyPair& pair)
{
    return (pair.point.back() & 1) != 0;
}

inline P256KeyPair random_key_pair_with_y(bool odd)
{
    P256KeyPair pair = random_key_pair();
    while (has_odd_y(pair) != odd) {
        pair = random_key_pair();
    }
    return pair;
}

// Between `least` and `most` random bytes.
inline Bytes random_bytes_between(size_t least, size_t most)
{
    const uint64_t more = generator()() % (most - least + 1);
    return random_bytes(least + static_cast<size_t>(more));
}

inline Bytes openssl_sha256(const Bytes& msg)
{
    Bytes hash(SHA256_DIGEST_LENGTH);
    SHA256(msg.data(), msg.size(), hash.data());
    return hash;
}
