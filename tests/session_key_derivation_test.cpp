// Deriving the session key from the root key and a power-on AMTC0 value, and when that is repeated.

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/bytes.h"
#include "tests/support/context_record.h"
#include "tests/support/failing_allocation.h"
#include "tests/support/freed_blocks.h"
#include "tests/support/hmac_failures.h"
#include "tests/support/mbedtls_double.h"
#include "tests/support/open_context.h"
#include "tests/support/openssl_hmac.h"
#include "tests/support/printed.h"
#include "tests/support/store_directory.h"

#include <gtest/gtest.h>

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

class SessionKeyDerivation : public OpenContext {
  protected:
    void SetUp() override
    {
        OpenContext::SetUp();
        set_root_key(root_key_);
        restore_mbedtls();
    }

    void set_root_key(const Bytes& key)
    {
        ASSERT_EQ(set_hmac_root_signing_key(context_buf(),
                                            reinterpret_cast<const char*>(key.data()),
                                            static_cast<uint32_t>(key.size())),
                  KeyLibrary_OK);
    }

    void set_session_key(const Bytes& key)
    {
        ASSERT_EQ(set_hmac_session_key(context_buf(), reinterpret_cast<const char*>(key.data()),
                                       static_cast<uint32_t>(key.size())),
                  KeyLibrary_OK);
    }

    void put_session_key_into_store(const Bytes& key)
    {
        write_store_file(PRIVATE_FILE,
                         record(DEVICE_UID, "tmp_client_session_key", "1", to_hex(key)));
    }

    // The value is in memory of exactly its size.
    KeyLibraryErrorCode derive(const Bytes& amtc0, bool force = false)
    {
        const auto copy = exact_copy(amtc0);
        return derive_hmac_session_key(context_buf(), copy.get(),
                                       static_cast<uint32_t>(amtc0.size()), force);
    }

    Bytes session_key()
    {
        return context().hmac_session_key == nullptr ? Bytes()
                                                     : bytes_at(context().hmac_session_key, 32);
    }

    Bytes remembered()
    {
        return bytes_at(context().pwr_on_amtc0, context().pwr_on_amtc0_len);
    }

    // What the derivation is to give.
    Bytes derived(const Bytes& amtc0)
    {
        return derived_from(root_key_, amtc0);
    }

    static Bytes derived_from(const Bytes& root_key, const Bytes& amtc0)
    {
        const Tag tag = openssl_hmac_sha256(root_key.data(), 32, amtc0.data(), amtc0.size());
        return {tag.begin(), tag.end()};
    }

    // How often an HMAC was computed.
    static size_t computations()
    {
        return mbedtls_calls().count("mbedtls_md_hmac_finish");
    }

    const Bytes root_key_ = counting_from(0x30, 32);
    const Bytes other_key_ = counting_from(0xD0, 32);
    const Bytes amtc0_ = {1, 2, 3, 4, 5, 6};
};

// ---- What is derived ------------------------------------------------------------------------

class Amtc0OfLength : public SessionKeyDerivation, public testing::WithParamInterface<uint32_t> {};

INSTANTIATE_TEST_SUITE_P(Bytes, Amtc0OfLength, testing::Range(1U, 7U),
                         testing::PrintToStringParamName());

TEST_P(Amtc0OfLength, GivesTheHmacOfTheValueUnderTheRootKey)
{
    const Bytes amtc0 = counting_from(0xA1, GetParam());
    EXPECT_EQ(derive(amtc0), KeyLibrary_OK);
    EXPECT_EQ(to_hex(session_key()), to_hex(derived(amtc0)));
}

TEST_P(Amtc0OfLength, IsRemembered)
{
    const Bytes amtc0 = counting_from(0xA1, GetParam());
    EXPECT_EQ(derive(amtc0), KeyLibrary_OK);
    EXPECT_EQ(context().pwr_on_amtc0_len, GetParam());
    EXPECT_EQ(remembered(), amtc0);
}

TEST_P(Amtc0OfLength, IsDerivedFromOnce)
{
    const Bytes amtc0 = counting_from(0xA1, GetParam());
    EXPECT_EQ(derive(amtc0), KeyLibrary_OK);
    EXPECT_EQ(derive(amtc0), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(session_key(), derived(amtc0));
}

TEST_P(Amtc0OfLength, IsDerivedFromAgainWhenForced)
{
    const Bytes amtc0 = counting_from(0xA1, GetParam());
    EXPECT_EQ(derive(amtc0), KeyLibrary_OK);
    EXPECT_EQ(derive(amtc0, true), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
    EXPECT_EQ(session_key(), derived(amtc0));
}

TEST_P(Amtc0OfLength, DerivesAgainWhenAnyOneByteIsAnother)
{
    const Bytes amtc0 = counting_from(0xA1, GetParam());
    for (size_t i = 0; i < amtc0.size(); ++i) {
        Bytes other = amtc0;
        other[i] ^= 0x01;
        EXPECT_EQ(derive(amtc0, true), KeyLibrary_OK);
        EXPECT_EQ(derive(other), KeyLibrary_OK);
        EXPECT_EQ(to_hex(session_key()), to_hex(derived(other))) << "byte " << i;
        EXPECT_EQ(remembered(), other);
    }
}

TEST_P(Amtc0OfLength, DerivesAgainWhenAllBytesAreTheSameButTheLengthIsAnother)
{
    const Bytes amtc0 = counting_from(0xA1, GetParam());
    for (size_t other_len = 1; other_len <= 6; ++other_len) {
        const Bytes other = counting_from(0xA1, other_len);
        EXPECT_EQ(derive(other, true), KeyLibrary_OK);
        EXPECT_EQ(derive(amtc0), KeyLibrary_OK);
        EXPECT_EQ(to_hex(session_key()), to_hex(derived(amtc0))) << "after " << other_len;
        EXPECT_EQ(remembered(), amtc0);
    }
}

TEST_F(SessionKeyDerivation, UsesTheFirst32BytesOfALongerRootKey)
{
    key_lib_clear_keys(context_buf());
    set_root_key(counting_from(0x30, 40));
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(session_key(), derived(amtc0_));
}

TEST_F(SessionKeyDerivation, NeedsNoUid)
{
    drop_uid();
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(session_key(), derived(amtc0_));
}

TEST_F(SessionKeyDerivation, CopiesTheValue)
{
    Bytes amtc0 = amtc0_;
    ASSERT_EQ(derive_hmac_session_key(context_buf(), amtc0.data(), 6, false), KeyLibrary_OK);
    std::fill(amtc0.begin(), amtc0.end(), uint8_t{0});
    EXPECT_EQ(remembered(), amtc0_);
}

TEST_F(SessionKeyDerivation, AllocatesASessionKeyOf32Bytes)
{
    const Allocations made =
        allocations_of([&] { derive_hmac_session_key(context_buf(), amtc0_.data(), 6, false); });
    ASSERT_FALSE(made.requested.empty());
    EXPECT_EQ(made.requested[0], 32U);
    EXPECT_TRUE(std::any_of(made.left.begin(), made.left.end(), [&](const Block& block) {
        return block.address == context().hmac_session_key && block.size == 32;
    }));
}

TEST_F(SessionKeyDerivation, OverwritesTheBufferInPlaceAndNothingBehind32Bytes)
{
    context().hmac_session_key = malloc_copy(counting_from(0x80, 64));
    const uint8_t* in_place = context().hmac_session_key;
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(context().hmac_session_key, in_place);
    EXPECT_EQ(session_key(), derived(amtc0_));
    EXPECT_EQ(bytes_at(in_place + 32, 32), counting_from(0xA0, 32));
}

TEST_F(SessionKeyDerivation, KeepsItsBufferFromOneValueToTheNext)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    const uint8_t* in_place = context().hmac_session_key;
    EXPECT_EQ(derive({9}), KeyLibrary_OK);
    EXPECT_EQ(derive({9}, true), KeyLibrary_OK);
    EXPECT_EQ(context().hmac_session_key, in_place);
}

TEST_F(SessionKeyDerivation, LeavesTheRootKeyAndAllOtherFieldsAlone)
{
    ContextRecord before = context();
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    before.hmac_session_key = context().hmac_session_key;
    std::copy(amtc0_.begin(), amtc0_.end(), before.pwr_on_amtc0);
    before.pwr_on_amtc0_len = 6;
    EXPECT_EQ(bytes_at(&context(), sizeof before), bytes_at(&before, sizeof before));
    EXPECT_EQ(bytes_at(context().hmac_root_key, 32), root_key_);
}

TEST_F(SessionKeyDerivation, MakesAKeyThatTagsMessages)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    const uint8_t msg[3] = {'m', 's', 'g'};
    Tag tag = {};
    EXPECT_EQ(gen_session_sha256_hmac(context_buf(), msg, 3, tag.data()), KeyLibrary_OK);
    EXPECT_EQ(tag, openssl_hmac_sha256(derived(amtc0_).data(), 32, msg, 3));
}

TEST_F(SessionKeyDerivation, PrintsNothing)
{
    EXPECT_EQ(printed_by([&] {
                  derive(amtc0_);
                  derive(amtc0_);
                  derive(amtc0_, true);
                  derive({});
                  derive_hmac_session_key(nullptr, nullptr, 0, false);
                  key_lib_clear_keys(context_buf());
                  derive(amtc0_);
              }),
              "");
}

// ---- Comparing with the remembered value ----------------------------------------------------

TEST_F(SessionKeyDerivation, DerivesAgainForAValueThatWasThereBeforeTheLast)
{
    EXPECT_EQ(derive({1, 1}), KeyLibrary_OK);
    EXPECT_EQ(derive({2, 2}), KeyLibrary_OK);
    EXPECT_EQ(derive({1, 1}), KeyLibrary_OK);
    EXPECT_EQ(computations(), 3U);
    EXPECT_EQ(session_key(), derived({1, 1}));
}

TEST_F(SessionKeyDerivation, ComparesValuesBehindAZeroByteToo)
{
    EXPECT_EQ(derive({0, 1, 0, 2, 0, 3}), KeyLibrary_OK);
    EXPECT_EQ(derive({0, 1, 0, 2, 0, 4}), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
    EXPECT_EQ(session_key(), derived({0, 1, 0, 2, 0, 4}));
}

TEST_F(SessionKeyDerivation, TakesAValueOfZerosForAValue)
{
    for (size_t len = 1; len <= 6; ++len) {
        EXPECT_EQ(derive(Bytes(len, 0)), KeyLibrary_OK);
        EXPECT_EQ(session_key(), derived(Bytes(len, 0)));
    }
    EXPECT_EQ(computations(), 6U);
}

TEST_F(SessionKeyDerivation, DoesNotTakeTheTailOfALongerValueForPartOfAShorterOne)
{
    EXPECT_EQ(derive({1, 2, 3, 4, 5, 6}), KeyLibrary_OK);
    EXPECT_EQ(derive({7}), KeyLibrary_OK);
    EXPECT_EQ(derive({7, 2, 3, 4, 5, 6}), KeyLibrary_OK);
    EXPECT_EQ(computations(), 3U);
    EXPECT_EQ(session_key(), derived({7, 2, 3, 4, 5, 6}));
}

// ---- Refusals -------------------------------------------------------------------------------

class RefusedLength : public SessionKeyDerivation, public testing::WithParamInterface<uint32_t> {};

INSTANTIATE_TEST_SUITE_P(Bytes, RefusedLength,
                         testing::Values(0U, 7U, 8U, 32U, 0x100U, 0x101U, 0x10001U, 0x7fffffffU,
                                         0x80000001U, 0xfffffffaU, 0xffffffffU),
                         testing::PrintToStringParamName());

TEST_P(RefusedLength, IsABadParameterAndChangesNothing)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    for (const bool force : {false, true}) {
        EXPECT_EQ(derive_hmac_session_key(context_buf(), amtc0_.data(), GetParam(), force),
                  KeyLibrary_BAD_PARAMETER);
    }
    EXPECT_EQ(session_key(), derived(amtc0_));
    EXPECT_EQ(remembered(), amtc0_);
    EXPECT_EQ(computations(), 1U);
}

TEST_P(RefusedLength, IsToldBeforeAMissingRootKey)
{
    key_lib_clear_keys(context_buf());
    EXPECT_EQ(derive_hmac_session_key(context_buf(), amtc0_.data(), GetParam(), false),
              KeyLibrary_BAD_PARAMETER);
}

TEST_F(SessionKeyDerivation, IsRefusedWithoutALocation)
{
    EXPECT_EQ(derive_hmac_session_key(nullptr, amtc0_.data(), 6, false), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(derive_hmac_session_key(nullptr, amtc0_.data(), 6, true), KeyLibrary_BAD_PARAMETER);
}

TEST_F(SessionKeyDerivation, IsRefusedWithoutAValue)
{
    EXPECT_EQ(derive_hmac_session_key(context_buf(), nullptr, 6, false), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(derive_hmac_session_key(context_buf(), nullptr, 6, true), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(context().hmac_session_key, nullptr);
}

TEST_F(SessionKeyDerivation, MissesItsValueBeforeTheRootKey)
{
    key_lib_clear_keys(context_buf());
    EXPECT_EQ(derive_hmac_session_key(context_buf(), nullptr, 6, false), KeyLibrary_BAD_PARAMETER);
}

TEST_F(SessionKeyDerivation, NeedsARootKey)
{
    key_lib_clear_keys(context_buf());
    EXPECT_EQ(derive(amtc0_), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(derive(amtc0_, true), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(context().hmac_session_key, nullptr);
    EXPECT_EQ(context().pwr_on_amtc0_len, 0U);
}

TEST_F(SessionKeyDerivation, NeedsARootKeyEvenForTheValueThatIsInPlace)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    free(context().hmac_root_key);
    context().hmac_root_key = nullptr;
    EXPECT_EQ(derive(amtc0_), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(session_key(), derived(amtc0_));
    EXPECT_EQ(remembered(), amtc0_);
}

TEST_F(SessionKeyDerivation, WithoutMemoryLoadsNothingAndKeepsTheRememberedValue)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    free(context().hmac_session_key);
    context().hmac_session_key = nullptr;
    const uint8_t other[1] = {9};
    KeyLibraryErrorCode result = KeyLibrary_OK;
    failing_allocation(1,
                       [&] { result = derive_hmac_session_key(context_buf(), other, 1, false); });
    EXPECT_EQ(result, KeyLibrary_MEMORY);
    EXPECT_EQ(context().hmac_session_key, nullptr);
    EXPECT_EQ(remembered(), amtc0_);
    EXPECT_EQ(computations(), 1U);
}

// ---- Failures of mbed TLS -------------------------------------------------------------------

class FailedDerivation : public SessionKeyDerivation,
                         public testing::WithParamInterface<HmacFailure> {
  protected:
    // Fails, and sees what that returns and prints.
    void fail_to_derive(const Bytes& amtc0, bool force)
    {
        fail_in_mbedtls(GetParam().function, GetParam().error);
        KeyLibraryErrorCode result = KeyLibrary_OK;
        EXPECT_EQ(printed_by([&] { result = derive(amtc0, force); }), GetParam().message);
        EXPECT_EQ(result, KeyLibrary_CRYPTO);
    }
};

INSTANTIATE_TEST_SUITE_P(In, FailedDerivation, testing::ValuesIn(HMAC_FAILURES),
                         [](const auto& test) { return test.param.name; });

TEST_P(FailedDerivation, LeavesNoSessionKeyAndNothingRemembered)
{
    fail_to_derive(amtc0_, false);
    EXPECT_EQ(context().hmac_session_key, nullptr);
    EXPECT_EQ(context().pwr_on_amtc0_len, 0U);
    EXPECT_EQ(bytes_at(context().pwr_on_amtc0, 6), Bytes(6, 0));
}

TEST_P(FailedDerivation, FreesTheSessionKeyInPlaceUnwiped)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    const uint8_t* in_place = context().hmac_session_key;
    FreedBlocks freed;
    freed.watch(in_place, 32);
    fail_to_derive({9, 9}, false);
    EXPECT_EQ(context().hmac_session_key, nullptr);
    ASSERT_EQ(freed.in_order.size(), 1U);
    EXPECT_EQ(to_hex(freed.in_order[0].content), to_hex(derived(amtc0_)));
}

TEST_P(FailedDerivation, KeepsTheRememberedValue)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    fail_to_derive({9, 9}, false);
    EXPECT_EQ(remembered(), amtc0_);
}

TEST_P(FailedDerivation, OfTheRememberedValueItselfIsRepeatedByTheNextCall)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    fail_to_derive(amtc0_, true);
    EXPECT_EQ(remembered(), amtc0_);
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(session_key(), derived(amtc0_));
}

TEST_P(FailedDerivation, LeavesTheRootKeyInPlace)
{
    fail_to_derive(amtc0_, false);
    EXPECT_EQ(bytes_at(context().hmac_root_key, 32), root_key_);
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(session_key(), derived(amtc0_));
}

TEST_P(FailedDerivation, LeavesNoSessionKeyToTagWith)
{
    fail_to_derive(amtc0_, false);
    uint8_t tag[32];
    EXPECT_EQ(gen_session_sha256_hmac(context_buf(), tag, 1, tag), KeyLibrary_KEY_NOT_FOUND);
}

TEST_P(FailedDerivation, FollowedByASessionKeyOfAnotherSourceCountsAsInPlace)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    fail_to_derive({9, 9}, false);
    set_session_key(other_key_);
    const size_t computed = computations();
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(computations(), computed);
    EXPECT_EQ(session_key(), other_key_);
}

TEST_P(FailedDerivation, ReleasesNoDigestContext)
{
    fail_to_derive(amtc0_, false);
    EXPECT_EQ(mbedtls_calls().count("mbedtls_md_free"), 0U);
}

// ---- Session keys that come from elsewhere --------------------------------------------------

TEST_F(SessionKeyDerivation, IsNotSparedByASetKeyWhenNoValueIsRemembered)
{
    set_session_key(other_key_);
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(session_key(), derived(amtc0_));
}

TEST_F(SessionKeyDerivation, TakesAKeyThatWasSetSinceForTheOneInPlace)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    set_session_key(other_key_);
    EXPECT_EQ(remembered(), amtc0_);
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(session_key(), other_key_);
}

TEST_F(SessionKeyDerivation, ReplacesAKeyThatWasSetSinceWhenForced)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    set_session_key(other_key_);
    EXPECT_EQ(derive(amtc0_, true), KeyLibrary_OK);
    EXPECT_EQ(session_key(), derived(amtc0_));
}

TEST_F(SessionKeyDerivation, ReplacesAKeyThatWasSetSinceForAnotherValue)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    set_session_key(other_key_);
    EXPECT_EQ(derive({9, 9}), KeyLibrary_OK);
    EXPECT_EQ(session_key(), derived({9, 9}));
}

TEST_F(SessionKeyDerivation, TakesAKeyThatWasLoadedSinceForTheOneInPlace)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    put_session_key_into_store(other_key_);
    ASSERT_EQ(set_csk_as_hmac_session_signing_key(context_buf(), true), KeyLibrary_OK);
    EXPECT_EQ(remembered(), amtc0_);
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(session_key(), other_key_);
}

TEST_F(SessionKeyDerivation, IsNotSparedByALoadedKeyWhenNoValueIsRemembered)
{
    put_session_key_into_store(other_key_);
    ASSERT_EQ(set_csk_as_hmac_session_signing_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(session_key(), derived(amtc0_));
}

TEST_F(SessionKeyDerivation, IsWhatANonForcedLoadFindsInPlace)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    put_session_key_into_store(other_key_);
    EXPECT_EQ(set_csk_as_hmac_session_signing_key(context_buf(), false), KeyLibrary_OK);
    EXPECT_EQ(session_key(), derived(amtc0_));
}

TEST_F(SessionKeyDerivation, IsRepeatedAfterALoadOfInvalidLengthUnloadedTheKey)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    put_session_key_into_store(counting_from(1, 16));
    ASSERT_EQ(set_csk_as_hmac_session_signing_key(context_buf(), true), KeyLibrary_INVALID_KEY);
    EXPECT_EQ(remembered(), amtc0_);
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
    EXPECT_EQ(session_key(), derived(amtc0_));
}

TEST_F(SessionKeyDerivation, IsInPlaceAfterAForcedLoadThatFailed)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    ASSERT_EQ(set_csk_as_hmac_session_signing_key(context_buf(), true), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(session_key(), derived(amtc0_));
}

TEST_F(SessionKeyDerivation, TakesABufferThatAFailedLoadLeftBehindForTheKeyInPlace)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    put_session_key_into_store(counting_from(1, 16));
    ASSERT_EQ(set_csk_as_hmac_session_signing_key(context_buf(), true), KeyLibrary_INVALID_KEY);
    write_store_file(PRIVATE_FILE, "");
    ASSERT_EQ(set_csk_as_hmac_session_signing_key(context_buf(), false), KeyLibrary_KEY_NOT_FOUND);
    const uint8_t* left_behind = context().hmac_session_key;
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(context().hmac_session_key, left_behind);
    EXPECT_NE(session_key(), derived(amtc0_));
}

TEST_F(SessionKeyDerivation, OverwritesABufferThatAFailedLoadLeftBehind)
{
    ASSERT_EQ(set_csk_as_hmac_session_signing_key(context_buf(), false), KeyLibrary_KEY_NOT_FOUND);
    const uint8_t* left_behind = context().hmac_session_key;
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(context().hmac_session_key, left_behind);
    EXPECT_EQ(session_key(), derived(amtc0_));
}

// ---- Root keys that change ------------------------------------------------------------------

TEST_F(SessionKeyDerivation, DoesNotNoticeAnotherRootKey)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    set_root_key(other_key_);
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(session_key(), derived(amtc0_));
}

TEST_F(SessionKeyDerivation, UsesAnotherRootKeyWhenForced)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    set_root_key(other_key_);
    EXPECT_EQ(derive(amtc0_, true), KeyLibrary_OK);
    EXPECT_EQ(session_key(), derived_from(other_key_, amtc0_));
}

TEST_F(SessionKeyDerivation, UsesTheRootKeyOfTheStore)
{
    for (const char* name : {"srk", "crk"}) {
        key_lib_clear_keys(context_buf());
        const Bytes key = counting_from(static_cast<uint8_t>(name[0]), 32);
        write_store_file(PUBLIC_FILE, record(DEVICE_UID, name, "1", to_hex(key)));
        const auto load =
            name[0] == 's' ? set_srk_as_hmac_root_signing_key : set_crk_as_hmac_root_signing_key;
        ASSERT_EQ(load(context_buf(), false), KeyLibrary_OK);
        EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
        EXPECT_EQ(session_key(), derived_from(key, amtc0_)) << name;
    }
}

TEST_F(SessionKeyDerivation, TakesARootKeyBufferThatAFailedLoadLeftBehindForAKey)
{
    key_lib_clear_keys(context_buf());
    ASSERT_EQ(set_srk_as_hmac_root_signing_key(context_buf(), false), KeyLibrary_KEY_NOT_FOUND);
    const Bytes left_behind = bytes_at(context().hmac_root_key, 32);
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(session_key(), derived_from(left_behind, amtc0_));
}

// ---- After key_lib_clear_keys ---------------------------------------------------------------

TEST_F(SessionKeyDerivation, HasForgottenItsValueAfterAClear)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    ASSERT_EQ(key_lib_clear_keys(context_buf()), KeyLibrary_OK);
    EXPECT_EQ(context().pwr_on_amtc0_len, 0U);
    EXPECT_EQ(bytes_at(context().pwr_on_amtc0, 6), Bytes(6, 0));
}

TEST_F(SessionKeyDerivation, IsDoneAfreshForTheSameValueAfterAClear)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    ASSERT_EQ(key_lib_clear_keys(context_buf()), KeyLibrary_OK);
    set_root_key(other_key_);
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
    EXPECT_EQ(session_key(), derived_from(other_key_, amtc0_));
}

TEST_F(SessionKeyDerivation, IsDoneAfreshAfterAClearEvenWithASessionKeySetSince)
{
    ASSERT_EQ(derive(amtc0_), KeyLibrary_OK);
    ASSERT_EQ(key_lib_clear_keys(context_buf()), KeyLibrary_OK);
    set_root_key(root_key_);
    set_session_key(other_key_);
    EXPECT_EQ(derive(amtc0_), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
    EXPECT_EQ(session_key(), derived(amtc0_));
}

} // namespace
