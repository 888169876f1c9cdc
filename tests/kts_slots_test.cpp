// The ECDSA key of a KTS slot in a context. Signatures made with it are tested with all others.

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/bytes.h"
#include "tests/support/freed_blocks.h"
#include "tests/support/kts_slot.h"
#include "tests/support/p256_key_pair.h"
#include "tests/support/printed.h"
#include "tests/support/slot_names.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

namespace {

class NamedSlot : public KtsSlot, public testing::WithParamInterface<SlotName> {};

INSTANTIATE_TEST_SUITE_P(Of, NamedSlot, testing::ValuesIn(SLOT_NAMES),
                         [](const auto& test) { return std::to_string(test.param.slot); });

// ---- The ECDSA key --------------------------------------------------------------------------

class KtsEcdsaKey : public KtsSlot {
  protected:
    uint8_t*& buffer()
    {
        return context().kts_ecdsa_signing_key;
    }

    Bytes loaded_key()
    {
        return bytes_at(buffer(), 32);
    }

    void answer_with(const Bytes& key)
    {
        answer_for_store({0, key, 32});
    }
};

TEST_P(NamedSlot, HasItsKeyAskedForByASignedDecimal)
{
    answer_for_store({0, key_, 32});
    EXPECT_EQ(load(GetParam().slot, true), KeyLibrary_OK);
    ASSERT_EQ(store_requests().size(), 1U);
    EXPECT_EQ(store_requests()[0].key_name, ecdsa_slot_key(GetParam().decimal));
}

TEST_P(NamedSlot, HasItsKeyFetchedFromTheStoreFiles)
{
    put_into_store(ecdsa_slot_key(GetParam().decimal), key_);
    EXPECT_EQ(load(GetParam().slot), KeyLibrary_OK);
    EXPECT_EQ(to_hex(bytes_at(context().kts_ecdsa_signing_key, 32)), to_hex(key_));
}

TEST_F(KtsEcdsaKey, IsAskedOfTheStoreByUidBufferAndLength)
{
    for (const bool force : {false, true}) {
        restore_store();
        answer_with(key_);
        EXPECT_EQ(load(5, force), KeyLibrary_OK);
        ASSERT_EQ(store_requests().size(), 1U);
        EXPECT_EQ(store_requests()[0].uid, context().uid);
        EXPECT_EQ(store_requests()[0].buffer, buffer());
        EXPECT_EQ(store_requests()[0].len, 32U);
    }
}

TEST_F(KtsEcdsaKey, IsTheOneOfTheContextsUid)
{
    write_store_file(PRIVATE_FILE, record("another", ecdsa_slot_key("5"), "1", to_hex(other_key_)) +
                                       record(DEVICE_UID, ecdsa_slot_key("5"), "2", to_hex(key_)));
    EXPECT_EQ(load(5), KeyLibrary_OK);
    EXPECT_EQ(to_hex(loaded_key()), to_hex(key_));
}

TEST_F(KtsEcdsaKey, IsTheOnlyThingThatChanges)
{
    plant(&ContextRecord::hmac_root_key, counting_from(1, 32));
    plant(&ContextRecord::hmac_session_key, counting_from(2, 32));
    plant(&ContextRecord::ecdsa_signing_key, counting_from(3, 32));
    plant(&ContextRecord::ecdsa_verification_key, counting_from(4, 65));
    plant(&ContextRecord::ecdh_pub_key, counting_from(5, 65));
    plant(&ContextRecord::kts_hmac_signing_key, counting_from(6, 32));
    memset(context().pwr_on_amtc0, 0x77, 6);
    context().pwr_on_amtc0_len = 6;
    context().kts_slot = 9;
    const ContextState before = state();
    answer_with(key_);
    EXPECT_EQ(load(5), KeyLibrary_OK);
    EXPECT_EQ(state(), with(before, {{"kts_ecdsa_signing_key", to_hex(key_)}}));
}

TEST_F(KtsEcdsaKey, FillsItsBufferAndNothingBehind)
{
    uint8_t* in_place = plant_long(&ContextRecord::kts_ecdsa_signing_key);
    answer_with(key_);
    EXPECT_EQ(load(5), KeyLibrary_OK);
    EXPECT_EQ(buffer(), in_place);
    EXPECT_EQ(to_hex(bytes_at(in_place, PLANTED_SIZE)),
              to_hex(key_ + Bytes(planted_.begin() + 32, planted_.end())));
}

TEST_F(KtsEcdsaKey, IsRefusedWithoutALocation)
{
    EXPECT_EQ(set_kts_ecdsa_signing_key(nullptr, 5, false), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(set_kts_ecdsa_signing_key(nullptr, 5, true), KeyLibrary_BAD_PARAMETER);
    EXPECT_TRUE(store_requests().empty());
}

TEST_F(KtsEcdsaKey, IsRefusedWithoutAUid)
{
    drop_uid();
    answer_with(key_);
    const ContextState before = state();
    EXPECT_EQ(load(5, false), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(load(5, true), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(store_requests().empty());
}

TEST_F(KtsEcdsaKey, IsRefusedWithoutAWord)
{
    drop_uid();
    EXPECT_EQ(printed_by([&] {
                  load(5);
                  set_kts_ecdsa_signing_key(nullptr, 5, true);
              }),
              "");
}

TEST_F(KtsEcdsaKey, InPlaceIsNoExcuseForAMissingUid)
{
    plant(&ContextRecord::kts_ecdsa_signing_key, key_);
    drop_uid();
    EXPECT_EQ(load(0, false), KeyLibrary_BAD_PARAMETER);
}

// ---- The ECDSA key: what counts as in place ---------------------------------------------------

TEST_F(KtsEcdsaKey, StaysInPlaceForTheRecordedSlot)
{
    uint8_t* in_place = plant_long(&ContextRecord::kts_ecdsa_signing_key);
    context().kts_slot = 5;
    EXPECT_EQ(load(5), KeyLibrary_OK);
    EXPECT_TRUE(store_requests().empty());
    EXPECT_EQ(buffer(), in_place);
    EXPECT_EQ(bytes_at(in_place, PLANTED_SIZE), planted_);
}

TEST_F(KtsEcdsaKey, IsFetchedForTheRecordedSlotWhenForced)
{
    uint8_t* in_place = plant(&ContextRecord::kts_ecdsa_signing_key, other_key_);
    context().kts_slot = 5;
    answer_with(key_);
    EXPECT_EQ(load(5, true), KeyLibrary_OK);
    EXPECT_EQ(store_requests().size(), 1U);
    EXPECT_EQ(buffer(), in_place);
    EXPECT_EQ(loaded_key(), key_);
}

TEST_F(KtsEcdsaKey, IsFetchedForTheRecordedSlotWhenNoneIsLoaded)
{
    context().kts_slot = 5;
    answer_with(key_);
    EXPECT_EQ(load(5), KeyLibrary_OK);
    EXPECT_EQ(store_requests().size(), 1U);
    EXPECT_EQ(loaded_key(), key_);
}

TEST_F(KtsEcdsaKey, IsFetchedEachTimeForAnySlotButTheRecorded)
{
    context().kts_slot = 5;
    answer_with(key_);
    for (const uint32_t slot : {0U, 4U, 6U, 0xfffffffbU, 0x105U}) {
        restore_store();
        answer_with(key_);
        EXPECT_EQ(load(slot), KeyLibrary_OK);
        EXPECT_EQ(load(slot), KeyLibrary_OK);
        EXPECT_EQ(store_requests().size(), 2U) << "slot " << slot;
    }
}

TEST_F(KtsEcdsaKey, OfSlot3PassesForTheOneOfSlot5OnceThatSlotHasItsHmacKey)
{
    const Bytes key_of_slot_3 = random_key_pair().private_key;
    write_store_file(
        PRIVATE_FILE,
        record(DEVICE_UID, ecdsa_slot_key("3"), "1", to_hex(key_of_slot_3)) +
            record(DEVICE_UID, ecdsa_slot_key("5"), "2", to_hex(other_key_)) +
            record(DEVICE_UID, ecdh_slot_key("5"), "3", to_hex(random_key_pair().private_key)));
    ASSERT_EQ(load(3), KeyLibrary_OK);
    ASSERT_EQ(make(5, random_key_pair().coordinates), KeyLibrary_OK);
    const size_t requests_before = store_requests().size();
    EXPECT_EQ(load(5), KeyLibrary_OK);
    EXPECT_EQ(store_requests().size(), requests_before);
    EXPECT_EQ(to_hex(loaded_key()), to_hex(key_of_slot_3));
    EXPECT_EQ(load(5, true), KeyLibrary_OK);
    EXPECT_EQ(to_hex(loaded_key()), to_hex(other_key_));
}

TEST_F(KtsEcdsaKey, IsTheRightOneInTheUsualOrder)
{
    write_store_file(PRIVATE_FILE, record(DEVICE_UID, ecdsa_slot_key("5"), "1", to_hex(key_)) +
                                       record(DEVICE_UID, ecdh_slot_key("5"), "2",
                                              to_hex(random_key_pair().private_key)));
    ASSERT_EQ(make(5, random_key_pair().coordinates), KeyLibrary_OK);
    EXPECT_EQ(load(5), KeyLibrary_OK);
    EXPECT_EQ(to_hex(loaded_key()), to_hex(key_));
    EXPECT_EQ(context().kts_slot, 5U);
}

// Slot 0 counts as recorded from the beginning.
TEST_F(KtsEcdsaKey, OfAnySlotPassesForTheOneOfSlot0InANewContext)
{
    answer_with(key_);
    ASSERT_EQ(load(3), KeyLibrary_OK);
    answer_with(other_key_);
    EXPECT_EQ(load(0), KeyLibrary_OK);
    EXPECT_EQ(loaded_key(), key_);
}

TEST_F(KtsEcdsaKey, OfAnySlotPassesForTheOneOfSlot0OnceTheKeysWereCleared)
{
    context().kts_slot = 5;
    ASSERT_EQ(clear(), KeyLibrary_OK);
    answer_with(key_);
    ASSERT_EQ(load(5), KeyLibrary_OK);
    answer_with(other_key_);
    EXPECT_EQ(load(0), KeyLibrary_OK);
    EXPECT_EQ(loaded_key(), key_);
}

TEST_F(KtsEcdsaKey, OfSlot0IsFetchedWhenNoneIsLoaded)
{
    answer_with(key_);
    EXPECT_EQ(load(0), KeyLibrary_OK);
    EXPECT_EQ(loaded_key(), key_);
}

class RecordedSlot : public KtsEcdsaKey, public testing::WithParamInterface<LoadOutcome> {};

INSTANTIATE_TEST_SUITE_P(
    After, RecordedSlot,
    testing::Values(LoadOutcome{"Success", {0, Bytes(32, 1), 32}, KeyLibrary_OK},
                    LoadOutcome{"StoreFailure", {1, {}, 32}, KeyLibrary_KEY_NOT_FOUND},
                    LoadOutcome{"WrongLength", {0, {}, 31}, KeyLibrary_INVALID_KEY}),
    [](const auto& test) { return test.param.name; });

TEST_P(RecordedSlot, IsNeverChangedByALoad)
{
    for (const bool force : {false, true}) {
        for (const uint32_t recorded : {0U, 4U, 5U}) {
            unload(&ContextRecord::kts_ecdsa_signing_key);
            context().kts_slot = recorded;
            answer_for_store(GetParam().answer);
            EXPECT_EQ(load(5, force), GetParam().result);
            EXPECT_EQ(context().kts_slot, recorded);
        }
    }
}

TEST_P(RecordedSlot, IsLookedAtWithoutAWord)
{
    answer_for_store(GetParam().answer);
    EXPECT_EQ(printed_by([&] { load(5); }), "");
}

// ---- The ECDSA key: failures ------------------------------------------------------------------

TEST_F(KtsEcdsaKey, IsNotFoundWhateverElseThanSuccessTheStoreReturns)
{
    for (const uint32_t result : {1U, 2U, 3U, 4U, 5U, 6U, 0x100U, 0x10000U, 0xffffffffU}) {
        unload(&ContextRecord::kts_ecdsa_signing_key);
        answer_for_store({result, {}, 32});
        EXPECT_EQ(load(5), KeyLibrary_KEY_NOT_FOUND) << "store result " << result;
        EXPECT_NE(buffer(), nullptr);
    }
}

TEST_F(KtsEcdsaKey, NotFoundIsToldEvenWhenTheLengthIsWrongToo)
{
    answer_for_store({1, {}, 31});
    EXPECT_EQ(load(5), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_NE(buffer(), nullptr);
}

TEST_F(KtsEcdsaKey, NotFoundInTheFilesLeavesANewBufferInPlace)
{
    printed_by([&] { EXPECT_EQ(load(5), KeyLibrary_KEY_NOT_FOUND); });
    EXPECT_EQ(state().at("kts_ecdsa_signing_key"), to_hex(Bytes(32, 0)));
}

TEST_F(KtsEcdsaKey, NotFoundLeavesTheOldOneInPlace)
{
    uint8_t* in_place = plant(&ContextRecord::kts_ecdsa_signing_key, key_);
    printed_by([&] {
        EXPECT_EQ(load(5, false), KeyLibrary_KEY_NOT_FOUND);
        EXPECT_EQ(load(5, true), KeyLibrary_KEY_NOT_FOUND);
    });
    EXPECT_EQ(buffer(), in_place);
    EXPECT_EQ(loaded_key(), key_);
}

TEST_F(KtsEcdsaKey, NotFoundLeavesWhatTheStoreWrote)
{
    plant_long(&ContextRecord::kts_ecdsa_signing_key);
    answer_for_store({1, Bytes(5, 0xEE), 32});
    EXPECT_EQ(load(5), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(to_hex(bytes_at(buffer(), PLANTED_SIZE)),
              to_hex(Bytes(5, 0xEE) + Bytes(planted_.begin() + 5, planted_.end())));
}

TEST_F(KtsEcdsaKey, NotFoundLeavesABufferThatPassesForTheRecordedSlotsKey)
{
    answer_for_store({1, {}, 32});
    ASSERT_EQ(load(0), KeyLibrary_KEY_NOT_FOUND);
    answer_with(key_);
    EXPECT_EQ(load(0), KeyLibrary_OK);
    EXPECT_EQ(store_requests().size(), 1U);
    EXPECT_EQ(load(0, true), KeyLibrary_OK);
    EXPECT_EQ(loaded_key(), key_);
}

class StoredSlotEcdsaKey : public KtsEcdsaKey, public testing::WithParamInterface<StoredLength> {};

INSTANTIATE_TEST_SUITE_P(Of, StoredSlotEcdsaKey, testing::ValuesIn(STORED_LENGTHS),
                         [](const auto& test) { return std::to_string(test.param.len) + "Bytes"; });

TEST_P(StoredSlotEcdsaKey, IsInvalidIfTooShortAndNotFoundIfTooLong)
{
    put_into_store(ecdsa_slot_key("5"), counting_from(1, GetParam().len));
    printed_by([&] { EXPECT_EQ(load(5), GetParam().result); });
    EXPECT_EQ(buffer() == nullptr, GetParam().result == KeyLibrary_INVALID_KEY);
}

class WrongLength : public KtsEcdsaKey, public testing::WithParamInterface<uint32_t> {
  protected:
    Bytes content_when_freed()
    {
        FreedBlocks freed;
        uint8_t* in_place = plant_long(&ContextRecord::kts_ecdsa_signing_key);
        freed.watch(in_place, PLANTED_SIZE);
        answer_for_store({0, {}, GetParam()});
        EXPECT_EQ(load(5), KeyLibrary_INVALID_KEY);
        EXPECT_EQ(freed.in_order.size(), 1U);
        return freed.in_order.empty() ? Bytes() : freed.in_order[0].content;
    }
};

INSTANTIATE_TEST_SUITE_P(Of, WrongLength,
                         testing::Values(0U, 1U, 16U, 31U, 33U, 40U, 64U, 65U, 100U));

TEST_P(WrongLength, IsWipedAsFarAsTheStoreReportedAndNoFurther)
{
    Bytes expected = planted_;
    std::fill_n(expected.begin(), GetParam(), uint8_t{0});
    EXPECT_EQ(to_hex(content_when_freed()), to_hex(expected));
}

TEST_P(WrongLength, IsFreedAndUnloadedAndAskedForAgain)
{
    content_when_freed();
    EXPECT_EQ(buffer(), nullptr);
    uint8_t signature[64];
    EXPECT_EQ(generate_kts_ecdsa_signature(context_buf(), key_.data(), 1, signature),
              KeyLibrary_KEY_NOT_FOUND);
    answer_with(key_);
    EXPECT_EQ(load(5), KeyLibrary_OK);
    EXPECT_EQ(loaded_key(), key_);
}

TEST_F(KtsEcdsaKey, SignsWhatOpensslAccepts)
{
    const P256KeyPair pair = random_key_pair();
    put_into_store(ecdsa_slot_key("5"), pair.private_key);
    ASSERT_EQ(load(5), KeyLibrary_OK);
    const Bytes msg = bytes_of("message");
    Bytes signature(64);
    EXPECT_EQ(generate_kts_ecdsa_signature(context_buf(), msg.data(), 7, signature.data()),
              KeyLibrary_OK);
    EXPECT_TRUE(openssl_verify(pair.point, openssl_sha256(msg), signature));
}

} // namespace
