// HMAC-SHA256: the routine itself, and the tags made and verified with the keys of a context.

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/bytes.h"
#include "tests/support/context_record.h"
#include "tests/support/mbedtls_double.h"
#include "tests/support/open_context.h"
#include "tests/support/openssl_hmac.h"
#include "tests/support/printed.h"

#include <gtest/gtest.h>

#include <limits.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

namespace {

const size_t TAG_LEN = 32;

Bytes openssl_tag(const Bytes& key, const Bytes& msg)
{
    const Tag tag = openssl_hmac_sha256(key.data(), key.size(), msg.data(), msg.size());
    return {tag.begin(), tag.end()};
}

// ---- Published figures: RFC 4231, section 4 -------------------------------------------------

struct PublishedCase {
    int number;
    Bytes key;
    Bytes msg;
    const char* tag; // of the fifth case, the first 16 bytes
};

std::ostream& operator<<(std::ostream& stream, const PublishedCase& published)
{
    return stream << "case " << published.number;
}

const PublishedCase RFC4231[] = {
    {1, Bytes(20, 0x0b), bytes_of("Hi There"),
     "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
    {2, bytes_of("Jefe"), bytes_of("what do ya want for nothing?"),
     "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
    {3, Bytes(20, 0xaa), Bytes(50, 0xdd),
     "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe"},
    {4, counting_from(1, 25), Bytes(50, 0xcd),
     "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b"},
    {5, Bytes(20, 0x0c), bytes_of("Test With Truncation"), "a3b6167473100ee06e0c796c2955552b"},
    {6, Bytes(131, 0xaa), bytes_of("Test Using Larger Than Block-Size Key - Hash Key First"),
     "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
    {7, Bytes(131, 0xaa),
     bytes_of("This is a test using a larger than block-size key and a larger than block-size "
              "data. The key needs to be hashed before being used by the HMAC algorithm."),
     "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2"},
};

std::string case_number(const testing::TestParamInfo<PublishedCase>& test)
{
    return std::to_string(test.param.number);
}

// ---- The routine ----------------------------------------------------------------------------

class Sha256Hmac : public testing::Test {
  protected:
    void SetUp() override
    {
        restore_mbedtls();
    }

    // Key, message and tag are in memory of exactly their sizes.
    Bytes tag_of(const Bytes& key, const Bytes& msg)
    {
        const auto key_copy = exact_copy(key);
        const auto msg_copy = exact_copy(msg);
        const auto tag = exact_copy(Bytes(TAG_LEN, 0xEE));
        EXPECT_EQ(_sha256_hmac(key_copy.get(), static_cast<int>(key.size()), msg_copy.get(),
                               static_cast<int>(msg.size()), tag.get()),
                  KeyLibrary_OK);
        return bytes_at(tag.get(), TAG_LEN);
    }

    const Bytes key_ = counting_from(0x20, 32);
};

class PublishedFigure : public Sha256Hmac, public testing::WithParamInterface<PublishedCase> {};

TEST_P(PublishedFigure, IsReached)
{
    const auto& [number, key, msg, tag] = GetParam();
    const std::string computed = to_hex(tag_of(key, msg));
    EXPECT_EQ(computed.substr(0, strlen(tag)), tag);
}

INSTANTIATE_TEST_SUITE_P(Rfc4231, PublishedFigure, testing::ValuesIn(RFC4231), case_number);

TEST_F(Sha256Hmac, AgreesWithOpensslForMessagesOf0To200Bytes)
{
    for (size_t len = 0; len <= 200; ++len) {
        const Bytes msg = counting_from(static_cast<uint8_t>(len), len);
        EXPECT_EQ(to_hex(tag_of(key_, msg)), to_hex(openssl_tag(key_, msg))) << len << " bytes";
    }
}

TEST_F(Sha256Hmac, AgreesWithOpensslForALongMessage)
{
    const Bytes msg = counting_from(3, 100001);
    EXPECT_EQ(to_hex(tag_of(key_, msg)), to_hex(openssl_tag(key_, msg)));
}

TEST_F(Sha256Hmac, AgreesWithOpensslForKeysOf1To150Bytes)
{
    const Bytes msg = bytes_of("message");
    for (size_t len = 1; len <= 150; ++len) {
        const Bytes key = counting_from(7, len);
        EXPECT_EQ(to_hex(tag_of(key, msg)), to_hex(openssl_tag(key, msg))) << len << " bytes";
    }
}

TEST_F(Sha256Hmac, AcceptsAnEmptyKey)
{
    const Bytes msg = bytes_of("message");
    EXPECT_EQ(to_hex(tag_of({}, msg)), to_hex(openssl_tag({}, msg)));
}

TEST_F(Sha256Hmac, DoesNotCheckTheLengthOfTheKey)
{
    uint8_t tag[TAG_LEN];
    fail_in_mbedtls("mbedtls_md_hmac_starts", -1); // keeps the senseless length from harm
    printed_by([&] { _sha256_hmac(key_.data(), -1, key_.data(), 1, tag); });
    EXPECT_EQ(mbedtls_calls().key_lens, std::vector<size_t>{static_cast<size_t>(-1)});
}

TEST_F(Sha256Hmac, TakesAMessageOfNegativeSizeForEmpty)
{
    const uint8_t msg[1] = {'m'};
    for (const int size : {-1, -32, INT_MIN}) {
        restore_mbedtls();
        Tag tag = {};
        EXPECT_EQ(_sha256_hmac(key_.data(), 32, msg, size, tag.data()), KeyLibrary_OK);
        EXPECT_EQ(tag, openssl_hmac_sha256(key_.data(), 32, "", 0)) << size;
        EXPECT_EQ(mbedtls_calls().count("mbedtls_md_hmac_update"), 0U) << size;
    }
}

TEST_F(Sha256Hmac, AcceptsOperandsAtOddAddresses)
{
    const Bytes msg = counting_from(9, 70);
    const Bytes shifted_key = counting_from(0x1F, 33);
    const Bytes shifted_msg = counting_from(8, 71);
    uint8_t tag[1 + TAG_LEN];
    EXPECT_EQ(_sha256_hmac(shifted_key.data() + 1, 32, shifted_msg.data() + 1, 70, tag + 1),
              KeyLibrary_OK);
    EXPECT_EQ(bytes_at(tag + 1, TAG_LEN), openssl_tag(key_, msg));
}

TEST_F(Sha256Hmac, WritesTheTagAndNothingAround)
{
    Bytes tag(8 + TAG_LEN + 8, 0xA5);
    EXPECT_EQ(_sha256_hmac(key_.data(), 32, key_.data(), 32, tag.data() + 8), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(tag.data(), 8), Bytes(8, 0xA5));
    EXPECT_EQ(bytes_at(tag.data() + 8 + TAG_LEN, 8), Bytes(8, 0xA5));
}

// ---- What the routine asks of mbed TLS ------------------------------------------------------

TEST_F(Sha256Hmac, CallsMbedtlsInOrderAndNeverReleasesTheDigestContext)
{
    tag_of(key_, counting_from(1, 33));
    EXPECT_EQ(mbedtls_calls().functions,
              (std::vector<std::string>{"mbedtls_md_init", "mbedtls_md_info_from_type",
                                        "mbedtls_md_setup", "mbedtls_md_hmac_starts",
                                        "mbedtls_md_hmac_update", "mbedtls_md_hmac_update",
                                        "mbedtls_md_hmac_finish"}));
}

TEST_F(Sha256Hmac, SetsUpSha256ForHmac)
{
    tag_of(key_, {});
    EXPECT_EQ(mbedtls_calls().info_types, std::vector<mbedtls_md_type_t>{MBEDTLS_MD_SHA256});
    EXPECT_EQ(mbedtls_calls().hmac_flags, std::vector<int>{1});
}

TEST_F(Sha256Hmac, HandsOverTheKeyWithItsLength)
{
    uint8_t tag[TAG_LEN];
    _sha256_hmac(key_.data(), 17, key_.data(), 1, tag);
    EXPECT_EQ(mbedtls_calls().keys, std::vector<const uint8_t*>{key_.data()});
    EXPECT_EQ(mbedtls_calls().key_lens, std::vector<size_t>{17});
}

TEST_F(Sha256Hmac, HasTheResultWrittenStraightIntoTheTag)
{
    uint8_t tag[TAG_LEN];
    _sha256_hmac(key_.data(), 32, key_.data(), 1, tag);
    EXPECT_EQ(mbedtls_calls().outputs, std::vector<uint8_t*>{tag});
}

struct Pieces {
    size_t msg_len;
    std::vector<size_t> lens;
};

std::ostream& operator<<(std::ostream& stream, const Pieces& pieces)
{
    return stream << "message of " << pieces.msg_len << " bytes";
}

class MessagePieces : public Sha256Hmac, public testing::WithParamInterface<Pieces> {};

TEST_P(MessagePieces, Are32BytesLongButForTheLast)
{
    const Bytes msg = counting_from(0xC0, GetParam().msg_len);
    EXPECT_EQ(to_hex(tag_of(key_, msg)), to_hex(openssl_tag(key_, msg)));
    EXPECT_EQ(mbedtls_calls().piece_lens, GetParam().lens);
    EXPECT_EQ(to_hex(mbedtls_calls().fed), to_hex(msg));
}

INSTANTIATE_TEST_SUITE_P(Of, MessagePieces,
                         testing::Values(Pieces{0, {}}, Pieces{1, {1}}, Pieces{31, {31}},
                                         Pieces{32, {32}}, Pieces{33, {32, 1}},
                                         Pieces{63, {32, 31}}, Pieces{64, {32, 32}},
                                         Pieces{65, {32, 32, 1}}, Pieces{100, {32, 32, 32, 4}}),
                         [](const auto& test) { return std::to_string(test.param.msg_len); });

// ---- Failures of mbed TLS -------------------------------------------------------------------

struct HmacFailure {
    const char* name;
    const char* function;
    int error;
    size_t fail_at;
    const char* message;
};

std::ostream& operator<<(std::ostream& stream, const HmacFailure& failure)
{
    return stream << failure.name;
}

// Each message, and what the format makes of numbers that are short or of the wrong sign.
const HmacFailure HMAC_FAILURES[] = {
    {"Setup", "mbedtls_md_setup", -0x5180, 1, "  ! mbedtls_md_setup() returned -0x5180\n"},
    {"Starts", "mbedtls_md_hmac_starts", -0x5100, 1,
     "  ! mbedtls_md_hmac_starts() returned -0x5100\n"},
    {"Update", "mbedtls_md_hmac_update", -0x006E, 1,
     "  ! mbedtls_md_hmac_update() returned -0x006e\n"},
    {"SecondUpdate", "mbedtls_md_hmac_update", -0x5100, 2,
     "  ! mbedtls_md_hmac_update() returned -0x5100\n"},
    {"LastUpdate", "mbedtls_md_hmac_update", -0x5100, 3,
     "  ! mbedtls_md_hmac_update() returned -0x5100\n"},
    {"Finish", "mbedtls_md_hmac_finish", -0x5200, 1,
     "  ! mbedtls_md_hmac_finish() returned -0x5200\n"},
    {"SetupWithAShortNumber", "mbedtls_md_setup", -1, 1,
     "  ! mbedtls_md_setup() returned -0x0001\n"},
    {"StartsWithALongNumber", "mbedtls_md_hmac_starts", -0x123456, 1,
     "  ! mbedtls_md_hmac_starts() returned -0x123456\n"},
    {"UpdateWithAPositiveNumber", "mbedtls_md_hmac_update", 1, 1,
     "  ! mbedtls_md_hmac_update() returned -0xffffffff\n"},
    {"FinishWithAShortNumber", "mbedtls_md_hmac_finish", -0xABC, 1,
     "  ! mbedtls_md_hmac_finish() returned -0x0abc\n"},
};

std::string failure_name(const testing::TestParamInfo<HmacFailure>& test)
{
    return test.param.name;
}

class FailingHmac : public Sha256Hmac, public testing::WithParamInterface<HmacFailure> {
  protected:
    void SetUp() override
    {
        Sha256Hmac::SetUp();
        fail_in_mbedtls(GetParam().function, GetParam().error, GetParam().fail_at);
        printed_ = printed_by(
            [this] { result_ = _sha256_hmac(key_.data(), 32, msg_.data(), 65, tag_.data()); });
    }

    const Bytes msg_ = counting_from(1, 65);
    Bytes tag_ = Bytes(TAG_LEN, 0xEE);
    KeyLibraryErrorCode result_ = KeyLibrary_OK;
    std::string printed_;
};

INSTANTIATE_TEST_SUITE_P(In, FailingHmac, testing::ValuesIn(HMAC_FAILURES), failure_name);

TEST_P(FailingHmac, IsAFailureOfCryptography)
{
    EXPECT_EQ(result_, KeyLibrary_CRYPTO);
}

TEST_P(FailingHmac, PrintsWhatMbedtlsReturned)
{
    EXPECT_EQ(printed_, GetParam().message);
}

TEST_P(FailingHmac, IsTheLastThingAskedOfMbedtls)
{
    EXPECT_EQ(mbedtls_calls().functions.back(), GetParam().function);
    EXPECT_EQ(mbedtls_calls().count(GetParam().function), GetParam().fail_at);
}

TEST_P(FailingHmac, ReleasesNoDigestContext)
{
    EXPECT_EQ(mbedtls_calls().count("mbedtls_md_free"), 0U);
}

TEST_P(FailingHmac, LeavesTheTagUnwritten)
{
    EXPECT_EQ(to_hex(tag_), to_hex(Bytes(TAG_LEN, 0xEE)));
}

// ---- Null arguments of the routine ----------------------------------------------------------

// The source is named from the root of the tree: no directory stands in front of it.
const char* const ASSERTION =
    "^[^/]*key_driver/zentrava_key_driver\\.cpp:[0-9]+: [^:]* _sha256_hmac\\([^:]*: "
    "Assertion `key != NULL && msg_buf != NULL && digest != NULL' failed\\.";

using Sha256HmacDeathTest = Sha256Hmac;

TEST_F(Sha256HmacDeathTest, AssertsThatTheKeyIsNotNull)
{
    uint8_t tag[TAG_LEN];
    EXPECT_EXIT(_sha256_hmac(nullptr, 32, key_.data(), 1, tag), testing::KilledBySignal(SIGABRT),
                ASSERTION);
}

TEST_F(Sha256HmacDeathTest, AssertsThatTheMessageIsNotNull)
{
    uint8_t tag[TAG_LEN];
    EXPECT_EXIT(_sha256_hmac(key_.data(), 32, nullptr, 1, tag), testing::KilledBySignal(SIGABRT),
                ASSERTION);
}

TEST_F(Sha256HmacDeathTest, AssertsThatAnEmptyMessageIsNotNull)
{
    uint8_t tag[TAG_LEN];
    EXPECT_EXIT(_sha256_hmac(key_.data(), 32, nullptr, 0, tag), testing::KilledBySignal(SIGABRT),
                ASSERTION);
}

TEST_F(Sha256HmacDeathTest, AssertsThatThereIsAPlaceForTheTag)
{
    EXPECT_EXIT(_sha256_hmac(key_.data(), 32, key_.data(), 1, nullptr),
                testing::KilledBySignal(SIGABRT), ASSERTION);
}

// ---- Tags under the keys of a context -------------------------------------------------------

struct KeyUse {
    const char* name;
    KeyLibraryErrorCode (*gen)(const uint8_t* context_buf, const uint8_t* msg_buf, uint32_t msg_len,
                               uint8_t* digest);
    KeyLibraryErrorCode (*verify)(const uint8_t* context_buf, const uint8_t* msg, uint32_t msg_len,
                                  const uint8_t* sig, bool* verified);
    KeyPointer field;
};

std::ostream& operator<<(std::ostream& stream, const KeyUse& use)
{
    return stream << use.name;
}

const KeyUse ROOT_KEY = {"RootKey", gen_root_sha256_hmac, verify_root_sha256_hmac,
                         &ContextRecord::hmac_root_key};
const KeyUse SESSION_KEY = {"SessionKey", gen_session_sha256_hmac, verify_session_sha256_hmac,
                            &ContextRecord::hmac_session_key};
const KeyUse KTS_KEY = {"KtsKey", gen_kts_sha256_hmac, nullptr, // there is no verifier
                        &ContextRecord::kts_hmac_signing_key};

const auto KEYS_THAT_TAG = testing::Values(ROOT_KEY, SESSION_KEY, KTS_KEY);
const auto KEYS_THAT_VERIFY = testing::Values(ROOT_KEY, SESSION_KEY);

// A context in which each field holds a key of its own, so that taking the wrong one is noticed.
class LoadedContext : public OpenContext {
  protected:
    explicit LoadedContext(const KeyUse& use) : use_(use)
    {
    }

    void SetUp() override
    {
        OpenContext::SetUp();
        restore_mbedtls();
        context().hmac_root_key = malloc_copy(counting_from(0x90, 32));
        context().hmac_session_key = malloc_copy(counting_from(0xB0, 32));
        context().kts_hmac_signing_key = malloc_copy(counting_from(0xD0, 32));
        use_key(key_);
    }

    void TearDown() override
    {
        free(context().kts_hmac_signing_key); // key_lib_close does not
        OpenContext::TearDown();
    }

    void use_key(const Bytes& key)
    {
        free(context().*use_.field);
        context().*use_.field = malloc_copy(key);
    }

    void unload_key()
    {
        free(context().*use_.field);
        context().*use_.field = nullptr;
    }

    // Message and tag are in memory of exactly their sizes.
    Bytes tag_of(const Bytes& msg)
    {
        const auto msg_copy = exact_copy(msg);
        const auto tag = exact_copy(Bytes(TAG_LEN, 0xEE));
        EXPECT_EQ(
            use_.gen(context_buf(), msg_copy.get(), static_cast<uint32_t>(msg.size()), tag.get()),
            KeyLibrary_OK);
        return bytes_at(tag.get(), TAG_LEN);
    }

    const KeyUse use_;
    const Bytes key_ = counting_from(0x20, 32);
    const Bytes msg_ = bytes_of("a message of more than thirty-two bytes");
    uint8_t tag_[TAG_LEN] = {};
};

// ---- Making tags ----------------------------------------------------------------------------

class MadeTag : public LoadedContext, public testing::WithParamInterface<KeyUse> {
  protected:
    MadeTag() : LoadedContext(GetParam())
    {
    }
};

INSTANTIATE_TEST_SUITE_P(Under, MadeTag, KEYS_THAT_TAG,
                         [](const auto& test) { return test.param.name; });

TEST_P(MadeTag, AgreesWithOpensslForMessagesOf0To200Bytes)
{
    for (size_t len = 0; len <= 200; ++len) {
        const Bytes msg = counting_from(static_cast<uint8_t>(len), len);
        EXPECT_EQ(to_hex(tag_of(msg)), to_hex(openssl_tag(key_, msg))) << len << " bytes";
    }
}

// RFC 2104 fills a key that is shorter than a block with zeros, so the published keys of up to 32
// bytes are 32-byte keys as well.
TEST_P(MadeTag, ReachesThePublishedFiguresOfShortKeys)
{
    size_t used = 0;
    for (const PublishedCase& published : RFC4231) {
        if (published.key.size() > 32) {
            continue;
        }
        Bytes key = published.key;
        key.resize(32, 0);
        use_key(key);
        EXPECT_EQ(to_hex(tag_of(published.msg)).substr(0, strlen(published.tag)), published.tag)
            << published;
        ++used;
    }
    EXPECT_EQ(used, 5U);
}

TEST_P(MadeTag, IsMadeWithExactly32BytesOfTheField)
{
    use_key(counting_from(0x20, 64));
    EXPECT_EQ(tag_of(msg_), openssl_tag(key_, msg_));
    EXPECT_EQ(mbedtls_calls().keys, std::vector<const uint8_t*>{context().*use_.field});
    EXPECT_EQ(mbedtls_calls().key_lens, std::vector<size_t>{32});
}

TEST_P(MadeTag, LeavesTheContextAsItIs)
{
    const Bytes before = bytes_at(&context(), sizeof(ContextRecord));
    tag_of(msg_);
    EXPECT_EQ(bytes_at(&context(), sizeof(ContextRecord)), before);
    EXPECT_EQ(bytes_at(context().*use_.field, 32), key_);
}

TEST_P(MadeTag, NeedsNoUid)
{
    drop_uid();
    EXPECT_EQ(tag_of(msg_), openssl_tag(key_, msg_));
}

TEST_P(MadeTag, IsOfTheEmptyMessageFrom2To31BytesOn)
{
    for (const uint32_t len : {0x80000000U, 0x80000001U, 0xffffffe0U, 0xffffffffU}) {
        restore_mbedtls();
        EXPECT_EQ(use_.gen(context_buf(), msg_.data(), len, tag_), KeyLibrary_OK);
        EXPECT_EQ(bytes_at(tag_, TAG_LEN), openssl_tag(key_, {})) << len;
        EXPECT_EQ(mbedtls_calls().count("mbedtls_md_hmac_update"), 0U) << len;
    }
}

TEST_P(MadeTag, IsOfThePiecesThemselvesUpTo2To31BytesLessOne)
{
    const Bytes msg = counting_from(1, 64);
    fail_in_mbedtls("mbedtls_md_hmac_update", -1, 2); // there is no more memory than that
    printed_by([&] {
        EXPECT_EQ(use_.gen(context_buf(), msg.data(), 0x7fffffffU, tag_), KeyLibrary_CRYPTO);
    });
    EXPECT_EQ(mbedtls_calls().piece_lens, (std::vector<size_t>{32, 32}));
}

TEST_P(MadeTag, IsRefusedWithoutALocation)
{
    EXPECT_EQ(use_.gen(nullptr, msg_.data(), 1, tag_), KeyLibrary_BAD_PARAMETER);
}

TEST_P(MadeTag, IsRefusedWithoutAMessage)
{
    EXPECT_EQ(use_.gen(context_buf(), nullptr, 1, tag_), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(use_.gen(context_buf(), nullptr, 0, tag_), KeyLibrary_BAD_PARAMETER);
}

TEST_P(MadeTag, IsRefusedWithoutAPlaceForIt)
{
    EXPECT_EQ(use_.gen(context_buf(), msg_.data(), 1, nullptr), KeyLibrary_BAD_PARAMETER);
}

TEST_P(MadeTag, IsNotMadeWithoutTheKey)
{
    unload_key();
    EXPECT_EQ(use_.gen(context_buf(), msg_.data(), 1, tag_), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(bytes_at(tag_, TAG_LEN), Bytes(TAG_LEN, 0));
}

TEST_P(MadeTag, LooksAtItsArgumentsBeforeTheKey)
{
    unload_key();
    EXPECT_EQ(use_.gen(context_buf(), nullptr, 1, tag_), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(use_.gen(context_buf(), msg_.data(), 1, nullptr), KeyLibrary_BAD_PARAMETER);
}

TEST_P(MadeTag, IsMadeWithoutAWord)
{
    EXPECT_EQ(printed_by([&] {
                  tag_of(msg_);
                  use_.gen(nullptr, nullptr, 0, nullptr);
                  unload_key();
                  use_.gen(context_buf(), msg_.data(), 1, tag_);
              }),
              "");
}

TEST_P(MadeTag, NeverReleasesADigestContext)
{
    tag_of(msg_);
    EXPECT_EQ(mbedtls_calls().count("mbedtls_md_free"), 0U);
}

// ---- Verifying tags -------------------------------------------------------------------------

class VerifiedTag : public LoadedContext, public testing::WithParamInterface<KeyUse> {
  protected:
    VerifiedTag() : LoadedContext(GetParam())
    {
    }

    bool verify(const Bytes& msg, const Bytes& tag)
    {
        const auto msg_copy = exact_copy(msg);
        const auto tag_copy = exact_copy(tag);
        bool verified = tag != openssl_tag(key_, msg); // the opposite of what is to come
        EXPECT_EQ(use_.verify(context_buf(), msg_copy.get(), static_cast<uint32_t>(msg.size()),
                              tag_copy.get(), &verified),
                  KeyLibrary_OK);
        return verified;
    }
};

INSTANTIATE_TEST_SUITE_P(Under, VerifiedTag, KEYS_THAT_VERIFY,
                         [](const auto& test) { return test.param.name; });

TEST_P(VerifiedTag, IsVerifiedForMessagesOf0To100Bytes)
{
    for (size_t len = 0; len <= 100; ++len) {
        const Bytes msg = counting_from(static_cast<uint8_t>(len), len);
        EXPECT_TRUE(verify(msg, openssl_tag(key_, msg))) << len << " bytes";
    }
}

TEST_P(VerifiedTag, IsVerifiedAsOfTheEmptyMessageFrom2To31BytesOn)
{
    const Bytes tag_of_nothing = openssl_tag(key_, {});
    for (const uint32_t len : {0x80000000U, 0xffffffffU}) {
        bool verified = false;
        EXPECT_EQ(use_.verify(context_buf(), msg_.data(), len, tag_of_nothing.data(), &verified),
                  KeyLibrary_OK);
        EXPECT_TRUE(verified) << len;
    }
}

TEST_P(VerifiedTag, LeavesTheContextAsItIs)
{
    const Bytes before = bytes_at(&context(), sizeof(ContextRecord));
    EXPECT_TRUE(verify(msg_, openssl_tag(key_, msg_)));
    EXPECT_EQ(bytes_at(&context(), sizeof(ContextRecord)), before);
    EXPECT_EQ(bytes_at(context().*use_.field, 32), key_);
}

TEST_P(VerifiedTag, NeedsNoUid)
{
    drop_uid();
    EXPECT_TRUE(verify(msg_, openssl_tag(key_, msg_)));
}

TEST_P(VerifiedTag, IsComparedWithOneUnderExactly32BytesOfTheField)
{
    use_key(counting_from(0x20, 64));
    EXPECT_TRUE(verify(msg_, openssl_tag(key_, msg_)));
    EXPECT_EQ(mbedtls_calls().key_lens, std::vector<size_t>{32});
}

TEST_P(VerifiedTag, IsComparedWithoutAWord)
{
    EXPECT_EQ(printed_by([&] {
                  verify(msg_, openssl_tag(key_, msg_));
                  verify(msg_, Bytes(TAG_LEN, 0));
                  use_.verify(nullptr, nullptr, 0, nullptr, nullptr);
                  unload_key();
                  bool verified = false;
                  use_.verify(context_buf(), msg_.data(), 1, tag_, &verified);
              }),
              "");
}

TEST_P(VerifiedTag, NeverReleasesADigestContext)
{
    verify(msg_, openssl_tag(key_, msg_));
    verify(msg_, Bytes(TAG_LEN, 0));
    EXPECT_EQ(mbedtls_calls().count("mbedtls_md_free"), 0U);
}

TEST_P(VerifiedTag, IsNotVerifiedWithAWrongBitInAnyByte)
{
    const Bytes tag = openssl_tag(key_, msg_);
    for (size_t i = 0; i < TAG_LEN; ++i) {
        for (const int bit : {0x01, 0x80}) {
            Bytes wrong = tag;
            wrong[i] = static_cast<uint8_t>(wrong[i] ^ bit);
            EXPECT_FALSE(verify(msg_, wrong)) << "byte " << i << ", bit " << bit;
        }
    }
}

TEST_P(VerifiedTag, IsNotVerifiedForAnotherMessage)
{
    Bytes other = msg_;
    other.back() ^= 1;
    EXPECT_FALSE(verify(other, openssl_tag(key_, msg_)));
}

TEST_P(VerifiedTag, IsNotVerifiedForLessOfTheMessage)
{
    EXPECT_FALSE(verify({msg_.begin(), msg_.end() - 1}, openssl_tag(key_, msg_)));
}

TEST_P(VerifiedTag, IsNotVerifiedUnderAnotherKey)
{
    EXPECT_FALSE(verify(msg_, openssl_tag(counting_from(0x21, 32), msg_)));
}

// A tag with a zero byte inside, and one that goes wrong behind it: not compared as texts.
TEST_P(VerifiedTag, IsComparedBehindAZeroByteToo)
{
    Bytes msg = counting_from(0, 2);
    Bytes tag = openssl_tag(key_, msg);
    while (std::find(tag.begin(), tag.begin() + 16, 0) == tag.begin() + 16) {
        msg[0]++;
        msg[1] = static_cast<uint8_t>(msg[1] + (msg[0] == 0 ? 1 : 0));
        tag = openssl_tag(key_, msg);
    }
    EXPECT_TRUE(verify(msg, tag));
    tag.back() ^= 1;
    EXPECT_FALSE(verify(msg, tag));
}

// A verification that is to end without an answer: whatever was there before stays.
template <typename Verification>
void expect_no_answer(KeyLibraryErrorCode expected, Verification verification)
{
    for (const bool before : {false, true}) {
        bool verified = before;
        EXPECT_EQ(verification(&verified), expected);
        EXPECT_EQ(verified, before);
    }
}

TEST_P(VerifiedTag, IsNotVerifiedWithoutALocation)
{
    expect_no_answer(KeyLibrary_BAD_PARAMETER, [&](bool* verified) {
        return use_.verify(nullptr, msg_.data(), 1, tag_, verified);
    });
}

TEST_P(VerifiedTag, IsNotVerifiedWithoutAMessage)
{
    expect_no_answer(KeyLibrary_BAD_PARAMETER, [&](bool* verified) {
        return use_.verify(context_buf(), nullptr, 0, tag_, verified);
    });
}

TEST_P(VerifiedTag, IsNotVerifiedWithoutATag)
{
    expect_no_answer(KeyLibrary_BAD_PARAMETER, [&](bool* verified) {
        return use_.verify(context_buf(), msg_.data(), 1, nullptr, verified);
    });
}

TEST_P(VerifiedTag, IsNotVerifiedWithoutAPlaceForTheAnswer)
{
    EXPECT_EQ(use_.verify(context_buf(), msg_.data(), 1, tag_, nullptr), KeyLibrary_BAD_PARAMETER);
}

TEST_P(VerifiedTag, IsNotVerifiedWithoutTheKey)
{
    unload_key();
    expect_no_answer(KeyLibrary_KEY_NOT_FOUND, [&](bool* verified) {
        return use_.verify(context_buf(), msg_.data(), 1, tag_, verified);
    });
}

TEST_P(VerifiedTag, IsLookedAtWithAllItsArgumentsBeforeTheKey)
{
    unload_key();
    bool verified = false;
    EXPECT_EQ(use_.verify(context_buf(), nullptr, 1, tag_, &verified), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(use_.verify(context_buf(), msg_.data(), 1, nullptr, &verified),
              KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(use_.verify(context_buf(), msg_.data(), 1, tag_, nullptr), KeyLibrary_BAD_PARAMETER);
}

// ---- Failures of mbed TLS under the keys of a context ---------------------------------------

using FailingUse = std::tuple<KeyUse, HmacFailure>;

std::string failing_use_name(const testing::TestParamInfo<FailingUse>& test)
{
    return std::string(std::get<0>(test.param).name) + "_" + std::get<1>(test.param).name;
}

class FailingContext : public LoadedContext, public testing::WithParamInterface<FailingUse> {
  protected:
    FailingContext() : LoadedContext(std::get<0>(GetParam()))
    {
    }

    void fail_once()
    {
        fail_in_mbedtls(failure_.function, failure_.error, failure_.fail_at);
    }

    const HmacFailure failure_ = std::get<1>(GetParam());
    const Bytes long_msg_ = counting_from(1, 65);
};

class FailingMadeTag : public FailingContext {};
INSTANTIATE_TEST_SUITE_P(Under, FailingMadeTag,
                         testing::Combine(KEYS_THAT_TAG, testing::ValuesIn(HMAC_FAILURES)),
                         failing_use_name);

TEST_P(FailingMadeTag, IsAFailureOfCryptography)
{
    fail_once();
    EXPECT_EQ(printed_by([&] {
                  EXPECT_EQ(use_.gen(context_buf(), long_msg_.data(), 65, tag_), KeyLibrary_CRYPTO);
              }),
              failure_.message);
}

TEST_P(FailingMadeTag, LeavesTheKeyInPlace)
{
    fail_once();
    printed_by([&] { use_.gen(context_buf(), long_msg_.data(), 65, tag_); });
    EXPECT_EQ(tag_of(long_msg_), openssl_tag(key_, long_msg_));
}

class FailingVerifiedTag : public FailingContext {};
INSTANTIATE_TEST_SUITE_P(Under, FailingVerifiedTag,
                         testing::Combine(KEYS_THAT_VERIFY, testing::ValuesIn(HMAC_FAILURES)),
                         failing_use_name);

TEST_P(FailingVerifiedTag, IsAFailureOfCryptographyWithoutAnAnswer)
{
    const Bytes tag = openssl_tag(key_, long_msg_);
    expect_no_answer(KeyLibrary_CRYPTO, [&](bool* verified) {
        KeyLibraryErrorCode result = KeyLibrary_OK;
        fail_once();
        EXPECT_EQ(printed_by([&] {
                      result =
                          use_.verify(context_buf(), long_msg_.data(), 65, tag.data(), verified);
                  }),
                  failure_.message);
        return result;
    });
}

} // namespace
