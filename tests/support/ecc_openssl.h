// P-256 as OpenSSL computes it. Byte forms are those of the engine; points have 33 or 65 bytes.
#pragma once

#include "ecc_numbers.h"

// scalar * point, uncompressed; the single byte 0 is the point at infinity.
Bytes openssl_mult(const mpz_class& scalar, const Bytes& point);
Bytes openssl_base_mult(const mpz_class& scalar);
Bytes openssl_add(const Bytes& left, const Bytes& right);

// The other byte forms of a point on the curve.
Bytes openssl_compressed(const Bytes& point);
Bytes openssl_uncompressed(const Bytes& point);

// The uncompressed public key is made from the private one.
Bytes openssl_ecdh(const Bytes& private_key, const Bytes& public_key);
Bytes openssl_sign(const Bytes& private_key, const Bytes& hash);
bool openssl_verify(const Bytes& public_key, const Bytes& hash, const Bytes& signature);

// The curve: p, a, b, the order, the base point's x and y.
std::array<mpz_class, 6> openssl_curve();
