// The HMAC key of a KTS slot in a context, the tags made with it, and what becomes of both keys of
// a slot when the context is cleared or closed.

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/bytes.h"
#include "tests/support/freed_blocks.h"
#include "tests/support/hmac_failures.h"
#include "tests/support/kts_slot.h"
#include "tests/support/openssl_hmac.h"
#include "tests/support/p256_key_pair.h"
#include "tests/support/printed.h"
#include "tests/support/random_failures.h"
#include "tests/support/slot_names.h"

#include <gtest/gtest.h>

#include <limits.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

namespace {

const int ROUNDS = 200;

class NamedSlot : public KtsSlot, public testing::WithParamInterface<SlotName> {};

INSTANTIATE_TEST_SUITE_P(Of, NamedSlot, testing::ValuesIn(SLOT_NAMES),
                         [](const auto& test) { return std::to_string(test.param.slot); });

// ---- The key ---------------------------------------------------------------------------

class KtsHmacKey : public KtsSlot {
  protected:
    void SetUp() override
    {
        KtsSlot::SetUp();
        answer_for_store({0, own_.private_key, 32});
    }

    KeyLibraryErrorCode make(bool force = false)
    {
        return KtsSlot::make(5, peer_, force);
    }
    using KtsSlot::make;

    Bytes made_key()
    {
        return bytes_at(context().kts_hmac_signing_key, 32);
    }

    static Bytes secret_of(const P256KeyPair& own, const Bytes& peer)
    {
        return openssl_ecdh(own.private_key, Bytes{0x04} + peer);
    }

    // How often the engine was asked for a secret.
    static size_t computations()
    {
        return engine_requests().secrets.size();
    }

    static ContextState with_peer_key(const ContextState& before, const Bytes& peer)
    {
        return with(before, {{"ecdh_pub_key", "04" + to_hex(peer)}});
    }

    const P256KeyPair own_ = random_key_pair();
    const Bytes peer_ = random_key_pair().coordinates;
    const Bytes other_peer_ = random_key_pair().coordinates;
    const Bytes secret_ = secret_of(own_, peer_);
};

TEST_P(NamedSlot, HasItsPrivateKeyAskedForByASignedDecimal)
{
    answer_for_store({0, key_, 32});
    EXPECT_EQ(make(GetParam().slot, random_key_pair().coordinates, true), KeyLibrary_OK);
    ASSERT_EQ(store_requests().size(), 1U);
    EXPECT_EQ(store_requests()[0].key_name, ecdh_slot_key(GetParam().decimal));
}

TEST_P(NamedSlot, HasItsHmacKeyMadeFromTheStoreFiles)
{
    const P256KeyPair own = random_key_pair();
    const P256KeyPair peer = random_key_pair();
    put_into_store(ecdh_slot_key(GetParam().decimal), own.private_key);
    EXPECT_EQ(make(GetParam().slot, peer.coordinates), KeyLibrary_OK);
    EXPECT_EQ(to_hex(bytes_at(context().kts_hmac_signing_key, 32)),
              to_hex(openssl_ecdh(own.private_key, peer.point)));
}

TEST_P(NamedSlot, IsRecordedOnceItHasItsHmacKey)
{
    context().kts_slot = 77;
    answer_for_store({0, key_, 32});
    EXPECT_EQ(make(GetParam().slot, random_key_pair().coordinates), KeyLibrary_OK);
    EXPECT_EQ(context().kts_slot, GetParam().slot);
}

TEST_F(KtsHmacKey, IsTheSecretItselfForRandomKeys)
{
    for (int round = 0; round < ROUNDS; ++round) {
        const P256KeyPair own = random_key_pair();
        const Bytes peer = random_key_pair_with_y(round % 2 != 0).coordinates;
        answer_for_store({0, own.private_key, 32});
        ASSERT_EQ(make(5, peer), KeyLibrary_OK);
        ASSERT_EQ(to_hex(made_key()), to_hex(secret_of(own, peer)))
            << "private key " << to_hex(own.private_key) << ", peer key " << to_hex(peer);
    }
}

// NIST CAVP, ECC CDH primitive, P-256, the first of the vectors.
TEST_F(KtsHmacKey, IsThePublishedSecret)
{
    answer_for_store(
        {0, from_hex("7d7dc5f71eb29ddaf80d6214632eeae03d9058af1fb6d22ed80badb62bc1a534"), 32});
    EXPECT_EQ(make(5, from_hex("700c48f77f56584c5cc632ca65640db91b6bacce3a4df6b42ce7cc838833d287"
                               "db71e509e3fd9b060ddb20ba5c51dcc5948d46fbf640dfe0441782cab85fa4ac")),
              KeyLibrary_OK);
    EXPECT_EQ(to_hex(made_key()),
              "46fc62106420ff012e54a434fbdd2d25ccc5852060561e68040dd7778997bd7b");
}

TEST_F(KtsHmacKey, ChangesThePeerKeyAndTheSlotAndNothingElse)
{
    plant(&ContextRecord::hmac_root_key, counting_from(1, 32));
    plant(&ContextRecord::hmac_session_key, counting_from(2, 32));
    plant(&ContextRecord::ecdsa_signing_key, counting_from(3, 32));
    plant(&ContextRecord::ecdsa_verification_key, counting_from(4, 65));
    plant(&ContextRecord::ecdh_pub_key, counting_from(5, 65));
    plant(&ContextRecord::kts_ecdsa_signing_key, counting_from(6, 32));
    memset(context().pwr_on_amtc0, 0x77, 6);
    context().pwr_on_amtc0_len = 6;
    context().kts_slot = 9;
    const ContextState before = state();
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(state(), with(with_peer_key(before, peer_),
                            {{"kts_slot", "5"}, {"kts_hmac_signing_key", to_hex(secret_)}}));
}

TEST_F(KtsHmacKey, IsNotHashed)
{
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(mbedtls_calls().functions, std::vector<std::string>());
    EXPECT_EQ(made_key(), secret_);
}

TEST_F(KtsHmacKey, ReplacesTheOneInPlaceInItsBuffer)
{
    uint8_t* in_place = plant_long(&ContextRecord::kts_hmac_signing_key);
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(context().kts_hmac_signing_key, in_place);
    EXPECT_EQ(to_hex(bytes_at(in_place, PLANTED_SIZE)),
              to_hex(secret_ + Bytes(planted_.begin() + 32, planted_.end())));
}

TEST_F(KtsHmacKey, ComesFromAPeerKeyAtAnOddAddress)
{
    const Bytes shifted = Bytes{0} + peer_;
    EXPECT_EQ(set_kts_hmac_signing_key(context_buf(), 5, shifted.data() + 1, false), KeyLibrary_OK);
    EXPECT_EQ(made_key(), secret_);
}

TEST_F(KtsHmacKey, IsMadeWithoutAWord)
{
    EXPECT_EQ(printed_by([&] {
                  EXPECT_EQ(make(), KeyLibrary_OK);
                  EXPECT_EQ(make(), KeyLibrary_OK);
                  EXPECT_EQ(make(true), KeyLibrary_OK);
                  set_kts_hmac_signing_key(nullptr, 5, nullptr, false);
                  answer_for_store({0, {}, 31});
                  EXPECT_EQ(make(true), KeyLibrary_INVALID_KEY);
                  answer_for_store({1, {}, 32});
                  EXPECT_EQ(make(true), KeyLibrary_KEY_NOT_FOUND);
              }),
              "");
}

TEST_F(KtsHmacKey, IsRefusedWithoutALocation)
{
    EXPECT_EQ(set_kts_hmac_signing_key(nullptr, 5, peer_.data(), false), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(set_kts_hmac_signing_key(nullptr, 5, peer_.data(), true), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(set_kts_hmac_signing_key(nullptr, 5, nullptr, true), KeyLibrary_BAD_PARAMETER);
}

TEST_F(KtsHmacKey, IsRefusedWithoutAPeerKeyWhateverIsInPlace)
{
    ASSERT_EQ(make(), KeyLibrary_OK);
    restore_store();
    const ContextState before = state();
    EXPECT_EQ(set_kts_hmac_signing_key(context_buf(), 5, nullptr, false), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(set_kts_hmac_signing_key(context_buf(), 5, nullptr, true), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(store_requests().empty());
}

TEST_F(KtsHmacKey, WithoutAUidIsLeftToTheStore)
{
    drop_uid();
    EXPECT_EQ(make(), KeyLibrary_OK);
    ASSERT_EQ(store_requests().size(), 1U);
    EXPECT_EQ(store_requests()[0].uid, nullptr);
    EXPECT_EQ(made_key(), secret_);
}

TEST_F(KtsHmacKey, WithoutAUidIsNotFoundInTheFiles)
{
    put_into_store(ecdh_slot_key("5"), own_.private_key);
    restore_store();
    drop_uid();
    EXPECT_EQ(make(), KeyLibrary_KEY_NOT_FOUND);
}

TEST_F(KtsHmacKey, IsAskedOfTheStoreByUidAndLengthIntoAPlaceOutsideTheContext)
{
    EXPECT_EQ(make(), KeyLibrary_OK);
    ASSERT_EQ(store_requests().size(), 1U);
    EXPECT_EQ(store_requests()[0].uid, context().uid);
    EXPECT_EQ(store_requests()[0].len, 32U);
    EXPECT_NE(store_requests()[0].buffer, context().kts_hmac_signing_key);
    EXPECT_NE(store_requests()[0].buffer, context().kts_ecdsa_signing_key);
}

TEST_F(KtsHmacKey, IsWrittenByTheEngineFromThePeerKeysBuffer)
{
    EXPECT_EQ(make(), KeyLibrary_OK);
    ASSERT_EQ(computations(), 1U);
    const SecretRequest& request = engine_requests().secrets[0];
    EXPECT_EQ(request.public_key, context().ecdh_pub_key);
    EXPECT_EQ(bytes_at(request.public_key_bytes.data(), 65), Bytes{0x04} + peer_);
    EXPECT_EQ(bytes_at(request.private_key_bytes.data(), 32), own_.private_key);
    EXPECT_EQ(request.secret, context().kts_hmac_signing_key);
}

TEST_F(KtsHmacKey, ComesFromAPeerKeyThatIsNoPointOfTheCurve)
{
    const Bytes no_point = counting_from(0x31, 64);
    EXPECT_EQ(make(5, no_point), KeyLibrary_OK);
    ASSERT_EQ(computations(), 1U);
    EXPECT_EQ(bytes_at(engine_requests().secrets[0].public_key_bytes.data(), 65),
              Bytes{0x04} + no_point);
}

// ---- The peer key ---------------------------------------------------------------------------

using KtsPeerKey = KtsHmacKey;

TEST_F(KtsPeerKey, IsKeptBehindTheMarkOfAnUncompressedPoint)
{
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(context().ecdh_pub_key, 65), Bytes{0x04} + peer_);
}

TEST_F(KtsPeerKey, ReplacesTheOneInPlaceInItsBuffer)
{
    uint8_t* in_place = plant(&ContextRecord::ecdh_pub_key, counting_from(0x20, 80));
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(context().ecdh_pub_key, in_place);
    EXPECT_EQ(to_hex(bytes_at(in_place, 80)),
              to_hex(Bytes{0x04} + peer_ + counting_from(0x20 + 65, 15)));
}

TEST_F(KtsPeerKey, IsTheOneThatTheSessionKeyDerivationKeepsToo)
{
    const Bytes amtc0 = {1, 2, 3};
    ASSERT_EQ(derive_ecdh_session_key(context_buf(), other_peer_.data(), amtc0.data(), 3, false),
              KeyLibrary_OK);
    uint8_t* in_place = context().ecdh_pub_key;
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(context().ecdh_pub_key, in_place);
    EXPECT_EQ(bytes_at(in_place + 1, 64), peer_);
    ASSERT_EQ(derive_ecdh_session_key(context_buf(), other_peer_.data(), amtc0.data(), 3, false),
              KeyLibrary_OK);
    EXPECT_EQ(context().ecdh_pub_key, in_place);
    EXPECT_EQ(bytes_at(in_place + 1, 64), other_peer_);
}

// ---- The HMAC key: what counts as in place ----------------------------------------------------

using KtsHmacKeyInPlace = KtsHmacKey;

TEST_F(KtsHmacKeyInPlace, IsNotComputedAgain)
{
    ASSERT_EQ(make(), KeyLibrary_OK);
    const ContextState before = state();
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(store_requests().size(), 1U);
    EXPECT_EQ(state(), before);
}

TEST_F(KtsHmacKeyInPlace, IsComputedAgainWhenForced)
{
    ASSERT_EQ(make(), KeyLibrary_OK);
    plant(&ContextRecord::kts_hmac_signing_key, other_key_);
    EXPECT_EQ(make(true), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
    EXPECT_EQ(store_requests().size(), 2U);
    EXPECT_EQ(made_key(), secret_);
}

TEST_F(KtsHmacKeyInPlace, StaysWhenTheStoreNoLongerHoldsThePrivateKey)
{
    ASSERT_EQ(make(), KeyLibrary_OK);
    answer_for_store({1, {}, 32});
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(made_key(), secret_);
}

TEST_F(KtsHmacKeyInPlace, StaysWithoutAUid)
{
    ASSERT_EQ(make(), KeyLibrary_OK);
    drop_uid();
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
}

TEST_F(KtsHmacKeyInPlace, IsNoneOnceTheKeysAreCleared)
{
    ASSERT_EQ(make(), KeyLibrary_OK);
    ASSERT_EQ(clear(), KeyLibrary_OK);
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
}

TEST_F(KtsHmacKeyInPlace, IsNoneWithoutAnHmacKey)
{
    ASSERT_EQ(make(), KeyLibrary_OK);
    unload(&ContextRecord::kts_hmac_signing_key);
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
    EXPECT_EQ(made_key(), secret_);
}

TEST_F(KtsHmacKeyInPlace, IsNoneForAnotherSlot)
{
    for (const uint32_t slot : {0U, 4U, 6U, 0x105U, 0xfffffffbU}) {
        restore_engine();
        ASSERT_EQ(make(5, peer_, true), KeyLibrary_OK);
        EXPECT_EQ(make(slot, peer_), KeyLibrary_OK);
        EXPECT_EQ(computations(), 2U) << "slot " << slot;
        EXPECT_EQ(context().kts_slot, slot);
    }
}

TEST_F(KtsHmacKeyInPlace, IsNoneWithoutAPeerKey)
{
    ASSERT_EQ(make(), KeyLibrary_OK);
    unload(&ContextRecord::ecdh_pub_key);
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
}

TEST_F(KtsHmacKeyInPlace, IsNoneForAPeerKeyWithAnotherByte)
{
    for (size_t i = 0; i < peer_.size(); ++i) {
        Bytes other = peer_;
        other[i] ^= 1;
        restore_engine();
        answer_for_engine(1, secret_);
        ASSERT_EQ(make(true), KeyLibrary_OK);
        EXPECT_EQ(make(5, other), KeyLibrary_OK);
        EXPECT_EQ(computations(), 2U) << "byte " << i;
        EXPECT_EQ(bytes_at(context().ecdh_pub_key + 1, 64), other);
    }
}

TEST_F(KtsHmacKeyInPlace, IsComparedBehindTheMarkOfThePoint)
{
    ASSERT_EQ(make(), KeyLibrary_OK);
    context().ecdh_pub_key[0] = 0x99;
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(context().ecdh_pub_key[0], 0x99);
}

TEST_F(KtsHmacKeyInPlace, IsNoneWhenASessionKeyWasAgreedWithAnotherPeerSince)
{
    const uint8_t amtc0[] = {1};
    ASSERT_EQ(make(), KeyLibrary_OK);
    ASSERT_EQ(derive_ecdh_session_key(context_buf(), other_peer_.data(), amtc0, 1, false),
              KeyLibrary_OK);
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 3U);
    EXPECT_EQ(made_key(), secret_);
}

// The peer key that a failed derivation left is a new peer key all the same.
TEST_F(KtsHmacKeyInPlace, PassesForAnotherPeersWhenThatPeersKeyWasLeftByAFailure)
{
    ASSERT_EQ(make(), KeyLibrary_OK);
    answer_for_store({1, {}, 32});
    ASSERT_EQ(make(5, other_peer_), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(make(5, other_peer_), KeyLibrary_OK);
    EXPECT_EQ(made_key(), secret_);
}

// ---- The HMAC key: failures -------------------------------------------------------------------

class FailedKtsHmacKey : public KtsHmacKey {
  protected:
    // The new peer key is kept, and nothing else: there is no HMAC key afterwards.
    void expect_failure_in_empty_context(KeyLibraryErrorCode expected)
    {
        const ContextState before = state();
        EXPECT_EQ(make(), expected);
        EXPECT_EQ(state(), with_peer_key(before, peer_));
    }

    // The same with keys in place, which stay.
    void expect_failure_in_full_context(KeyLibraryErrorCode expected)
    {
        make_before();
        const ContextState before = state();
        const ContextRecord record_before = context();
        prepare_failure();
        for (const bool force : {false, true}) {
            EXPECT_EQ(make(force), expected);
            EXPECT_EQ(state(), with_peer_key(before, peer_));
            EXPECT_EQ(bytes_at(&context(), sizeof(ContextRecord)),
                      bytes_at(&record_before, sizeof(ContextRecord)));
        }
    }

    virtual void prepare_failure()
    {
    }

    void make_before()
    {
        restore_engine();
        answer_for_store({0, own_.private_key, 32});
        ASSERT_EQ(make(3, other_peer_), KeyLibrary_OK);
        plant(&ContextRecord::kts_ecdsa_signing_key, key_);
    }

    void expect_usable()
    {
        restore_engine();
        answer_for_store({0, own_.private_key, 32});
        EXPECT_EQ(make(), KeyLibrary_OK);
        EXPECT_EQ(made_key(), secret_);
        EXPECT_EQ(context().kts_slot, 5U);
        EXPECT_EQ(clear(), KeyLibrary_OK);
    }
};

class StoredSlotEcdhKey : public KtsSlot, public testing::WithParamInterface<StoredLength> {};

INSTANTIATE_TEST_SUITE_P(Of, StoredSlotEcdhKey, testing::ValuesIn(STORED_LENGTHS),
                         [](const auto& test) { return std::to_string(test.param.len) + "Bytes"; });

TEST_P(StoredSlotEcdhKey, IsInvalidIfTooShortAndNotFoundIfTooLong)
{
    put_into_store(ecdh_slot_key("5"), counting_from(1, GetParam().len));
    printed_by([&] { EXPECT_EQ(make(5, counting_from(1, 64)), GetParam().result); });
    EXPECT_EQ(context().kts_hmac_signing_key, nullptr);
}

class FailedSlotFetch : public FailedKtsHmacKey, public testing::WithParamInterface<LoadOutcome> {
  protected:
    void prepare_failure() override
    {
        answer_for_store(GetParam().answer);
    }
};

INSTANTIATE_TEST_SUITE_P(
    Of, FailedSlotFetch,
    testing::Values(
        LoadOutcome{"StoreResult1", {1, {}, 32}, KeyLibrary_KEY_NOT_FOUND},
        LoadOutcome{"StoreResult6", {6, {}, 32}, KeyLibrary_KEY_NOT_FOUND},
        LoadOutcome{"StoreResult256", {256, {}, 32}, KeyLibrary_KEY_NOT_FOUND},
        LoadOutcome{"StoreResult2To32LessOne", {0xffffffffU, {}, 32}, KeyLibrary_KEY_NOT_FOUND},
        LoadOutcome{"StoreResult1AndAWrongLength", {1, {}, 31}, KeyLibrary_KEY_NOT_FOUND},
        LoadOutcome{"LengthOf0", {0, {}, 0}, KeyLibrary_INVALID_KEY},
        LoadOutcome{"LengthOf16", {0, {}, 16}, KeyLibrary_INVALID_KEY},
        LoadOutcome{"LengthOf31", {0, {}, 31}, KeyLibrary_INVALID_KEY},
        LoadOutcome{"LengthOf33", {0, {}, 33}, KeyLibrary_INVALID_KEY},
        LoadOutcome{"LengthOf64", {0, {}, 64}, KeyLibrary_INVALID_KEY}),
    [](const auto& test) { return test.param.name; });

TEST_P(FailedSlotFetch, LeavesThePeerKeyAndNoHmacKey)
{
    prepare_failure();
    expect_failure_in_empty_context(GetParam().result);
    EXPECT_EQ(computations(), 0U);
    expect_usable();
}

TEST_P(FailedSlotFetch, LeavesWhatWasThereBefore)
{
    expect_failure_in_full_context(GetParam().result);
    EXPECT_EQ(computations(), 1U);
    expect_usable();
}

TEST_P(FailedSlotFetch, IsToldBeforeAFailingEngine)
{
    prepare_failure();
    answer_for_engine(0);
    expect_failure_in_empty_context(GetParam().result);
}

class FailedSlotAgreement : public FailedKtsHmacKey {
  protected:
    // The HMAC key's buffer is in place, with contents that are nobody's concern.
    void expect_failure(uint32_t recorded_slot)
    {
        const ContextState before = state();
        EXPECT_EQ(make(), KeyLibrary_CRYPTO);
        ContextState after = state();
        EXPECT_NE(after.at("kts_hmac_signing_key"), NOT_LOADED);
        after["kts_hmac_signing_key"] = before.at("kts_hmac_signing_key");
        EXPECT_EQ(after, with_peer_key(before, peer_));
        EXPECT_EQ(context().kts_slot, recorded_slot);
    }
};

TEST_F(FailedSlotAgreement, LeavesThePeerKeyANewBufferAndTheSlot)
{
    answer_for_engine(0);
    expect_failure(0);
    expect_usable();
}

TEST_F(FailedSlotAgreement, LeavesThePeerKeyTheOldBufferAndTheSlot)
{
    make_before();
    uint8_t* in_place = context().kts_hmac_signing_key;
    answer_for_engine(0, Bytes(32, 0x42));
    expect_failure(3);
    EXPECT_EQ(context().kts_hmac_signing_key, in_place);
    expect_usable();
}

TEST_F(FailedSlotAgreement, SaysNothing)
{
    answer_for_engine(0);
    EXPECT_EQ(printed_by([&] { make(); }), "");
}

TEST_F(FailedSlotAgreement, IsOneWithAPeerKeyWhoseXIsZero)
{
    EXPECT_EQ(make(5, Bytes(64, 0)), KeyLibrary_CRYPTO);
    EXPECT_EQ(bytes_at(context().ecdh_pub_key, 65), Bytes{0x04} + Bytes(64, 0));
    expect_usable();
}

TEST_F(FailedSlotAgreement, IsNoneWhateverElseThanZeroTheEngineReturns)
{
    const Bytes secret = counting_from(0x61, 32);
    for (const int result : {1, 2, 0x100, 0x10000, 0x1000000, -1, INT_MAX, INT_MIN}) {
        answer_for_engine(result, secret);
        context().kts_slot = 0;
        EXPECT_EQ(make(true), KeyLibrary_OK) << result;
        EXPECT_EQ(made_key(), secret) << result;
        EXPECT_EQ(context().kts_slot, 5U) << result;
    }
}

// The buffer, the recorded slot 0 and the peer key are all that is looked at.
TEST_F(FailedSlotAgreement, OfTheRecordedSlotLeavesABufferThatPassesForTheKey)
{
    answer_for_engine(0);
    ASSERT_EQ(make(0, peer_), KeyLibrary_CRYPTO);
    restore_engine();
    EXPECT_EQ(make(0, peer_), KeyLibrary_OK);
    EXPECT_EQ(computations(), 0U);
    EXPECT_EQ(make(0, peer_, true), KeyLibrary_OK);
    EXPECT_EQ(made_key(), secret_);
}

class SlotAgreementWithoutRandomNumbers : public FailedSlotAgreement,
                                          public testing::WithParamInterface<RandomFailure> {};

INSTANTIATE_TEST_SUITE_P(By, SlotAgreementWithoutRandomNumbers, testing::ValuesIn(RANDOM_FAILURES),
                         [](const auto& test) { return test.param.name; });

TEST_P(SlotAgreementWithoutRandomNumbers, LeavesAUsableContext)
{
    {
        RandomSource source;
        GetParam().arrange(source);
        EXPECT_EQ(printed_by([&] { expect_failure(0); }), "");
    }
    expect_usable();
}

TEST_P(SlotAgreementWithoutRandomNumbers, LeavesAUsableContextWithAKeyInPlace)
{
    make_before();
    {
        RandomSource source;
        GetParam().arrange(source);
        expect_failure(3);
    }
    expect_usable();
}

TEST_P(SlotAgreementWithoutRandomNumbers, IsNotNoticedWhenTheKeyIsInPlace)
{
    ASSERT_EQ(make(), KeyLibrary_OK);
    RandomSource source;
    GetParam().arrange(source);
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(source.calls, std::vector<std::string>());
}

// ---- Clearing and closing ---------------------------------------------------------------------

class KtsKeysAtTheEnd : public KtsHmacKey {
  protected:
    void SetUp() override
    {
        KtsHmacKey::SetUp();
        ASSERT_EQ(load(5), KeyLibrary_OK);
        ASSERT_EQ(make(), KeyLibrary_OK);
        hmac_key_ = context().kts_hmac_signing_key;
        ecdsa_key_ = context().kts_ecdsa_signing_key;
        freed_.watch(hmac_key_, 32);
        freed_.watch(ecdsa_key_, 32);
    }

    // Neither freed nor wiped.
    void expect_untouched()
    {
        EXPECT_TRUE(freed_.in_order.empty());
        EXPECT_EQ(bytes_at(hmac_key_, 32), secret_);
        EXPECT_EQ(bytes_at(ecdsa_key_, 32), own_.private_key);
    }

    uint8_t* hmac_key_ = nullptr;
    uint8_t* ecdsa_key_ = nullptr;
    FreedBlocks freed_;
};

TEST_F(KtsKeysAtTheEnd, AreDroppedUntouchedWhenTheContextIsCleared)
{
    EXPECT_EQ(clear(), KeyLibrary_OK);
    expect_untouched();
    EXPECT_EQ(context().kts_hmac_signing_key, nullptr);
    EXPECT_EQ(context().kts_ecdsa_signing_key, nullptr);
    EXPECT_EQ(context().kts_slot, 0U);
}

TEST_F(KtsKeysAtTheEnd, AreLeftUntouchedWhenTheContextIsClosed)
{
    ASSERT_EQ(key_lib_close(context_buf()), KeyLibrary_OK);
    expect_untouched();
    free(hmac_key_);
    free(ecdsa_key_);
    ASSERT_EQ(key_lib_open(DEVICE_UID, nullptr, nullptr, context_buf()), KeyLibrary_OK);
}

TEST_F(KtsKeysAtTheEnd, CannotBeUsedOnceTheContextIsCleared)
{
    uint8_t output[64];
    ASSERT_EQ(clear(), KeyLibrary_OK);
    EXPECT_EQ(gen_kts_sha256_hmac(context_buf(), key_.data(), 1, output), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(generate_kts_ecdsa_signature(context_buf(), key_.data(), 1, output),
              KeyLibrary_KEY_NOT_FOUND);
}

TEST_F(KtsKeysAtTheEnd, AreFetchedAgainOnceTheContextIsCleared)
{
    ASSERT_EQ(clear(), KeyLibrary_OK);
    EXPECT_EQ(load(5), KeyLibrary_OK);
    EXPECT_EQ(make(), KeyLibrary_OK);
    EXPECT_EQ(store_requests().size(), 4U);
    EXPECT_EQ(made_key(), secret_);
}

// ---- Tags under the HMAC key ------------------------------------------------------------------

class KtsTag : public KtsSlot {
  protected:
    void SetUp() override
    {
        KtsSlot::SetUp();
        // Each field holds a key of its own, so that taking the wrong one is noticed.
        plant(&ContextRecord::hmac_root_key, counting_from(0x90, 32));
        plant(&ContextRecord::hmac_session_key, counting_from(0xA0, 32));
        plant(&ContextRecord::kts_ecdsa_signing_key, counting_from(0xB0, 32));
        plant(&ContextRecord::kts_hmac_signing_key, tag_key_);
    }

    // Message and tag are in memory of exactly their sizes.
    KeyLibraryErrorCode tag(const Bytes& msg)
    {
        const auto msg_copy = exact_copy(msg);
        const auto place = exact_copy(untouched_);
        const KeyLibraryErrorCode result = gen_kts_sha256_hmac(
            context_buf(), msg_copy.get(), static_cast<uint32_t>(msg.size()), place.get());
        tag_ = bytes_at(place.get(), 32);
        return result;
    }

    Bytes openssl_tag(const Bytes& msg) const
    {
        const Tag made = openssl_hmac_sha256(tag_key_.data(), 32, msg.data(), msg.size());
        return {made.begin(), made.end()};
    }

    const Bytes untouched_ = Bytes(32, 0xEE);
    const Bytes tag_key_ = counting_from(0x20, 32);
    const Bytes msg_ = bytes_of("a message of more than thirty-two bytes");
    Bytes tag_ = untouched_;
};

TEST_F(KtsTag, AgreesWithOpensslForMessagesOf0To200Bytes)
{
    for (size_t len = 0; len <= 200; ++len) {
        const Bytes msg = counting_from(static_cast<uint8_t>(len), len);
        ASSERT_EQ(tag(msg), KeyLibrary_OK);
        EXPECT_EQ(to_hex(tag_), to_hex(openssl_tag(msg))) << len << " bytes";
    }
}

// RFC 4231, section 4.3. A key shorter than a block is filled with zeros, so it is a 32-byte key
// too.
TEST_F(KtsTag, ReachesAPublishedFigure)
{
    Bytes key = bytes_of("Jefe");
    key.resize(32, 0);
    plant(&ContextRecord::kts_hmac_signing_key, key);
    ASSERT_EQ(tag(bytes_of("what do ya want for nothing?")), KeyLibrary_OK);
    EXPECT_EQ(to_hex(tag_), "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

TEST_F(KtsTag, IsMadeWithExactly32BytesOfTheFieldInPiecesOf32Bytes)
{
    plant(&ContextRecord::kts_hmac_signing_key, counting_from(0x20, 64));
    ASSERT_EQ(tag(counting_from(1, 65)), KeyLibrary_OK);
    EXPECT_EQ(tag_, openssl_tag(counting_from(1, 65)));
    EXPECT_EQ(mbedtls_calls().keys, std::vector<const uint8_t*>{context().kts_hmac_signing_key});
    EXPECT_EQ(mbedtls_calls().key_lens, std::vector<size_t>{32});
    EXPECT_EQ(mbedtls_calls().piece_lens, (std::vector<size_t>{32, 32, 1}));
    EXPECT_EQ(mbedtls_calls().count("mbedtls_md_free"), 0U);
}

TEST_F(KtsTag, IsOfTheEmptyMessageFrom2To31BytesOn)
{
    for (const uint32_t len : {0x80000000U, 0xffffffffU}) {
        EXPECT_EQ(gen_kts_sha256_hmac(context_buf(), msg_.data(), len, tag_.data()), KeyLibrary_OK);
        EXPECT_EQ(tag_, openssl_tag({})) << len;
    }
}

TEST_F(KtsTag, IsRefusedWithoutItsArguments)
{
    EXPECT_EQ(gen_kts_sha256_hmac(nullptr, msg_.data(), 1, tag_.data()), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(gen_kts_sha256_hmac(context_buf(), nullptr, 1, tag_.data()),
              KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(gen_kts_sha256_hmac(context_buf(), nullptr, 0, tag_.data()),
              KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(gen_kts_sha256_hmac(context_buf(), msg_.data(), 1, nullptr),
              KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(tag_, untouched_);
}

TEST_F(KtsTag, IsNotMadeWithoutTheKey)
{
    unload(&ContextRecord::kts_hmac_signing_key);
    EXPECT_EQ(tag(msg_), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(tag_, untouched_);
    EXPECT_EQ(mbedtls_calls().functions, std::vector<std::string>());
}

TEST_F(KtsTag, LooksAtItsArgumentsBeforeTheKey)
{
    unload(&ContextRecord::kts_hmac_signing_key);
    EXPECT_EQ(gen_kts_sha256_hmac(context_buf(), nullptr, 1, tag_.data()),
              KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(gen_kts_sha256_hmac(context_buf(), msg_.data(), 1, nullptr),
              KeyLibrary_BAD_PARAMETER);
}

TEST_F(KtsTag, LeavesTheContextAsItIs)
{
    const ContextState before = state();
    EXPECT_EQ(tag(msg_), KeyLibrary_OK);
    EXPECT_EQ(state(), before);
}

TEST_F(KtsTag, IsMadeOrRefusedWithoutAWord)
{
    EXPECT_EQ(printed_by([&] {
                  tag(msg_);
                  gen_kts_sha256_hmac(nullptr, nullptr, 0, nullptr);
                  unload(&ContextRecord::kts_hmac_signing_key);
                  tag(msg_);
              }),
              "");
}

TEST_F(KtsTag, NeedsNoUid)
{
    drop_uid();
    EXPECT_EQ(tag(msg_), KeyLibrary_OK);
    EXPECT_EQ(tag_, openssl_tag(msg_));
}

class FailedKtsTag : public KtsTag, public testing::WithParamInterface<HmacFailure> {};

INSTANTIATE_TEST_SUITE_P(In, FailedKtsTag, testing::ValuesIn(HMAC_FAILURES),
                         [](const auto& test) { return test.param.name; });

TEST_P(FailedKtsTag, IsAFailureOfCryptographyThatLeavesTheKey)
{
    const ContextState before = state();
    fail_in_mbedtls(GetParam().function, GetParam().error);
    EXPECT_EQ(printed_by([&] { EXPECT_EQ(tag(msg_), KeyLibrary_CRYPTO); }), GetParam().message);
    EXPECT_EQ(state(), before);
    EXPECT_EQ(tag(msg_), KeyLibrary_OK);
    EXPECT_EQ(tag_, openssl_tag(msg_));
    EXPECT_EQ(clear(), KeyLibrary_OK);
}

} // namespace
