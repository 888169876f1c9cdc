// A model of the elliptic-curve engine, step by step on GMP integers: the oracle for inputs where
// the engine's results follow from its steps alone and not from the theory of the curve.
//
// Numbers are integers below 2^256. The model shares no code with the engine.
#pragma once

#include "ecc_numbers.h"

#include <optional>

namespace ecc_model {

struct Point {
    mpz_class x, y;
    bool operator==(const Point& other) const
    {
        return x == other.x && y == other.y;
    }
};

struct KeyPair {
    Bytes public_key, private_key;
};

// FIPS 186-4, appendix D.1.2.3.
inline const mpz_class p("ffffffff00000001000000000000000000000000ffffffffffffffffffffffff", 16);
inline const mpz_class n("ffffffff00000000ffffffffffffffffbce6faada7179e84f3b9cac2fc632551", 16);
inline const mpz_class b("5ac635d8aa3a93e7b3ebbd55769886bc651d06b0cc53b0f63bce3c3e27d2604b", 16);
inline const Point base = {
    mpz_class("6b17d1f2e12c4247f8bce6e563a440f277037d812deb33a0f4a13945d898c296", 16),
    mpz_class("4fe342e2fe1a7f9b8ee7eb4a7c0f9e162bce33576b315ececbb6406837bf51f5", 16)};

// The 512-bit product and square with the engine's overflow test. `rare` says whether an overflow
// was lost, so that the result is not the true product.
mpz_class product(const mpz_class& left, const mpz_class& right, bool* rare = nullptr);
mpz_class square(const mpz_class& value, bool* rare = nullptr);

// Modulo m with one correction at most, also for operands that are not below m.
mpz_class mod_add(const mpz_class& left, const mpz_class& right, const mpz_class& m = p);
mpz_class mod_sub(const mpz_class& left, const mpz_class& right, const mpz_class& m = p);

// Modulo m, fully reduced. The inverse of 0 is 0.
mpz_class mod_mult(const mpz_class& left, const mpz_class& right, const mpz_class& m = p);
mpz_class mod_square(const mpz_class& value);
mpz_class mod_inverse(const mpz_class& value, const mpz_class& m = p);
mpz_class mod_sqrt(const mpz_class& value);

// The formulas on points, in place.
void double_jacobian(Point& point, mpz_class& z);
void apply_z(Point& point, const mpz_class& z);
void add(Point& first, Point& second);           // first: unchanged point, second: sum
void conjugate_add(Point& first, Point& second); // first: difference, second: sum

Point scalar_mult(const Point& point, const mpz_class& scalar, const mpz_class& initial_z = 1);
Point decompress(const Bytes& public_key);

// u1 * base + u2 * q, walked bit by bit; u1 and u2 are not both 0.
Point mult_two(const mpz_class& u1, const mpz_class& u2, const Point& q);

// The operations. `draws` are the numbers that the random source supplies; running out of them is
// its failure. No value: the operation fails.
std::optional<KeyPair> make_key(const std::vector<mpz_class>& draws);
std::optional<Bytes> sign(const Bytes& private_key, const Bytes& hash,
                          const std::vector<mpz_class>& draws);
Point shared_point(const Bytes& public_key, const Bytes& private_key, const mpz_class& initial_z);
bool verify(const Bytes& public_key, const Bytes& hash, const Bytes& signature);

} // namespace ecc_model
