// The conversions of hexadecimal key text, against a conversion by the standard library of a text
// that was made regular first.

#include "key_text.h"

#include "key_driver/zentrava_key_management_utils.h"

#include <string.h>

#include <memory>

namespace {

const uint8_t UNTOUCHED = 0xA5;

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
    Bytes expected = key_of_text(text);
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
