// The elliptic-curve engine's random source under a test's control.
//
// The program is linked with --wrap for open, read and close, and for __read_chk, which stands for
// read where the compiler checks buffer sizes. While a RandomSource lives, the two random devices
// deliver what it says, and every call to them is recorded; all else goes to the system.
#pragma once

#include "ecc_numbers.h"

#include <deque>

struct RandomSource {
    RandomSource();
    ~RandomSource();
    RandomSource(const RandomSource&) = delete;
    RandomSource& operator=(const RandomSource&) = delete;

    bool urandom_exists = true;
    bool random_exists = true;

    // What opening a device gives: as it stands, a descriptor that the system does not hand out.
    int descriptor = 0x7A000000;

    // What the devices deliver, in this order; then they are at their end.
    std::deque<uint8_t> content;

    // How the next reads go, one after the other: at most so many bytes, 0 for an end of file, or
    // an errno value made negative. Reads beyond the list deliver as much as was asked for.
    std::deque<int> reads;

    // The calls in their order: "open /dev/urandom", "read 32", "close". Those with the descriptor
    // of a failed opening, -1, count as well.
    std::vector<std::string> calls;
    std::vector<int> open_flags;

    // Appends a number, so that the engine draws this value.
    void supply(const mpz_class& number);
    void supply(const std::vector<mpz_class>& numbers);

    // How many calls begin with this word.
    size_t count(const std::string& call) const;
};
