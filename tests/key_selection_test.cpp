// Putting keys into a context: from the key store under their names, and from the caller.

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/bytes.h"
#include "tests/support/context_record.h"
#include "tests/support/failing_allocation.h"
#include "tests/support/freed_blocks.h"
#include "tests/support/loaders.h"
#include "tests/support/open_context.h"
#include "tests/support/openssl_hmac.h"
#include "tests/support/printed.h"
#include "tests/support/store_directory.h"
#include "tests/support/store_double.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace {

const std::map<std::string, KeyPointer> KEY_FIELDS = {
    {"hmac_root_key", &ContextRecord::hmac_root_key},
    {"hmac_session_key", &ContextRecord::hmac_session_key},
    {"ecdsa_signing_key", &ContextRecord::ecdsa_signing_key},
    {"ecdsa_verification_key", &ContextRecord::ecdsa_verification_key},
    {"ecdh_pub_key", &ContextRecord::ecdh_pub_key},
    {"kts_hmac_signing_key", &ContextRecord::kts_hmac_signing_key},
    {"kts_ecdsa_signing_key", &ContextRecord::kts_ecdsa_signing_key},
};

// The key fields of a context that are loaded.
std::vector<std::string> loaded_fields(const ContextRecord& context)
{
    std::vector<std::string> names;
    for (const auto& [name, field] : KEY_FIELDS) {
        if (context.*field != nullptr) {
            names.push_back(name);
        }
    }
    return names;
}

// ---- The five loaders -----------------------------------------------------------------------

const size_t PLANTED_SIZE = 128;

class KeySelection : public OpenContext {
  protected:
    void SetUp() override
    {
        restore_store();
        OpenContext::SetUp();
    }

    // A buffer that is longer than any key, so that it shows what is written behind one.
    uint8_t* plant(KeyPointer field)
    {
        context().*field = malloc_copy(planted_);
        return context().*field;
    }

    void put_into_store(const std::string& key_name, const Bytes& key)
    {
        write_store_file(PRIVATE_FILE, record(DEVICE_UID, key_name, "1", to_hex(key)));
    }

    const Bytes planted_ = counting_from(0x80, PLANTED_SIZE);
};

class LoadedKey : public KeySelection, public testing::WithParamInterface<Loader> {
  protected:
    KeyLibraryErrorCode load(bool force)
    {
        return loader_.load(context_buf(), force);
    }

    uint8_t*& buffer()
    {
        return context().*loader_.field;
    }

    Bytes loaded_key()
    {
        return bytes_at(buffer() + loader_.prefix_len(), loader_.key_len);
    }

    void answer_with_key()
    {
        answer_for_store({0, key_, loader_.key_len});
    }

    const Loader loader_ = GetParam();
    const Bytes key_ = counting_from(0x11, loader_.key_len);
    const Bytes other_key_ = counting_from(0x55, loader_.key_len);
};

std::string function_of(const testing::TestParamInfo<Loader>& test)
{
    return test.param.function;
}

INSTANTIATE_TEST_SUITE_P(By, LoadedKey, testing::ValuesIn(LOADERS), function_of);

TEST_P(LoadedKey, ComesFromTheStoreFiles)
{
    put_into_store(loader_.key_name, key_);
    EXPECT_EQ(load(false), KeyLibrary_OK);
    EXPECT_EQ(to_hex(loaded_key()), to_hex(key_));
}

TEST_P(LoadedKey, ComesFromTheStoreFilesWhenForced)
{
    put_into_store(loader_.key_name, key_);
    EXPECT_EQ(load(true), KeyLibrary_OK);
    EXPECT_EQ(to_hex(loaded_key()), to_hex(key_));
}

TEST_P(LoadedKey, IsTheOneOfTheContextsUid)
{
    write_store_file(PRIVATE_FILE, record("another", loader_.key_name, "1", to_hex(other_key_)) +
                                       record(DEVICE_UID, loader_.key_name, "2", to_hex(key_)));
    EXPECT_EQ(load(false), KeyLibrary_OK);
    EXPECT_EQ(to_hex(loaded_key()), to_hex(key_));
}

TEST_P(LoadedKey, IsTheOnlyOneThatIsLoaded)
{
    answer_with_key();
    EXPECT_EQ(load(false), KeyLibrary_OK);
    EXPECT_EQ(loaded_fields(context()), std::vector<std::string>{loader_.field_name});
}

TEST_P(LoadedKey, IsAskedOfTheStoreByItsUidNameBufferAndLength)
{
    answer_with_key();
    EXPECT_EQ(load(false), KeyLibrary_OK);
    ASSERT_EQ(store_requests().size(), 1U);
    const StoreRequest& request = store_requests()[0];
    EXPECT_EQ(request.uid, context().uid);
    EXPECT_STREQ(request.key_name, loader_.key_name);
    EXPECT_EQ(request.buffer, buffer() + loader_.prefix_len());
    EXPECT_EQ(request.len, loader_.key_len);
}

TEST_P(LoadedKey, IsAskedOfTheStoreInTheSameWayWhenForced)
{
    uint8_t* in_place = plant(loader_.field);
    answer_with_key();
    EXPECT_EQ(load(true), KeyLibrary_OK);
    ASSERT_EQ(store_requests().size(), 1U);
    const StoreRequest& request = store_requests()[0];
    EXPECT_EQ(request.uid, context().uid);
    EXPECT_STREQ(request.key_name, loader_.key_name);
    EXPECT_EQ(request.buffer, in_place + loader_.prefix_len());
    EXPECT_EQ(request.len, loader_.key_len);
}

TEST_P(LoadedKey, GetsOneBufferOfItsSize)
{
    for (const bool force : {false, true}) {
        key_lib_clear_keys(context_buf());
        answer_for_store({0, {}, loader_.key_len});
        const Allocations made = allocations_of([&] { load(force); });
        EXPECT_EQ(made.requested, std::vector<size_t>{loader_.buffer_size});
        ASSERT_EQ(made.left.size(), 1U);
        EXPECT_EQ(made.left[0].address, buffer());
    }
}

TEST_P(LoadedKey, FillsItsBufferAndNothingBehind)
{
    uint8_t* in_place = plant(loader_.field);
    answer_with_key();
    EXPECT_EQ(load(true), KeyLibrary_OK);
    Bytes expected = planted_;
    std::copy(key_.begin(), key_.end(), expected.begin() + static_cast<long>(loader_.prefix_len()));
    if (loader_.prefix_len() == 1) {
        expected[0] = 0x04;
    }
    EXPECT_EQ(to_hex(bytes_at(in_place, PLANTED_SIZE)), to_hex(expected));
}

TEST_P(LoadedKey, IsRefusedWithoutALocation)
{
    answer_with_key();
    EXPECT_EQ(loader_.load(nullptr, false), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(loader_.load(nullptr, true), KeyLibrary_BAD_PARAMETER);
    EXPECT_TRUE(store_requests().empty());
}

TEST_P(LoadedKey, WithoutAUidIsRefusedOrLeftToTheStore)
{
    drop_uid();
    answer_with_key();
    for (const bool force : {false, true}) {
        key_lib_clear_keys(context_buf());
        EXPECT_EQ(load(force), loader_.requires_uid ? KeyLibrary_BAD_PARAMETER : KeyLibrary_OK);
        EXPECT_EQ(buffer() != nullptr, !loader_.requires_uid);
    }
    EXPECT_EQ(store_requests().size(), loader_.requires_uid ? 0U : 2U);
    for (const StoreRequest& request : store_requests()) {
        EXPECT_EQ(request.uid, nullptr);
    }
}

TEST_P(LoadedKey, WithoutAUidIsNotFoundWhereTheStoreIsAsked)
{
    put_into_store(loader_.key_name, key_);
    drop_uid();
    EXPECT_EQ(load(false),
              loader_.requires_uid ? KeyLibrary_BAD_PARAMETER : KeyLibrary_KEY_NOT_FOUND);
}

TEST_P(LoadedKey, InPlaceIsNoExcuseForAMissingUid)
{
    plant(loader_.field);
    drop_uid();
    EXPECT_EQ(load(false), loader_.requires_uid ? KeyLibrary_BAD_PARAMETER : KeyLibrary_OK);
    EXPECT_TRUE(store_requests().empty());
}

TEST_P(LoadedKey, StaysWithoutTheStoreBeingAsked)
{
    uint8_t* in_place = plant(loader_.field);
    answer_with_key();
    EXPECT_EQ(load(false), KeyLibrary_OK);
    EXPECT_TRUE(store_requests().empty());
    EXPECT_EQ(buffer(), in_place);
    EXPECT_EQ(bytes_at(in_place, PLANTED_SIZE), planted_);
}

TEST_P(LoadedKey, StaysWhenTheStoreNoLongerHoldsIt)
{
    put_into_store(loader_.key_name, key_);
    ASSERT_EQ(load(false), KeyLibrary_OK);
    write_store_file(PRIVATE_FILE, "");
    EXPECT_EQ(load(false), KeyLibrary_OK);
    EXPECT_EQ(to_hex(loaded_key()), to_hex(key_));
}

TEST_P(LoadedKey, IsReplacedInPlaceWhenForced)
{
    put_into_store(loader_.key_name, key_);
    ASSERT_EQ(load(false), KeyLibrary_OK);
    uint8_t* in_place = buffer();
    put_into_store(loader_.key_name, other_key_);
    EXPECT_EQ(load(true), KeyLibrary_OK);
    EXPECT_EQ(buffer(), in_place);
    EXPECT_EQ(to_hex(loaded_key()), to_hex(other_key_));
}

TEST_P(LoadedKey, NeedsNoMemoryWhenReplaced)
{
    plant(loader_.field);
    answer_for_store({0, {}, loader_.key_len});
    const Allocations made = allocations_of([&] { load(true); });
    EXPECT_EQ(made.requested, std::vector<size_t>());
}

TEST_P(LoadedKey, IsNotFoundWhenTheStoreDoesNotHoldIt)
{
    EXPECT_EQ(load(false), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(load(true), KeyLibrary_KEY_NOT_FOUND);
}

TEST_P(LoadedKey, IsNotFoundWithoutStoreFiles)
{
    ASSERT_EQ(unlink(PRIVATE_FILE), 0);
    ASSERT_EQ(unlink(PUBLIC_FILE), 0);
    EXPECT_EQ(load(false), KeyLibrary_KEY_NOT_FOUND);
}

TEST_P(LoadedKey, IsNotFoundWhateverElseThanSuccessTheStoreReturns)
{
    for (const uint32_t result : {1U, 2U, 3U, 4U, 5U, 6U, 0x100U, 0x10000U, 0xffffffffU}) {
        key_lib_clear_keys(context_buf());
        answer_for_store({result, {}, loader_.key_len});
        EXPECT_EQ(load(false), KeyLibrary_KEY_NOT_FOUND) << "store result " << result;
    }
}

TEST_P(LoadedKey, NotFoundIsToldEvenWhenTheLengthIsWrongToo)
{
    answer_for_store({1, {}, loader_.key_len - 1});
    EXPECT_EQ(load(false), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_NE(buffer(), nullptr);
}

TEST_P(LoadedKey, NotFoundLeavesItsNewBufferForTheNextLoadToFind)
{
    EXPECT_EQ(load(false), KeyLibrary_KEY_NOT_FOUND);
    uint8_t* left_behind = buffer();
    ASSERT_NE(left_behind, nullptr);
    put_into_store(loader_.key_name, key_);
    const size_t requests_before = store_requests().size();
    EXPECT_EQ(load(false), KeyLibrary_OK);
    EXPECT_EQ(store_requests().size(), requests_before);
    EXPECT_EQ(buffer(), left_behind);
    EXPECT_NE(to_hex(loaded_key()), to_hex(key_));
}

TEST_P(LoadedKey, NotFoundLeavesANewBufferOfZeros)
{
    EXPECT_EQ(load(false), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(to_hex(loaded_key()), to_hex(Bytes(loader_.key_len, 0)));
}

TEST_P(LoadedKey, NotFoundWhenForcedLeavesTheOldOne)
{
    put_into_store(loader_.key_name, key_);
    ASSERT_EQ(load(false), KeyLibrary_OK);
    uint8_t* in_place = buffer();
    write_store_file(PRIVATE_FILE, "");
    EXPECT_EQ(load(true), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(buffer(), in_place);
    EXPECT_EQ(to_hex(loaded_key()), to_hex(key_));
}

TEST_P(LoadedKey, NotFoundWhenForcedLeavesWhatTheStoreWrote)
{
    uint8_t* in_place = plant(loader_.field);
    answer_for_store({1, Bytes(5, 0xEE), loader_.key_len});
    EXPECT_EQ(load(true), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(buffer(), in_place);
    EXPECT_EQ(bytes_at(in_place + loader_.prefix_len(), 5), Bytes(5, 0xEE));
    const size_t behind = loader_.prefix_len() + 5;
    EXPECT_EQ(bytes_at(in_place + behind, PLANTED_SIZE - behind),
              Bytes(planted_.begin() + static_cast<long>(behind), planted_.end()));
}

TEST_P(LoadedKey, ThatIsTooShortInTheStoreIsInvalid)
{
    put_into_store(loader_.key_name, counting_from(1, 16));
    EXPECT_EQ(load(false), KeyLibrary_INVALID_KEY);
    EXPECT_EQ(buffer(), nullptr);
}

TEST_P(LoadedKey, OneByteTooShortInTheStoreIsInvalid)
{
    put_into_store(loader_.key_name, counting_from(1, loader_.key_len - 1));
    EXPECT_EQ(load(false), KeyLibrary_INVALID_KEY);
    EXPECT_EQ(buffer(), nullptr);
}

TEST_P(LoadedKey, ThatIsTooLongInTheStoreIsNotFound)
{
    put_into_store(loader_.key_name, counting_from(1, 2 * loader_.key_len));
    EXPECT_EQ(load(false), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_NE(buffer(), nullptr);
}

TEST_P(LoadedKey, OneByteTooLongInTheStoreIsNotFound)
{
    put_into_store(loader_.key_name, counting_from(1, loader_.key_len + 1));
    EXPECT_EQ(load(false), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_NE(buffer(), nullptr);
}

TEST_P(LoadedKey, OfInvalidLengthIsUnloadedAndAskedForAgain)
{
    answer_for_store({0, {}, loader_.key_len - 1});
    ASSERT_EQ(load(false), KeyLibrary_INVALID_KEY);
    EXPECT_EQ(loaded_fields(context()), std::vector<std::string>());
    answer_with_key();
    EXPECT_EQ(load(false), KeyLibrary_OK);
    EXPECT_EQ(store_requests().size(), 2U);
    EXPECT_EQ(to_hex(loaded_key()), to_hex(key_));
}

TEST_P(LoadedKey, InPlaceIsUnloadedWhenForcedToAnInvalidLength)
{
    plant(loader_.field);
    answer_for_store({0, {}, loader_.key_len - 1});
    EXPECT_EQ(load(true), KeyLibrary_INVALID_KEY);
    EXPECT_EQ(buffer(), nullptr);
}

TEST_P(LoadedKey, IsRefusedWithoutMemoryAndTheStoreIsNotAsked)
{
    for (const bool force : {false, true}) {
        KeyLibraryErrorCode result = KeyLibrary_OK;
        failing_allocation(1, [&] { result = load(force); });
        EXPECT_EQ(result, KeyLibrary_MEMORY);
        EXPECT_EQ(buffer(), nullptr);
        EXPECT_TRUE(store_requests().empty());
    }
    answer_with_key();
    EXPECT_EQ(load(false), KeyLibrary_OK);
}

TEST_P(LoadedKey, LeavesTheUidAndTheDerivedValuesAlone)
{
    memset(context().pwr_on_amtc0, 0x77, 6);
    context().pwr_on_amtc0_len = 6;
    context().kts_slot = 5;
    const uint8_t* uid = context().uid;
    answer_with_key();
    EXPECT_EQ(load(true), KeyLibrary_OK);
    EXPECT_EQ(context().uid, uid);
    EXPECT_STREQ(reinterpret_cast<const char*>(context().uid), DEVICE_UID);
    EXPECT_EQ(bytes_at(context().pwr_on_amtc0, 6), Bytes(6, 0x77));
    EXPECT_EQ(context().pwr_on_amtc0_len, 6U);
    EXPECT_EQ(context().kts_slot, 5U);
}

TEST_P(LoadedKey, IsLoadedWithoutAWordFromTheDriver)
{
    const StoreAnswer answers[] = {
        {0, key_, loader_.key_len}, {1, {}, loader_.key_len}, {0, {}, loader_.key_len - 1}};
    for (const StoreAnswer& answer : answers) {
        answer_for_store(answer);
        EXPECT_EQ(printed_by([&] { load(true); }), "");
    }
    EXPECT_EQ(printed_by([&] { loader_.load(nullptr, false); }), "");
}

// ---- What is wiped of a key of the wrong length ---------------------------------------------

// A length that the store reports; the real one never reports more than it was asked for.
struct ReportedLength {
    Loader loader;
    uint32_t len;
};

std::ostream& operator<<(std::ostream& stream, const ReportedLength& reported)
{
    return stream << reported.loader << ", " << reported.len << " bytes";
}

std::vector<ReportedLength> wrong_lengths()
{
    std::vector<ReportedLength> wrong;
    for (const Loader& loader : LOADERS) {
        for (const uint32_t len : {0U, 1U, 16U, 31U, 32U, 33U, 40U, 63U, 64U, 65U, 100U}) {
            if (len != loader.key_len) {
                wrong.push_back({loader, len});
            }
        }
    }
    return wrong;
}

class WrongLength : public KeySelection, public testing::WithParamInterface<ReportedLength> {};

TEST_P(WrongLength, IsWipedForTheLengthToldAndNoFurther)
{
    const auto& [loader, reported] = GetParam();
    FreedBlocks freed;
    uint8_t* in_place = plant(loader.field);
    freed.watch(in_place, PLANTED_SIZE);
    answer_for_store({0, {}, reported});
    EXPECT_EQ(loader.load(context_buf(), true), KeyLibrary_INVALID_KEY);
    EXPECT_EQ(context().*loader.field, nullptr);

    const size_t wiped = loader.wipes_reported_length ? loader.prefix_len() + reported : 32;
    Bytes expected = planted_;
    if (loader.prefix_len() == 1) {
        expected[0] = 0x04;
    }
    std::fill_n(expected.begin(), wiped, uint8_t{0});
    ASSERT_EQ(freed.in_order.size(), 1U);
    EXPECT_EQ(freed.in_order[0].address, in_place);
    EXPECT_EQ(to_hex(freed.in_order[0].content), to_hex(expected));
}

INSTANTIATE_TEST_SUITE_P(Of, WrongLength, testing::ValuesIn(wrong_lengths()), [](const auto& test) {
    return std::string(test.param.loader.function) + "_" + std::to_string(test.param.len);
});

// ---- What only one of the loaders does ------------------------------------------------------

class VerificationKey : public KeySelection {};

TEST_F(VerificationKey, StartsWithTheMarkOfAnUncompressedPoint)
{
    put_into_store("ECDSA_DS_PuK", counting_from(0x11, 64));
    EXPECT_EQ(set_ecdsa_verification_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(context().ecdsa_verification_key[0], 0x04);
    EXPECT_EQ(bytes_at(context().ecdsa_verification_key + 1, 64), counting_from(0x11, 64));
}

TEST_F(VerificationKey, HasItsMarkWhenTheStoreFails)
{
    answer_for_store({1, {}, 64});
    EXPECT_EQ(set_ecdsa_verification_key(context_buf(), false), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(context().ecdsa_verification_key[0], 0x04);
}

TEST_F(VerificationKey, GetsItsMarkAnewWhenForced)
{
    plant(&ContextRecord::ecdsa_verification_key);
    answer_for_store({1, {}, 64});
    EXPECT_EQ(set_ecdsa_verification_key(context_buf(), true), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(context().ecdsa_verification_key[0], 0x04);
}

TEST_F(VerificationKey, KeepsItsFirstByteWhenItIsInPlace)
{
    plant(&ContextRecord::ecdsa_verification_key);
    EXPECT_EQ(set_ecdsa_verification_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(context().ecdsa_verification_key[0], planted_[0]);
}

class RootKey : public KeySelection {
  protected:
    void SetUp() override
    {
        KeySelection::SetUp();
        write_store_file(PRIVATE_FILE, record(DEVICE_UID, "srk", "1", to_hex(srk_)) +
                                           record(DEVICE_UID, "crk", "2", to_hex(crk_)));
    }

    Bytes root_key()
    {
        return bytes_at(context().hmac_root_key, 32);
    }

    const Bytes srk_ = counting_from(0x10, 32);
    const Bytes crk_ = counting_from(0x60, 32);
};

TEST_F(RootKey, StaysSrkWhenCrkIsLoadedNext)
{
    EXPECT_EQ(set_srk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(set_crk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(root_key(), srk_);
}

TEST_F(RootKey, StaysCrkWhenSrkIsLoadedNext)
{
    EXPECT_EQ(set_crk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(set_srk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(root_key(), crk_);
}

TEST_F(RootKey, BecomesCrkWhenThatIsForced)
{
    EXPECT_EQ(set_srk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(set_crk_as_hmac_root_signing_key(context_buf(), true), KeyLibrary_OK);
    EXPECT_EQ(root_key(), crk_);
}

TEST_F(RootKey, BecomesSrkWhenThatIsForced)
{
    EXPECT_EQ(set_crk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(set_srk_as_hmac_root_signing_key(context_buf(), true), KeyLibrary_OK);
    EXPECT_EQ(root_key(), srk_);
}

TEST_F(RootKey, IsReplacedByTheCallers32Bytes)
{
    EXPECT_EQ(set_srk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_OK);
    const Bytes key = counting_from(0xA0, 32);
    EXPECT_EQ(
        set_hmac_root_signing_key(context_buf(), reinterpret_cast<const char*>(key.data()), 32),
        KeyLibrary_OK);
    EXPECT_EQ(root_key(), key);
}

TEST_F(RootKey, OfTheCallerStaysWhenSrkIsLoadedNext)
{
    const Bytes key = counting_from(0xA0, 40);
    set_hmac_root_signing_key(context_buf(), reinterpret_cast<const char*>(key.data()), 40);
    EXPECT_EQ(set_srk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(root_key(), counting_from(0xA0, 32));
}

TEST_F(RootKey, OfTheCallerIsReplacedWhenSrkIsForced)
{
    const Bytes key = counting_from(0xA0, 40);
    set_hmac_root_signing_key(context_buf(), reinterpret_cast<const char*>(key.data()), 40);
    EXPECT_EQ(set_srk_as_hmac_root_signing_key(context_buf(), true), KeyLibrary_OK);
    EXPECT_EQ(root_key(), srk_);
}

// ---- The two setters ------------------------------------------------------------------------

struct Setter {
    const char* function;
    KeyLibraryErrorCode (*set)(const uint8_t* context_buf, const char* key, uint32_t key_len);
    const char* field_name;
    KeyLibraryErrorCode (*tag)(const uint8_t* context_buf, const uint8_t* msg, uint32_t msg_len,
                               uint8_t* digest);

    KeyPointer field() const
    {
        return KEY_FIELDS.at(field_name);
    }
};

std::ostream& operator<<(std::ostream& stream, const Setter& setter)
{
    return stream << setter.field_name;
}

const Setter SETTERS[] = {
    {"set_hmac_root_signing_key", set_hmac_root_signing_key, "hmac_root_key", gen_root_sha256_hmac},
    {"set_hmac_session_key", set_hmac_session_key, "hmac_session_key", gen_session_sha256_hmac},
};

class CallersKey : public KeySelection, public testing::WithParamInterface<Setter> {
  protected:
    // The key is in memory of exactly its size.
    KeyLibraryErrorCode set(const Bytes& key)
    {
        const auto copy = exact_copy(key);
        return setter_.set(context_buf(), reinterpret_cast<const char*>(copy.get()),
                           static_cast<uint32_t>(key.size()));
    }

    uint8_t*& buffer()
    {
        return context().*setter_.field();
    }

    Tag tag_of(const std::string& msg)
    {
        Tag tag = {};
        EXPECT_EQ(setter_.tag(context_buf(), reinterpret_cast<const uint8_t*>(msg.data()),
                              static_cast<uint32_t>(msg.size()), tag.data()),
                  KeyLibrary_OK);
        return tag;
    }

    const Setter setter_ = GetParam();
};

INSTANTIATE_TEST_SUITE_P(By, CallersKey, testing::ValuesIn(SETTERS),
                         [](const auto& test) { return test.param.function; });

TEST_P(CallersKey, IsRefusedWithoutALocation)
{
    EXPECT_EQ(setter_.set(nullptr, std::string(32, 'k').c_str(), 32), KeyLibrary_BAD_PARAMETER);
}

TEST_P(CallersKey, IsRefusedWhenItIsNull)
{
    EXPECT_EQ(setter_.set(context_buf(), nullptr, 32), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(buffer(), nullptr);
}

TEST_P(CallersKey, IsLookedForBeforeItsLength)
{
    EXPECT_EQ(setter_.set(context_buf(), nullptr, 0), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(setter_.set(nullptr, "", 0), KeyLibrary_BAD_PARAMETER);
}

TEST_P(CallersKey, Of31BytesIsInvalid)
{
    EXPECT_EQ(set(counting_from(1, 31)), KeyLibrary_INVALID_KEY);
    EXPECT_EQ(buffer(), nullptr);
}

TEST_P(CallersKey, OfNoBytesIsInvalid)
{
    EXPECT_EQ(set({}), KeyLibrary_INVALID_KEY);
    EXPECT_EQ(buffer(), nullptr);
}

TEST_P(CallersKey, OfInvalidLengthLeavesTheOneInPlace)
{
    ASSERT_EQ(set(counting_from(1, 32)), KeyLibrary_OK);
    uint8_t* in_place = buffer();
    EXPECT_EQ(set(counting_from(0x80, 31)), KeyLibrary_INVALID_KEY);
    EXPECT_EQ(buffer(), in_place);
    EXPECT_EQ(bytes_at(in_place, 32), counting_from(1, 32));
}

TEST_P(CallersKey, OfInvalidLengthIsToldBeforeMissingMemory)
{
    KeyLibraryErrorCode result = KeyLibrary_OK;
    const char* key = "0123456789abcdef0123456789abcde";
    const Allocations made =
        failing_allocation(1, [&] { result = setter_.set(context_buf(), key, 31); });
    EXPECT_EQ(result, KeyLibrary_INVALID_KEY);
    EXPECT_FALSE(made.any_failed);
}

TEST_P(CallersKey, Of32BytesIsTaken)
{
    EXPECT_EQ(set(counting_from(1, 32)), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(buffer(), 32), counting_from(1, 32));
    EXPECT_EQ(loaded_fields(context()), std::vector<std::string>{setter_.field_name});
}

TEST_P(CallersKey, Of40BytesIsTakenWhole)
{
    EXPECT_EQ(set(counting_from(1, 40)), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(buffer(), 40), counting_from(1, 40));
}

TEST_P(CallersKey, GetsABufferOfItsLength)
{
    for (const uint32_t len : {32U, 33U, 40U, 1000U}) {
        key_lib_clear_keys(context_buf());
        const std::string key(len, 'k');
        const Allocations made =
            allocations_of([&] { setter_.set(context_buf(), key.data(), len); });
        EXPECT_EQ(made.requested, std::vector<size_t>{len});
    }
}

TEST_P(CallersKey, IsRefusedWithoutMemory)
{
    const std::string key(32, 'k');
    KeyLibraryErrorCode result = KeyLibrary_OK;
    failing_allocation(1, [&] { result = setter_.set(context_buf(), key.data(), 32); });
    EXPECT_EQ(result, KeyLibrary_MEMORY);
    EXPECT_EQ(buffer(), nullptr);
}

TEST_P(CallersKey, AsLongAsCanBeSaidIsRefusedWithoutMemory)
{
    const std::string key(32, 'k');
    KeyLibraryErrorCode result = KeyLibrary_OK;
    const Allocations made = failing_allocation(
        1, [&] { result = setter_.set(context_buf(), key.data(), 0xffffffffU); });
    EXPECT_EQ(result, KeyLibrary_MEMORY);
    EXPECT_EQ(made.requested, std::vector<size_t>{0xffffffffU});
}

TEST_P(CallersKey, IsBytesAndNotAText)
{
    Bytes key = counting_from(0xF0, 32); // 0xf0 ... 0xff, 0x00, 0x01 ...
    key[0] = 0;
    EXPECT_EQ(set(key), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(buffer(), 32), key);
}

TEST_P(CallersKey, OfZerosReplacesTheOneInPlace)
{
    ASSERT_EQ(set(counting_from(1, 32)), KeyLibrary_OK);
    EXPECT_EQ(set(Bytes(32, 0)), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(buffer(), 32), Bytes(32, 0));
}

TEST_P(CallersKey, ReplacesTheOneInPlaceInItsBuffer)
{
    ASSERT_EQ(set(counting_from(1, 32)), KeyLibrary_OK);
    uint8_t* in_place = buffer();
    EXPECT_EQ(set(counting_from(0x80, 32)), KeyLibrary_OK);
    EXPECT_EQ(buffer(), in_place);
    EXPECT_EQ(bytes_at(in_place, 32), counting_from(0x80, 32));
}

TEST_P(CallersKey, Of40BytesKeepsToABufferOf32)
{
    ASSERT_EQ(set(counting_from(1, 32)), KeyLibrary_OK);
    EXPECT_EQ(set(counting_from(0x80, 40)), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(buffer(), 32), counting_from(0x80, 32));
}

TEST_P(CallersKey, OfAnyLengthWritesNothingBehind32BytesOfABufferInPlace)
{
    for (const size_t len : {32U, 33U, 40U, 64U, 128U}) {
        key_lib_clear_keys(context_buf());
        uint8_t* in_place = plant(setter_.field());
        EXPECT_EQ(set(counting_from(1, len)), KeyLibrary_OK);
        EXPECT_EQ(buffer(), in_place);
        EXPECT_EQ(bytes_at(in_place, 32), counting_from(1, 32));
        EXPECT_EQ(bytes_at(in_place + 32, PLANTED_SIZE - 32),
                  Bytes(planted_.begin() + 32, planted_.end()))
            << "key of " << len << " bytes";
    }
}

TEST_P(CallersKey, Of32BytesReplacesOneOf40)
{
    ASSERT_EQ(set(counting_from(1, 40)), KeyLibrary_OK);
    EXPECT_EQ(set(counting_from(0x80, 32)), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(buffer(), 32), counting_from(0x80, 32));
}

TEST_P(CallersKey, IsUsedWithItsFirst32BytesOnly)
{
    const Bytes key = counting_from(0xF0, 40);
    ASSERT_EQ(set(key), KeyLibrary_OK);
    EXPECT_EQ(tag_of("message"), openssl_hmac_sha256(key.data(), 32, "message", 7));
}

TEST_P(CallersKey, IsUsedWithItsFirst32BytesWhenItReplacesAShorterOne)
{
    ASSERT_EQ(set(counting_from(1, 32)), KeyLibrary_OK);
    const Bytes key = counting_from(0xF0, 40);
    ASSERT_EQ(set(key), KeyLibrary_OK);
    EXPECT_EQ(tag_of("message"), openssl_hmac_sha256(key.data(), 32, "message", 7));
}

TEST_P(CallersKey, IsCopied)
{
    Bytes key = counting_from(1, 32);
    ASSERT_EQ(setter_.set(context_buf(), reinterpret_cast<const char*>(key.data()), 32),
              KeyLibrary_OK);
    std::fill(key.begin(), key.end(), uint8_t{0xEE});
    EXPECT_EQ(bytes_at(buffer(), 32), counting_from(1, 32));
}

TEST_P(CallersKey, NeedsNoUid)
{
    drop_uid();
    EXPECT_EQ(set(counting_from(1, 32)), KeyLibrary_OK);
}

TEST_P(CallersKey, IsSetWithoutTheStoreBeingAsked)
{
    EXPECT_EQ(set(counting_from(1, 32)), KeyLibrary_OK);
    EXPECT_TRUE(store_requests().empty());
}

TEST_P(CallersKey, LeavesTheDerivedValuesAlone)
{
    memset(context().pwr_on_amtc0, 0x77, 6);
    context().pwr_on_amtc0_len = 6;
    context().kts_slot = 5;
    EXPECT_EQ(set(counting_from(1, 32)), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(context().pwr_on_amtc0, 6), Bytes(6, 0x77));
    EXPECT_EQ(context().pwr_on_amtc0_len, 6U);
    EXPECT_EQ(context().kts_slot, 5U);
}

TEST_P(CallersKey, ReplacesABufferThatAFailedLoadLeftBehind)
{
    const bool is_root = setter_.field() == &ContextRecord::hmac_root_key;
    const auto load =
        is_root ? set_srk_as_hmac_root_signing_key : set_csk_as_hmac_session_signing_key;
    ASSERT_EQ(load(context_buf(), false), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(set(counting_from(1, 40)), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(buffer(), 32), counting_from(1, 32));
}

TEST_P(CallersKey, IsSetWithoutAWordFromTheDriver)
{
    EXPECT_EQ(printed_by([&] {
                  set(counting_from(1, 32));
                  set(counting_from(1, 31));
                  setter_.set(nullptr, nullptr, 0);
              }),
              "");
}

} // namespace
