// Opening, clearing and closing a context, seen in the library's own object code.

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/bytes.h"
#include "tests/support/context_record.h"
#include "tests/support/failing_allocation.h"
#include "tests/support/freed_blocks.h"
#include "tests/support/open_context.h"
#include "tests/support/openssl_hmac.h"
#include "tests/support/printed.h"
#include "tests/support/store_directory.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

namespace {

const size_t POINTER_SIZE = sizeof(void*);

// ---- Result codes ---------------------------------------------------------------------------

TEST(ResultCodes, SuccessIsZero)
{
    EXPECT_EQ(static_cast<int>(KeyLibrary_OK), 0);
}

TEST(ResultCodes, ErrorIsOne)
{
    EXPECT_EQ(static_cast<int>(KeyLibrary_ERROR), 1);
}

TEST(ResultCodes, BadParameterIsTwo)
{
    EXPECT_EQ(static_cast<int>(KeyLibrary_BAD_PARAMETER), 2);
}

TEST(ResultCodes, MemoryIsThree)
{
    EXPECT_EQ(static_cast<int>(KeyLibrary_MEMORY), 3);
}

TEST(ResultCodes, KeyNotFoundIsFour)
{
    EXPECT_EQ(static_cast<int>(KeyLibrary_KEY_NOT_FOUND), 4);
}

TEST(ResultCodes, InvalidKeyIsFive)
{
    EXPECT_EQ(static_cast<int>(KeyLibrary_INVALID_KEY), 5);
}

TEST(ResultCodes, CryptoIsSix)
{
    EXPECT_EQ(static_cast<int>(KeyLibrary_CRYPTO), 6);
}

TEST(ResultCodes, Have32Bits)
{
    EXPECT_EQ(sizeof(KeyLibraryErrorCode), 4U);
}

TEST(Context, IsAPointer)
{
    EXPECT_EQ(sizeof(KeyLibraryContext), POINTER_SIZE);
}

// ---- Opening --------------------------------------------------------------------------------

// A location in the middle of bytes that nobody may touch.
struct GuardedLocation {
    static const size_t GUARD = 8;

    explicit GuardedLocation(size_t misalignment) : before(GUARD + misalignment)
    {
        memset(bytes, 0xA5, sizeof bytes);
    }

    uint8_t* context_buf()
    {
        return bytes + before;
    }

    bool is_untouched() const
    {
        return is_guard(0, sizeof bytes);
    }

    bool is_untouched_around() const
    {
        return is_guard(0, before) && is_guard(before + POINTER_SIZE, sizeof bytes);
    }

    bool is_guard(size_t begin, size_t end) const
    {
        return std::all_of(bytes + begin, bytes + end, [](uint8_t byte) { return byte == 0xA5; });
    }

    size_t before;
    alignas(8) uint8_t bytes[GUARD + 8 + sizeof(void*) + GUARD];
};

TEST(KeyLibOpen, RefusesANullUidAndWritesNothing)
{
    GuardedLocation location(0);
    EXPECT_EQ(key_lib_open(nullptr, nullptr, nullptr, location.context_buf()),
              KeyLibrary_BAD_PARAMETER);
    EXPECT_TRUE(location.is_untouched());
}

TEST(KeyLibOpen, RefusesAnEmptyUidAndWritesNothing)
{
    GuardedLocation location(0);
    EXPECT_EQ(key_lib_open("", nullptr, nullptr, location.context_buf()), KeyLibrary_BAD_PARAMETER);
    EXPECT_TRUE(location.is_untouched());
}

TEST(KeyLibOpen, LooksAtTheUidBeforeItUsesTheLocation)
{
    EXPECT_EQ(key_lib_open(nullptr, nullptr, nullptr, nullptr), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(key_lib_open("", nullptr, nullptr, nullptr), KeyLibrary_BAD_PARAMETER);
}

TEST(KeyLibOpen, AllocatesNothingForARefusedUid)
{
    const Allocations made = allocations_of([] { key_lib_open("", nullptr, nullptr, nullptr); });
    EXPECT_EQ(made.requested, std::vector<size_t>());
}

TEST(KeyLibOpen, AllocatesARecordAndThenTheUidWithItsTerminator)
{
    GuardedLocation location(0);
    const Allocations made =
        allocations_of([&] { key_lib_open("device", nullptr, nullptr, location.context_buf()); });
    EXPECT_EQ(made.requested, (std::vector<size_t>{sizeof(ContextRecord), sizeof "device"}));
    key_lib_close(location.context_buf());
}

class LocationAlignment : public testing::TestWithParam<size_t> {};

TEST_P(LocationAlignment, IsOfNoConcernWhenAContextIsOpened)
{
    GuardedLocation location(GetParam());
    ASSERT_EQ(key_lib_open(DEVICE_UID, nullptr, nullptr, location.context_buf()), KeyLibrary_OK);
    EXPECT_TRUE(location.is_untouched_around());
    const ContextRecord* context = record_of(location.context_buf());
    EXPECT_STREQ(reinterpret_cast<const char*>(context->uid), DEVICE_UID);
    key_lib_close(location.context_buf());
}

TEST_P(LocationAlignment, IsOfNoConcernToAnyOperation)
{
    GuardedLocation location(GetParam());
    uint8_t* context_buf = location.context_buf();
    const Bytes key = counting_from(1, 32);
    const uint8_t msg[3] = {'m', 's', 'g'};
    Tag tag = {};
    bool verified = false;

    ASSERT_EQ(key_lib_open(DEVICE_UID, nullptr, nullptr, context_buf), KeyLibrary_OK);
    const char* key_chars = reinterpret_cast<const char*>(key.data());
    EXPECT_EQ(set_hmac_root_signing_key(context_buf, key_chars, 32), KeyLibrary_OK);
    EXPECT_EQ(set_hmac_session_key(context_buf, key_chars, 32), KeyLibrary_OK);
    EXPECT_EQ(set_srk_as_hmac_root_signing_key(context_buf, false), KeyLibrary_OK);
    EXPECT_EQ(set_crk_as_hmac_root_signing_key(context_buf, false), KeyLibrary_OK);
    EXPECT_EQ(set_csk_as_hmac_session_signing_key(context_buf, false), KeyLibrary_OK);
    record_of(context_buf)->ecdsa_signing_key = malloc_copy(key);
    record_of(context_buf)->ecdsa_verification_key = malloc_copy(counting_from(4, 65));
    EXPECT_EQ(set_ecdsa_signing_key(context_buf, false), KeyLibrary_OK);
    EXPECT_EQ(set_ecdsa_verification_key(context_buf, false), KeyLibrary_OK);
    EXPECT_EQ(gen_root_sha256_hmac(context_buf, msg, 3, tag.data()), KeyLibrary_OK);
    EXPECT_EQ(tag, openssl_hmac_sha256(key.data(), 32, msg, 3));
    EXPECT_EQ(verify_root_sha256_hmac(context_buf, msg, 3, tag.data(), &verified), KeyLibrary_OK);
    EXPECT_TRUE(verified);
    EXPECT_EQ(gen_session_sha256_hmac(context_buf, msg, 3, tag.data()), KeyLibrary_OK);
    EXPECT_EQ(verify_session_sha256_hmac(context_buf, msg, 3, tag.data(), &verified),
              KeyLibrary_OK);
    EXPECT_EQ(derive_hmac_session_key(context_buf, msg, 3, false), KeyLibrary_OK);
    EXPECT_EQ(key_lib_clear_keys(context_buf), KeyLibrary_OK);
    EXPECT_EQ(gen_root_sha256_hmac(context_buf, msg, 3, tag.data()), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(key_lib_close(context_buf), KeyLibrary_OK);
    EXPECT_TRUE(location.is_untouched_around());
}

INSTANTIATE_TEST_SUITE_P(Offset, LocationAlignment, testing::Range<size_t>(0, 8));

class Opening : public testing::Test {
  protected:
    void TearDown() override
    {
        if (context_ != nullptr) {
            EXPECT_EQ(key_lib_close(context_buf()), KeyLibrary_OK);
        }
    }

    uint8_t* context_buf()
    {
        return reinterpret_cast<uint8_t*>(&context_);
    }

    const char* uid()
    {
        return reinterpret_cast<const char*>(context_->uid);
    }

    ContextRecord* context_ = nullptr;
};

TEST_F(Opening, StartsWithNothingLoadedAndNothingRemembered)
{
    ASSERT_EQ(key_lib_open("device", nullptr, nullptr, context_buf()), KeyLibrary_OK);
    ContextRecord expected = {};
    expected.uid = context_->uid;
    EXPECT_EQ(bytes_at(context_, sizeof expected), bytes_at(&expected, sizeof expected));
}

TEST_F(Opening, CopiesTheUid)
{
    char callers_uid[] = "device";
    ASSERT_EQ(key_lib_open(callers_uid, nullptr, nullptr, context_buf()), KeyLibrary_OK);
    memset(callers_uid, 'x', sizeof callers_uid - 1);
    EXPECT_STREQ(uid(), "device");
}

TEST_F(Opening, AcceptsReservedArgumentsThatAreNull)
{
    EXPECT_EQ(key_lib_open("device", nullptr, nullptr, context_buf()), KeyLibrary_OK);
}

TEST_F(Opening, DoesNotReadItsReservedArguments)
{
    const auto* unreadable = reinterpret_cast<const uint8_t*>(1);
    EXPECT_EQ(key_lib_open("device", reinterpret_cast<const char*>(unreadable), unreadable,
                           context_buf()),
              KeyLibrary_OK);
}

TEST_F(Opening, PrintsNothing)
{
    EXPECT_EQ(printed_by([&] { key_lib_open("device", nullptr, nullptr, context_buf()); }), "");
}

TEST_F(Opening, GivesEachCallAContextOfItsOwn)
{
    ASSERT_EQ(key_lib_open("device", nullptr, nullptr, context_buf()), KeyLibrary_OK);
    ContextRecord* other = nullptr;
    auto* other_buf = reinterpret_cast<uint8_t*>(&other);
    ASSERT_EQ(key_lib_open("device", nullptr, nullptr, other_buf), KeyLibrary_OK);
    EXPECT_NE(other, context_);
    EXPECT_NE(other->uid, context_->uid);

    const Bytes key = counting_from(1, 32);
    set_hmac_root_signing_key(other_buf, reinterpret_cast<const char*>(key.data()), 32);
    EXPECT_EQ(context_->hmac_root_key, nullptr);
    key_lib_close(other_buf);
    EXPECT_STREQ(uid(), "device");
}

struct Uid {
    const char* name;
    std::string text;
};

std::ostream& operator<<(std::ostream& stream, const Uid& uid)
{
    return stream << uid.name;
}

class UidText : public Opening, public testing::WithParamInterface<Uid> {};

TEST_P(UidText, IsCopiedWithItsTerminator)
{
    const std::string text = GetParam().text;
    ASSERT_EQ(key_lib_open(text.c_str(), nullptr, nullptr, context_buf()), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(context_->uid, text.size() + 1), bytes_at(text.c_str(), text.size() + 1));
}

INSTANTIATE_TEST_SUITE_P(Of, UidText,
                         testing::Values(Uid{"OneCharacter", "1"}, Uid{"ThatOfADevice", DEVICE_UID},
                                         Uid{"31Characters", std::string(31, 'u')},
                                         Uid{"33Characters", std::string(33, 'u')},
                                         Uid{"5000Characters", std::string(5000, 'u')},
                                         Uid{"ABlank", " "}, Uid{"Markup", "<&>\"'\n"},
                                         Uid{"BytesOutsideAscii", "\x80\xff\xc3\xa9"}),
                         [](const auto& test) { return test.param.name; });

// ---- Closing and clearing -------------------------------------------------------------------

struct EndOfKeys {
    const char* name;
    KeyLibraryErrorCode (*call)(uint8_t* context_buf);
};

std::ostream& operator<<(std::ostream& stream, const EndOfKeys& end)
{
    return stream << end.name;
}

const EndOfKeys CLOSE = {"Close", key_lib_close};
const EndOfKeys CLEAR = {"Clear", [](uint8_t* context_buf) {
                             return key_lib_clear_keys(context_buf);
                         }};

const std::map<std::string, KeyPointer> KEYS_THAT_ARE_FREED = {
    {"hmac_root_key", &ContextRecord::hmac_root_key},
    {"hmac_session_key", &ContextRecord::hmac_session_key},
    {"ecdh_pub_key", &ContextRecord::ecdh_pub_key},
    {"ecdsa_signing_key", &ContextRecord::ecdsa_signing_key},
    {"ecdsa_verification_key", &ContextRecord::ecdsa_verification_key},
};

const size_t PLANTED_SIZE = 80;

// A context in which every field that can hold a buffer holds one, longer than any key.
class FullContext : public testing::Test {
  protected:
    void SetUp() override
    {
        ASSERT_EQ(key_lib_open(DEVICE_UID, nullptr, nullptr, context_buf()), KeyLibrary_OK);
        name_of_[context_->uid] = "uid";
        name_of_[context_] = "record";
        for (const auto& [name, field] : KEYS_THAT_ARE_FREED) {
            context_->*field = malloc_copy(planted_);
            name_of_[context_->*field] = name;
            freed_.watch(context_->*field, PLANTED_SIZE);
        }
        context_->kts_hmac_signing_key = kts_hmac_signing_key_ = malloc_copy(planted_);
        context_->kts_ecdsa_signing_key = kts_ecdsa_signing_key_ = malloc_copy(planted_);
        name_of_[kts_hmac_signing_key_] = "kts_hmac_signing_key";
        name_of_[kts_ecdsa_signing_key_] = "kts_ecdsa_signing_key";
        freed_.watch(context_->uid, strlen(DEVICE_UID) + 1);
        freed_.watch(context_, sizeof *context_);
        freed_.watch(kts_hmac_signing_key_, PLANTED_SIZE);
        freed_.watch(kts_ecdsa_signing_key_, PLANTED_SIZE);
        memset(context_->pwr_on_amtc0, 0x77, sizeof context_->pwr_on_amtc0);
        context_->pwr_on_amtc0_len = 6;
        context_->kts_slot = 5;
    }

    void TearDown() override
    {
        free(kts_hmac_signing_key_);
        free(kts_ecdsa_signing_key_);
    }

    uint8_t* context_buf()
    {
        return reinterpret_cast<uint8_t*>(&context_);
    }

    std::vector<std::string> freed_names() const
    {
        std::vector<std::string> names;
        for (const FreedBlock& block : freed_.in_order) {
            names.push_back(name_of_.at(block.address));
        }
        return names;
    }

    Bytes content_when_freed(const std::string& name) const
    {
        for (const FreedBlock& block : freed_.in_order) {
            if (name_of_.at(block.address) == name) {
                return block.content;
            }
        }
        ADD_FAILURE() << name << " was not freed";
        return {};
    }

    const Bytes planted_ = counting_from(1, PLANTED_SIZE);
    ContextRecord* context_ = nullptr;
    uint8_t* kts_hmac_signing_key_ = nullptr;
    uint8_t* kts_ecdsa_signing_key_ = nullptr;
    std::map<const void*, std::string> name_of_;
    FreedBlocks freed_;
};

struct WipeLength {
    const char* field;
    size_t wiped;
};

std::ostream& operator<<(std::ostream& stream, const WipeLength& wipe)
{
    return stream << wipe.field;
}

class Wiping : public FullContext,
               public testing::WithParamInterface<std::tuple<EndOfKeys, WipeLength>> {};

TEST_P(Wiping, ZerosAKeyForItsLengthAndNoFurther)
{
    const auto& [end, wipe] = GetParam();
    EXPECT_EQ(end.call(context_buf()), KeyLibrary_OK);

    Bytes expected = planted_;
    std::fill_n(expected.begin(), wipe.wiped, uint8_t{0});
    EXPECT_EQ(to_hex(content_when_freed(wipe.field)), to_hex(expected));

    if (end.call != key_lib_close) {
        key_lib_close(context_buf());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Field, Wiping,
    testing::Combine(testing::Values(CLOSE, CLEAR),
                     testing::Values(WipeLength{"hmac_root_key", 32},
                                     WipeLength{"hmac_session_key", 32},
                                     WipeLength{"ecdh_pub_key", 64},
                                     WipeLength{"ecdsa_signing_key", 32},
                                     WipeLength{"ecdsa_verification_key", 33})),
    [](const auto& test) {
        return std::string(std::get<0>(test.param).name) + "_" + std::get<1>(test.param).field;
    });

TEST_F(FullContext, ClosedFreesEachBufferOnceAndInOrder)
{
    key_lib_close(context_buf());
    EXPECT_EQ(freed_names(), (std::vector<std::string>{"hmac_root_key", "hmac_session_key",
                                                       "ecdh_pub_key", "ecdsa_signing_key",
                                                       "ecdsa_verification_key", "uid", "record"}));
}

TEST_F(FullContext, ClearedFreesEachKeyOnceAndInOrder)
{
    key_lib_clear_keys(context_buf());
    EXPECT_EQ(freed_names(),
              (std::vector<std::string>{"hmac_root_key", "hmac_session_key", "ecdh_pub_key",
                                        "ecdsa_signing_key", "ecdsa_verification_key"}));
    key_lib_close(context_buf());
}

TEST_F(FullContext, ClosedDoesNotWipeTheUid)
{
    key_lib_close(context_buf());
    EXPECT_EQ(content_when_freed("uid"), bytes_at(DEVICE_UID, strlen(DEVICE_UID) + 1));
}

TEST_F(FullContext, ClosedNeitherWipesNorFreesTheKtsKeys)
{
    key_lib_close(context_buf());
    const std::vector<std::string> names = freed_names();
    EXPECT_EQ(std::count(names.begin(), names.end(), "kts_hmac_signing_key"), 0);
    EXPECT_EQ(std::count(names.begin(), names.end(), "kts_ecdsa_signing_key"), 0);
    EXPECT_EQ(bytes_at(kts_hmac_signing_key_, PLANTED_SIZE), planted_);
    EXPECT_EQ(bytes_at(kts_ecdsa_signing_key_, PLANTED_SIZE), planted_);
}

TEST_F(FullContext, ClearedDropsTheKtsKeysWithoutWipingOrFreeingThem)
{
    key_lib_clear_keys(context_buf());
    EXPECT_EQ(context_->kts_hmac_signing_key, nullptr);
    EXPECT_EQ(context_->kts_ecdsa_signing_key, nullptr);
    const std::vector<std::string> names = freed_names();
    EXPECT_EQ(std::count(names.begin(), names.end(), "kts_hmac_signing_key"), 0);
    EXPECT_EQ(std::count(names.begin(), names.end(), "kts_ecdsa_signing_key"), 0);
    EXPECT_EQ(bytes_at(kts_hmac_signing_key_, PLANTED_SIZE), planted_);
    EXPECT_EQ(bytes_at(kts_ecdsa_signing_key_, PLANTED_SIZE), planted_);
    key_lib_close(context_buf());
}

TEST_F(FullContext, ClearedKeepsItsUidAndNothingElse)
{
    uint8_t* uid = context_->uid;
    EXPECT_EQ(key_lib_clear_keys(context_buf()), KeyLibrary_OK);
    EXPECT_EQ(context_->uid, uid);
    EXPECT_STREQ(reinterpret_cast<const char*>(context_->uid), DEVICE_UID);

    ContextRecord expected = {};
    expected.uid = uid;
    EXPECT_EQ(bytes_at(context_, sizeof expected), bytes_at(&expected, sizeof expected));
    key_lib_close(context_buf());
}

TEST_F(FullContext, ClearedTwiceFreesNothingMore)
{
    key_lib_clear_keys(context_buf());
    const size_t freed_before = freed_.in_order.size();
    EXPECT_EQ(key_lib_clear_keys(context_buf()), KeyLibrary_OK);
    EXPECT_EQ(freed_.in_order.size(), freed_before);
    key_lib_close(context_buf());
}

TEST_F(FullContext, ClearedAndClosedFreesTheUidAndTheRecord)
{
    key_lib_clear_keys(context_buf());
    freed_.in_order.clear();
    EXPECT_EQ(key_lib_close(context_buf()), KeyLibrary_OK);
    EXPECT_EQ(freed_names(), (std::vector<std::string>{"uid", "record"}));
}

TEST_F(FullContext, ClearedKeepsTheLocation)
{
    ContextRecord* context = context_;
    key_lib_clear_keys(context_buf());
    EXPECT_EQ(context_, context);
    key_lib_close(context_buf());
}

TEST_F(FullContext, ClosedLeavesTheStalePointerInTheLocation)
{
    ContextRecord* context = context_;
    key_lib_close(context_buf());
    EXPECT_EQ(context_, context);
}

TEST_F(FullContext, PrintsNothingWhenClearedAndClosed)
{
    EXPECT_EQ(printed_by([&] {
                  key_lib_clear_keys(context_buf());
                  key_lib_close(context_buf());
              }),
              "");
}

TEST(KeyLibClose, AcceptsANullLocation)
{
    EXPECT_EQ(key_lib_close(nullptr), KeyLibrary_OK);
}

TEST(KeyLibClearKeys, RefusesANullLocation)
{
    EXPECT_EQ(key_lib_clear_keys(nullptr), KeyLibrary_BAD_PARAMETER);
}

TEST_F(OpenContext, ClosesWithoutAnyKey)
{
    uint8_t other[sizeof(void*)];
    ASSERT_EQ(key_lib_open(DEVICE_UID, nullptr, nullptr, other), KeyLibrary_OK);
    EXPECT_EQ(key_lib_close(other), KeyLibrary_OK);
}

TEST_F(OpenContext, ClosesWithoutAUid)
{
    drop_uid(); // TearDown closes it and sees success
}

TEST_F(OpenContext, IsClearedWithoutAUid)
{
    drop_uid();
    set_hmac_root_signing_key(context_buf(), std::string(32, 'k').c_str(), 32);
    EXPECT_EQ(key_lib_clear_keys(context_buf()), KeyLibrary_OK);
    EXPECT_EQ(context().uid, nullptr);
    EXPECT_EQ(context().hmac_root_key, nullptr);
}

// ---- After key_lib_clear_keys ---------------------------------------------------------------

class ClearedContext : public OpenContext {
  protected:
    void SetUp() override
    {
        OpenContext::SetUp();
        write_store_file(PRIVATE_FILE,
                         record(DEVICE_UID, "srk", "1", to_hex(srk_)) +
                             record(DEVICE_UID, "ecdsa_prv", "2", to_hex(signing_)) +
                             record(DEVICE_UID, "ECDSA_DS_PuK", "3", to_hex(verification_)));
        ASSERT_EQ(set_srk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_OK);
        ASSERT_EQ(derive_hmac_session_key(context_buf(), amtc0_, 6, false), KeyLibrary_OK);
        ASSERT_EQ(key_lib_clear_keys(context_buf()), KeyLibrary_OK);
    }

    const Bytes srk_ = counting_from(0x10, 32);
    const Bytes signing_ = counting_from(0x40, 32);
    const Bytes verification_ = counting_from(0x80, 64);
    const uint8_t amtc0_[6] = {1, 2, 3, 4, 5, 6};
    const uint8_t msg_[3] = {'m', 's', 'g'};
    Tag tag_ = {};
    bool verified_ = true;
};

TEST_F(ClearedContext, StillFindsItsUidWhenTheRootKeyIsLoaded)
{
    EXPECT_EQ(set_srk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(context().hmac_root_key, 32), srk_);
}

TEST_F(ClearedContext, StillFindsItsUidWhenTheSigningKeyIsLoaded)
{
    EXPECT_EQ(set_ecdsa_signing_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(context().ecdsa_signing_key, 32), signing_);
}

TEST_F(ClearedContext, StillFindsItsUidWhenTheVerificationKeyIsLoaded)
{
    EXPECT_EQ(set_ecdsa_verification_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(context().ecdsa_verification_key + 1, 64), verification_);
}

TEST_F(ClearedContext, HasNoRootKeyToMakeATagWith)
{
    EXPECT_EQ(gen_root_sha256_hmac(context_buf(), msg_, 3, tag_.data()), KeyLibrary_KEY_NOT_FOUND);
}

TEST_F(ClearedContext, HasNoSessionKeyToMakeATagWith)
{
    EXPECT_EQ(gen_session_sha256_hmac(context_buf(), msg_, 3, tag_.data()),
              KeyLibrary_KEY_NOT_FOUND);
}

TEST_F(ClearedContext, HasNoRootKeyToVerifyATagWith)
{
    EXPECT_EQ(verify_root_sha256_hmac(context_buf(), msg_, 3, tag_.data(), &verified_),
              KeyLibrary_KEY_NOT_FOUND);
}

TEST_F(ClearedContext, HasNoSessionKeyToVerifyATagWith)
{
    EXPECT_EQ(verify_session_sha256_hmac(context_buf(), msg_, 3, tag_.data(), &verified_),
              KeyLibrary_KEY_NOT_FOUND);
}

TEST_F(ClearedContext, HasNoRootKeyToDeriveFrom)
{
    EXPECT_EQ(derive_hmac_session_key(context_buf(), amtc0_, 6, false), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(derive_hmac_session_key(context_buf(), amtc0_, 6, true), KeyLibrary_KEY_NOT_FOUND);
}

TEST_F(ClearedContext, MakesTagsAgainOnceAKeyIsLoadedAgain)
{
    ASSERT_EQ(set_srk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(gen_root_sha256_hmac(context_buf(), msg_, 3, tag_.data()), KeyLibrary_OK);
    EXPECT_EQ(tag_, openssl_hmac_sha256(srk_.data(), 32, msg_, 3));
}

} // namespace
