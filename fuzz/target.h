// What all fuzz targets share: taking values off the input, and saying which rule does not hold.
//
// A target is a function that libFuzzer calls with any bytes (`scripts/fuzz`), and that replay.cpp
// calls with the files of its corpus, as a test.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Ends the program, which is how a target reports a finding.
inline void demand(bool holds, const char* rule)
{
    if (!holds) {
        fprintf(stderr, "does not hold: %s\n", rule);
        abort();
    }
}

// What is left of an input. When it is used up, zeros follow.
struct Input {
    const uint8_t* at;
    size_t left;
};

inline uint8_t take_byte(Input* input)
{
    if (input->left == 0) {
        return 0;
    }
    --input->left;
    return *input->at++;
}

inline Bytes take_bytes(Input* input, size_t count)
{
    Bytes bytes(count);
    std::generate(bytes.begin(), bytes.end(), [&] { return take_byte(input); });
    return bytes;
}

// All that is left.
inline std::string take_text(Input* input)
{
    const std::string text(reinterpret_cast<const char*>(input->at), input->left);
    *input = {input->at + input->left, 0};
    return text;
}
