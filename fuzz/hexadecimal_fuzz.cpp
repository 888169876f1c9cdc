// The conversions of hexadecimal key text, against a conversion by the standard library of a text
// that was made regular first.

#include "target.h"

#include "key_driver/zentrava_key_management_utils.h"

#include <string.h>

#include <memory>

namespace {

const uint8_t UNTOUCHED = 0xA5;

// What is no hexadecimal digit counts as 0, and zeros follow the text.
Bytes converted(std::string text, size_t count)
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
Bytes expected_key(const std::string& text)
{
    const size_t count = (text.size() + 1) / 2;
    if (count == 32 || count == 64) {
        return converted(text, count);
    }
    return {text.begin(), text.begin() + static_cast<std::ptrdiff_t>(count)};
}

// A copy without a byte behind its terminator, for the sanitizer to watch.
std::unique_ptr<char[]> exact_copy(const std::string& text)
{
    std::unique_ptr<char[]> copy(new char[text.size() + 1]);
    memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

void check_conversion(const std::string& text, uint32_t buffer_size)
{
    const std::unique_ptr<uint8_t[]> key(new uint8_t[buffer_size]);
    memset(key.get(), UNTOUCHED, buffer_size);
    const uint32_t result =
        _convert_hex_char_key_to_bytes(exact_copy(text).get(), key.get(), buffer_size);
    Bytes expected = expected_key(text);
    const bool fits = expected.size() <= buffer_size;
    demand(result == (fits ? 0U : 1U), "a key is converted exactly if it fits");
    if (!fits) {
        expected.clear();
    }
    expected.resize(buffer_size + 1U, UNTOUCHED); // never empty, for memcmp
    demand(memcmp(key.get(), expected.data(), buffer_size) == 0,
           "the key's bytes, and no others, are written");
}

void check_fixed_length(uint32_t (*convert)(uint8_t*, const char*), size_t count,
                        const std::string& text)
{
    Bytes key(count, UNTOUCHED);
    demand(convert(key.data(), exact_copy(text).get()) == 0, "never fails");
    demand(key == converted(text, count), "padded or cut to its length");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input = {data, size};
    const uint32_t buffer_size = take_byte(&input);
    const std::string text = take_text(&input).c_str(); // up to the first NUL
    check_conversion(text, buffer_size);
    check_conversion(text, static_cast<uint32_t>((text.size() + 1) / 2));
    check_fixed_length(GetPrivateKeyFromString, 32, text);
    check_fixed_length(GetPublicKeyFromString, 64, text);
    return 0;
}
