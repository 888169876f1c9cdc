// The ways in which the engine's random source can fail it. A program that uses this is built with
// support/ecc_random_source.cpp and with WRAP open read close __read_chk.
#pragma once

#include "tests/support/ecc_random_source.h"

#include <errno.h>

#include <ostream>

struct RandomFailure {
    const char* name;
    void (*arrange)(RandomSource& source);
};

inline std::ostream& operator<<(std::ostream& stream, const RandomFailure& failure)
{
    return stream << failure.name;
}

// At the first number that the engine draws.
inline const RandomFailure RANDOM_FAILURES[] = {
    {"NoDevice",
     [](RandomSource& source) {
         source.urandom_exists = false;
         source.random_exists = false;
     }},
    {"ReadError",
     [](RandomSource& source) {
         source.reads = {-EIO};
     }},
    {"InterruptedRead",
     [](RandomSource& source) {
         source.reads = {-EINTR};
     }},
    {"EndOfFile",
     [](RandomSource& source) {
         source.reads = {0};
     }},
    {"EndOfFileAfter31Bytes",
     [](RandomSource& source) {
         source.supply(mpz_class(5));
         source.reads = {31, 0};
     }},
    {"ReadErrorAfterAByte",
     [](RandomSource& source) {
         source.supply(mpz_class(5));
         source.reads = {1, -EIO};
     }},
};

// At a later number: a candidate of 0 is unusable, so another one is drawn.
inline const RandomFailure LATER_RANDOM_FAILURES[] = {
    {"EndOfFileAtTheSecondCandidate",
     [](RandomSource& source) {
         source.supply(mpz_class(0));
     }},
    {"ReadErrorAtTheSixteenthCandidate",
     [](RandomSource& source) {
         source.supply(std::vector<mpz_class>(16, 0));
         source.reads.assign(15, 32);
         source.reads.push_back(-EIO);
     }},
    {"SixteenUnusableCandidates",
     [](RandomSource& source) {
         source.supply(std::vector<mpz_class>(16, 0));
         source.supply(mpz_class(5));
     }},
};
