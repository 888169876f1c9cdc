// Hexadecimal key text and the bytes that it becomes.

#include "key_driver/zentrava_key_management_utils.cpp"

#include "support/guarded_text.h"
#include "support/small_stack.h"

#include <gtest/gtest.h>
#include <openssl/crypto.h>

#include <ctype.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

// The digits of a key that has something different in every byte, in both cases.
static std::string digits(size_t count)
{
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        const char digit = "0123456789abcdef"[(i * 7 + i / 16 + 1) % 16];
        text += i % 3 == 0 ? static_cast<char>(toupper(digit)) : digit;
    }
    return text;
}

// What OpenSSL makes of an even number of hexadecimal digits.
static Bytes openssl_bytes(const std::string& text)
{
    Bytes bytes(text.size() / 2);
    size_t written = 0;
    EXPECT_EQ(OPENSSL_hexstr2buf_ex(bytes.data(), bytes.size(), &written, text.c_str(), '\0'), 1)
        << text;
    EXPECT_EQ(written, bytes.size());
    return bytes;
}

// What the C library takes the digit for; 0 for everything that it takes for no digit.
static unsigned int digit_value(unsigned char character)
{
    const char text[] = {static_cast<char>(character), '\0'};
    return isxdigit(character) != 0 ? static_cast<unsigned int>(strtoul(text, nullptr, 16)) : 0;
}

static Bytes first_characters(const std::string& text, size_t count)
{
    return Bytes(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(count));
}

// ---- Digits ----

TEST(CharsToNumber, MakesOneByteOfTwoDigitsWhateverTheyAre)
{
    for (unsigned int first = 0; first < 256; ++first) {
        const unsigned int high = digit_value(static_cast<unsigned char>(first));
        for (unsigned int second = 0; second < 256; ++second) {
            const unsigned int low = digit_value(static_cast<unsigned char>(second));
            ASSERT_EQ(CharsToNumber(static_cast<char>(first), static_cast<char>(second)),
                      high * 16 + low)
                << "characters " << first << " and " << second;
        }
    }
}

// ---- The two fixed lengths ----

struct FixedLength {
    const char* name;
    uint32_t (*convert)(uint8_t* key, const char* string);
    size_t key_len;
};

class FixedLengthKeyText : public testing::TestWithParam<FixedLength> {
  protected:
    static size_t key_len()
    {
        return GetParam().key_len;
    }

    // Into a heap buffer of exactly the key's size, from a text with nothing readable behind it.
    static Bytes converted(const std::string& text)
    {
        const GuardedText guarded(text);
        const std::unique_ptr<uint8_t[]> key(new uint8_t[key_len()]);
        std::fill_n(key.get(), key_len(), uint8_t{0xA5});
        EXPECT_EQ(GetParam().convert(key.get(), guarded.c_str()), 0U) << text;
        return Bytes(key.get(), key.get() + key_len());
    }

    // The key that begins with these bytes and goes on with zeros.
    static Bytes padded(Bytes bytes)
    {
        bytes.resize(key_len(), 0);
        return bytes;
    }
};

TEST_P(FixedLengthKeyText, ConvertsTheFullLengthToTheBytesThatOpensslMakesOfIt)
{
    EXPECT_EQ(converted(digits(2 * key_len())), openssl_bytes(digits(2 * key_len())));
}

TEST_P(FixedLengthKeyText, AcceptsBothCases)
{
    const std::string upper(2 * key_len(), 'F');
    const std::string lower(2 * key_len(), 'f');
    EXPECT_EQ(converted(upper), Bytes(key_len(), 0xFF));
    EXPECT_EQ(converted(lower), Bytes(key_len(), 0xFF));
}

TEST_P(FixedLengthKeyText, TakesEveryCharacterInEitherPlaceForItsDigitOrForZero)
{
    for (unsigned int character = 1; character < 256; ++character) {
        const unsigned int value = digit_value(static_cast<unsigned char>(character));
        std::string text = digits(2 * key_len());
        Bytes expected = openssl_bytes(text);
        text[0] = static_cast<char>(character);
        text[3] = static_cast<char>(character);
        expected[0] = static_cast<uint8_t>(value * 16 + expected[0] % 16);
        expected[1] = static_cast<uint8_t>(expected[1] / 16 * 16 + value);
        EXPECT_EQ(converted(text), expected) << "character " << character;
    }
}

TEST_P(FixedLengthKeyText, TakesThePair0GForZero)
{
    std::string text = digits(2 * key_len());
    Bytes expected = openssl_bytes(text);
    text.replace(2, 2, "0G");
    expected[1] = 0x00;
    EXPECT_EQ(converted(text), expected);
}

TEST_P(FixedLengthKeyText, PadsAShorterTextWithZeros)
{
    for (size_t length = 0; length < 2 * key_len(); length += 2) {
        EXPECT_EQ(converted(digits(length)), padded(openssl_bytes(digits(length))))
            << length << " characters";
    }
}

TEST_P(FixedLengthKeyText, TakesAnOddLastCharacterForTheHighHalfOfItsByte)
{
    for (size_t length = 1; length < 2 * key_len(); length += 2) {
        EXPECT_EQ(converted(digits(length)), padded(openssl_bytes(digits(length) + '0')))
            << length << " characters";
    }
}

TEST_P(FixedLengthKeyText, TakesAnOddLastCharacterThatIsNoDigitForZero)
{
    EXPECT_EQ(converted("12G"), padded({0x12, 0x00}));
}

TEST_P(FixedLengthKeyText, MakesNothingButZerosOfAnEmptyText)
{
    EXPECT_EQ(converted(""), Bytes(key_len(), 0));
}

TEST_P(FixedLengthKeyText, CutsALongerText)
{
    const Bytes expected = openssl_bytes(digits(2 * key_len()));
    for (const size_t more : {size_t{1}, size_t{2}, size_t{3}, size_t{64}, size_t{9000000}}) {
        EXPECT_EQ(converted(digits(2 * key_len() + more)), expected) << more << " more";
    }
}

TEST_P(FixedLengthKeyText, WritesNothingBehindTheKey)
{
    for (const size_t length : {size_t{0}, size_t{1}, 2 * key_len(), 4 * key_len() + 1}) {
        Bytes key(key_len() + 64, 0xA5);
        GetParam().convert(key.data(), digits(length).c_str());
        EXPECT_EQ(Bytes(key.end() - 64, key.end()), Bytes(64, 0xA5)) << length << " characters";
    }
}

INSTANTIATE_TEST_SUITE_P(HexadecimalText, FixedLengthKeyText,
                         testing::Values(FixedLength{"Public", GetPublicKeyFromString, 64},
                                         FixedLength{"Private", GetPrivateKeyFromString, 32}),
                         [](const auto& row) { return std::string(row.param.name); });

// ---- Any length ----

// Into a heap buffer of exactly `capacity` bytes, from a text with nothing readable behind it.
static uint32_t convert(const std::string& text, size_t capacity, Bytes* key)
{
    const GuardedText guarded(text);
    const std::unique_ptr<uint8_t[]> buffer(new uint8_t[capacity]);
    std::fill_n(buffer.get(), capacity, uint8_t{0xA5});
    const uint32_t result = _convert_hex_char_key_to_bytes(guarded.c_str(), buffer.get(),
                                                           static_cast<uint32_t>(capacity));
    key->assign(buffer.get(), buffer.get() + capacity);
    return result;
}

static Bytes converted(const std::string& text, size_t capacity)
{
    Bytes key;
    EXPECT_EQ(convert(text, capacity, &key), 0U) << text.size() << " characters";
    return key;
}

TEST(ConvertHexCharKeyToBytes, Converts64CharactersTo32Bytes)
{
    EXPECT_EQ(converted(digits(64), 32), openssl_bytes(digits(64)));
}

TEST(ConvertHexCharKeyToBytes, Converts128CharactersTo64Bytes)
{
    EXPECT_EQ(converted(digits(128), 64), openssl_bytes(digits(128)));
}

TEST(ConvertHexCharKeyToBytes, Converts63CharactersOnThe32BytePath)
{
    EXPECT_EQ(converted(digits(63), 32), openssl_bytes(digits(63) + '0'));
    EXPECT_EQ(converted(std::string(62, '0') + "c", 32).back(), 0xC0);
}

TEST(ConvertHexCharKeyToBytes, Converts127CharactersOnThe64BytePath)
{
    EXPECT_EQ(converted(digits(127), 64), openssl_bytes(digits(127) + '0'));
}

TEST(ConvertHexCharKeyToBytes, HandsOut65CharactersUnconverted)
{
    EXPECT_EQ(converted(digits(65), 33), first_characters(digits(65), 33));
}

TEST(ConvertHexCharKeyToBytes, HandsOutTheFirstThreeOfSixCharactersUnconverted)
{
    EXPECT_EQ(converted("a1b2c3", 3), (Bytes{0x61, 0x31, 0x62}));
}

TEST(ConvertHexCharKeyToBytes, HandsOutTheFirstHalfUnconvertedForEveryOtherLength)
{
    for (size_t length = 0; length <= 300; ++length) {
        const size_t n = (length + 1) / 2;
        if (n != 32 && n != 64) {
            EXPECT_EQ(converted(digits(length), n), first_characters(digits(length), n))
                << length << " characters";
        }
    }
}

TEST(ConvertHexCharKeyToBytes, LeavesCharactersThatAreNoDigitsAsTheyAreInAnUnconvertedKey)
{
    const std::string text = "xy \n\x7F\x80\xFF%sG0";
    EXPECT_EQ(converted(text, 6), first_characters(text, 6));
}

TEST(ConvertHexCharKeyToBytes, TakesCharactersThatAreNoDigitsForZeroInAConvertedKey)
{
    EXPECT_EQ(converted(std::string(64, 'G'), 32), Bytes(32, 0));
    EXPECT_EQ(converted("0G" + digits(62), 32)[0], 0x00);
    EXPECT_EQ(converted(std::string(128, 'x'), 64), Bytes(64, 0));
}

TEST(ConvertHexCharKeyToBytes, WritesNothingForAnEmptyText)
{
    EXPECT_EQ(converted("", 0), Bytes());
    EXPECT_EQ(converted("", 16), Bytes(16, 0xA5));
}

TEST(ConvertHexCharKeyToBytes, WritesNothingBehindTheKey)
{
    for (size_t length = 0; length <= 300; ++length) {
        const size_t n = (length + 1) / 2;
        const Bytes key = converted(digits(length), n + 40);
        EXPECT_EQ(Bytes(key.end() - 40, key.end()), Bytes(40, 0xA5)) << length << " characters";
    }
}

TEST(ConvertHexCharKeyToBytes, FailsAndWritesNothingWhenTheKeyDoesNotFit)
{
    for (size_t length = 1; length <= 300; ++length) {
        const size_t n = (length + 1) / 2;
        for (const size_t capacity : {size_t{0}, n / 2, n - 1}) {
            Bytes key;
            EXPECT_EQ(convert(digits(length), capacity, &key), 1U)
                << length << " characters, " << capacity << " bytes";
            EXPECT_EQ(key, Bytes(capacity, 0xA5)) << length << " characters";
        }
    }
}

TEST(ConvertHexCharKeyToBytes, SucceedsInABufferOfExactlyTheKeysSize)
{
    for (size_t length = 0; length <= 300; ++length) {
        Bytes key;
        EXPECT_EQ(convert(digits(length), (length + 1) / 2, &key), 0U) << length << " characters";
    }
}

TEST(ConvertHexCharKeyToBytes, SpendsNoStackOnTheLengthOfTheText)
{
    const std::string text = digits(9000000);
    on_a_small_stack([&text] {
        EXPECT_TRUE(converted(text, 4500000) == first_characters(text, 4500000));
        Bytes key;
        EXPECT_EQ(convert(text, 4499999, &key), 1U);
    });
}

TEST(ConvertHexCharKeyToBytes, PrintsNothing)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    uint8_t key[64];
    for (const size_t length : {size_t{0}, size_t{6}, size_t{64}, size_t{128}, size_t{200}}) {
        _convert_hex_char_key_to_bytes(std::string(length, 'G').c_str(), key, sizeof key);
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}
