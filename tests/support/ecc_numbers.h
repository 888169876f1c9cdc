// Numbers of the elliptic-curve engine in its tests: as digits, as bytes and as GMP integers.
#pragma once

#include <gmpxx.h>

#include <stdint.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <vector>

using Digits = std::array<uint64_t, 4>;  // least significant digit first
using Product = std::array<uint64_t, 8>; // the same
using Bytes = std::vector<uint8_t>;

template <size_t count> mpz_class integer(const std::array<uint64_t, count>& digits)
{
    mpz_class value;
    mpz_import(value.get_mpz_t(), count, -1, sizeof(uint64_t), 0, 0, digits.data());
    return value;
}

inline mpz_class integer(const Bytes& big_endian)
{
    mpz_class value;
    mpz_import(value.get_mpz_t(), big_endian.size(), 1, 1, 0, 0, big_endian.data());
    return value;
}

inline mpz_class integer(const std::string& hexadecimal)
{
    return mpz_class(hexadecimal, 16);
}

inline mpz_class power_of_two(unsigned exponent)
{
    return mpz_class(1) << exponent;
}

// The lowest digits of a value that is not negative.
template <size_t count> std::array<uint64_t, count> to_digits(const mpz_class& value)
{
    const mpz_class low = value % power_of_two(64 * count);
    std::array<uint64_t, count> digits = {};
    mpz_export(digits.data(), nullptr, -1, sizeof(uint64_t), 0, 0, low.get_mpz_t());
    return digits;
}

inline Digits digits(const mpz_class& value)
{
    return to_digits<4>(value);
}

// The value in 32 big-endian bytes.
inline Bytes bytes(const mpz_class& value)
{
    const std::string digits = value.get_str(16);
    const std::string padded = std::string(64 - digits.size(), '0') + digits;
    Bytes result;
    for (size_t i = 0; i < padded.size(); i += 2) {
        result.push_back(static_cast<uint8_t>(std::stoul(padded.substr(i, 2), nullptr, 16)));
    }
    return result;
}

inline Bytes hex(const std::string& text)
{
    Bytes result;
    for (size_t i = 0; i < text.size(); i += 2) {
        result.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return result;
}

inline Bytes operator+(Bytes left, const Bytes& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// Every run draws the same numbers: a failure can be repeated.
inline std::mt19937_64& generator()
{
    static std::mt19937_64 engine(20240811);
    return engine;
}

template <typename Array> Array random_digits()
{
    Array digits;
    std::generate(digits.begin(), digits.end(), [] { return generator()(); });
    return digits;
}

inline mpz_class random_below(const mpz_class& limit)
{
    return integer(random_digits<Product>()) % limit;
}

inline Bytes random_bytes(size_t count)
{
    Bytes result(count);
    std::generate(result.begin(), result.end(), [] { return static_cast<uint8_t>(generator()()); });
    return result;
}

// Digits at which carries, borrows and shifts go wrong if they can.
inline const std::vector<uint64_t>& corner_digits()
{
    static const std::vector<uint64_t> corners = {
        0,
        1,
        2,
        0x000000007FFFFFFF,
        0x0000000080000000,
        0x00000000FFFFFFFF,
        0x0000000100000000,
        0x0000000100000001,
        0x7FFFFFFFFFFFFFFF,
        0x8000000000000000,
        0xFFFFFFFF00000000,
        0xFFFFFFFF00000001,
        0xFFFFFFFFFFFFFFFE,
        0xFFFFFFFFFFFFFFFF,
    };
    return corners;
}

template <typename Array> Array corner_biased_digits()
{
    const std::vector<uint64_t>& corners = corner_digits();
    Array digits;
    std::generate(digits.begin(), digits.end(),
                  [&] { return corners[static_cast<size_t>(generator()() % corners.size())]; });
    return digits;
}
