// What the bytes of a key text are, by a conversion of the standard library's.
#pragma once

#include "target.h"

// What is no hexadecimal digit counts as 0, and zeros follow the text.
inline Bytes converted(std::string text, size_t count)
{
    static const std::string DIGITS = "0123456789abcdefABCDEF";
    for (char& character : text) {
        character = DIGITS.find(character) != DIGITS.npos ? character : '0';
    }
    text.resize(2 * count, '0');
    Bytes bytes;
    for (size_t i = 0; i < count; ++i) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(2 * i, 2), nullptr, 16)));
    }
    return bytes;
}

// 32 and 64 bytes are converted, every other number of them is the characters themselves.
inline Bytes key_of_text(const std::string& text)
{
    const size_t count = (text.size() + 1) / 2;
    if (count == 32 || count == 64) {
        return converted(text, count);
    }
    return {text.begin(), text.begin() + static_cast<std::ptrdiff_t>(count)};
}
