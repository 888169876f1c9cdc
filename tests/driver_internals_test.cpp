// What the key driver keeps to itself: the layout of its record and its file-local functions.

#include "key_driver/zentrava_key_driver.cpp"

#include "tests/support/bytes.h"
#include "tests/support/context_record.h"
#include "tests/support/freed_blocks.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <stddef.h>

#include <type_traits>

namespace {

struct FieldPlace {
    const char* name;
    size_t offset;
    size_t expected;
};

TEST(ContextLayout, HasItsFieldsInOrder)
{
    const FieldPlace places[] = {
        {"uid", offsetof(KeyLibraryContext_struct, uid), offsetof(ContextRecord, uid)},
        {"pwr_on_amtc0", offsetof(KeyLibraryContext_struct, pwr_on_amtc0),
         offsetof(ContextRecord, pwr_on_amtc0)},
        {"pwr_on_amtc0_len", offsetof(KeyLibraryContext_struct, pwr_on_amtc0_len),
         offsetof(ContextRecord, pwr_on_amtc0_len)},
        {"hmac_root_key", offsetof(KeyLibraryContext_struct, hmac_root_key),
         offsetof(ContextRecord, hmac_root_key)},
        {"hmac_session_key", offsetof(KeyLibraryContext_struct, hmac_session_key),
         offsetof(ContextRecord, hmac_session_key)},
        {"ecdsa_signing_key", offsetof(KeyLibraryContext_struct, ecdsa_signing_key),
         offsetof(ContextRecord, ecdsa_signing_key)},
        {"ecdsa_verification_key", offsetof(KeyLibraryContext_struct, ecdsa_verification_key),
         offsetof(ContextRecord, ecdsa_verification_key)},
        {"ecdh_pub_key", offsetof(KeyLibraryContext_struct, ecdh_pub_key),
         offsetof(ContextRecord, ecdh_pub_key)},
        {"kts_slot", offsetof(KeyLibraryContext_struct, kts_slot),
         offsetof(ContextRecord, kts_slot)},
        {"kts_hmac_signing_key", offsetof(KeyLibraryContext_struct, kts_hmac_signing_key),
         offsetof(ContextRecord, kts_hmac_signing_key)},
        {"kts_ecdsa_signing_key", offsetof(KeyLibraryContext_struct, kts_ecdsa_signing_key),
         offsetof(ContextRecord, kts_ecdsa_signing_key)},
    };
    for (const FieldPlace& place : places) {
        EXPECT_EQ(place.offset, place.expected) << place.name;
    }
}

TEST(ContextLayout, HasNoOtherFields)
{
    EXPECT_EQ(sizeof(KeyLibraryContext_struct), sizeof(ContextRecord));
}

TEST(ContextLayout, HasTheSizeOfItsFieldsOn32And64Bits)
{
    EXPECT_EQ(sizeof(KeyLibraryContext_struct), sizeof(void*) == 4 ? 48U : 88U);
}

TEST(ContextLayout, HasAnAmtc0ValueOf6BytesWithALengthOf32Bits)
{
    EXPECT_EQ(sizeof(KeyLibraryContext_struct::pwr_on_amtc0), 6U);
    EXPECT_EQ(sizeof(KeyLibraryContext_struct::pwr_on_amtc0_len), 4U);
    EXPECT_TRUE(std::is_unsigned_v<decltype(KeyLibraryContext_struct::pwr_on_amtc0_len)>);
}

TEST(ContextLayout, HasASlotNumberOf32Bits)
{
    EXPECT_EQ(sizeof(KeyLibraryContext_struct::kts_slot), 4U);
    EXPECT_TRUE(std::is_unsigned_v<decltype(KeyLibraryContext_struct::kts_slot)>);
}

TEST(ClearContextKeys, LeavesThePointersAsTheyAre)
{
    KeyLibraryContext_struct context = {};
    context.uid = malloc_copy(bytes_of("device"));
    context.hmac_root_key = malloc_copy(counting_from(1, 32));
    context.hmac_session_key = malloc_copy(counting_from(1, 32));
    context.ecdsa_signing_key = malloc_copy(counting_from(1, 32));
    context.ecdsa_verification_key = malloc_copy(counting_from(1, 65));
    context.ecdh_pub_key = malloc_copy(counting_from(1, 65));
    context.kts_slot = 3;
    context.pwr_on_amtc0_len = 6;
    const Bytes before = bytes_at(&context, sizeof context);
    _clear_context_keys(&context);
    EXPECT_EQ(bytes_at(&context, sizeof context), before);
}

TEST(ClearContextKeys, FreesTheUidUnwiped)
{
    KeyLibraryContext_struct context = {};
    context.uid = malloc_copy(bytes_of("device"));
    FreedBlocks freed;
    freed.watch(context.uid, 6);
    _clear_context_keys(&context);
    ASSERT_EQ(freed.in_order.size(), 1U);
    EXPECT_EQ(freed.in_order[0].content, bytes_of("device"));
}

// The public verifiers keep null pointers away from this function.
const char* const VERIFY_ASSERTION =
    "^[^/]*key_driver/zentrava_key_driver\\.cpp:[0-9]+: [^:]* _verify_sha256_hmac\\([^:]*: "
    "Assertion `key != NULL && msg != NULL && sig != NULL && verified != NULL' failed\\.";

const uint8_t ANY_BYTES[32] = {};

TEST(VerifySha256Hmac, ComparesTheWholeTag)
{
    uint8_t tag[32];
    bool verified = false;
    ASSERT_EQ(_sha256_hmac(ANY_BYTES, 32, ANY_BYTES, 1, tag), KeyLibrary_OK);
    EXPECT_EQ(_verify_sha256_hmac(ANY_BYTES, ANY_BYTES, 1, tag, &verified), KeyLibrary_OK);
    EXPECT_TRUE(verified);
    tag[31] ^= 1;
    EXPECT_EQ(_verify_sha256_hmac(ANY_BYTES, ANY_BYTES, 1, tag, &verified), KeyLibrary_OK);
    EXPECT_FALSE(verified);
}

TEST(VerifySha256HmacDeathTest, AssertsThatTheKeyIsNotNull)
{
    bool verified = false;
    EXPECT_EXIT(_verify_sha256_hmac(NULL, ANY_BYTES, 1, ANY_BYTES, &verified),
                testing::KilledBySignal(SIGABRT), VERIFY_ASSERTION);
}

TEST(VerifySha256HmacDeathTest, AssertsThatTheMessageIsNotNull)
{
    bool verified = false;
    EXPECT_EXIT(_verify_sha256_hmac(ANY_BYTES, NULL, 1, ANY_BYTES, &verified),
                testing::KilledBySignal(SIGABRT), VERIFY_ASSERTION);
}

TEST(VerifySha256HmacDeathTest, AssertsThatTheTagIsNotNull)
{
    bool verified = false;
    EXPECT_EXIT(_verify_sha256_hmac(ANY_BYTES, ANY_BYTES, 1, NULL, &verified),
                testing::KilledBySignal(SIGABRT), VERIFY_ASSERTION);
}

TEST(VerifySha256HmacDeathTest, AssertsThatThereIsAPlaceForTheAnswer)
{
    EXPECT_EXIT(_verify_sha256_hmac(ANY_BYTES, ANY_BYTES, 1, ANY_BYTES, NULL),
                testing::KilledBySignal(SIGABRT), VERIFY_ASSERTION);
}

} // namespace
