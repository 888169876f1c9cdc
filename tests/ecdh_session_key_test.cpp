// Deriving the session key from an ECDH agreement, and when that is repeated.

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/bytes.h"
#include "tests/support/curve_context.h"
#include "tests/support/engine_double.h"
#include "tests/support/freed_blocks.h"
#include "tests/support/hmac_failures.h"
#include "tests/support/mbedtls_double.h"
#include "tests/support/openssl_hmac.h"
#include "tests/support/p256_key_pair.h"
#include "tests/support/printed.h"
#include "tests/support/random_failures.h"
#include "tests/support/store_double.h"

#include <gtest/gtest.h>

#include <limits.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

namespace {

const int ROUNDS = 200;

class EcdhSessionKey : public CurveContext {
  protected:
    void SetUp() override
    {
        restore_store();
        restore_engine();
        CurveContext::SetUp();
        put_into_store(own_.private_key);
        restore_mbedtls();
    }

    void put_into_store(const Bytes& private_key)
    {
        write_store_file(PRIVATE_FILE, record(DEVICE_UID, "ecdh_prv", "1", to_hex(private_key)));
    }

    // Peer key and value are in memory of exactly their sizes.
    KeyLibraryErrorCode derive(const Bytes& peer, const Bytes& amtc0, bool force = false)
    {
        const auto peer_copy = exact_copy(peer);
        const auto amtc0_copy = exact_copy(amtc0);
        return derive_ecdh_session_key(context_buf(), peer_copy.get(), amtc0_copy.get(),
                                       static_cast<uint32_t>(amtc0.size()), force);
    }

    KeyLibraryErrorCode derive(bool force = false)
    {
        return derive(peer_, amtc0_, force);
    }

    // What the derivation is to give.
    static Bytes derived(const Bytes& own_private_key, const Bytes& peer, const Bytes& amtc0)
    {
        return keyed_hash(openssl_ecdh(own_private_key, Bytes{0x04} + peer), amtc0);
    }

    Bytes derived()
    {
        return derived(own_.private_key, peer_, amtc0_);
    }

    static Bytes keyed_hash(const Bytes& key, const Bytes& amtc0)
    {
        const Tag tag = openssl_hmac_sha256(key.data(), key.size(), amtc0.data(), amtc0.size());
        return {tag.begin(), tag.end()};
    }

    void set_session_key(const Bytes& key)
    {
        ASSERT_EQ(set_hmac_session_key(context_buf(), reinterpret_cast<const char*>(key.data()),
                                       static_cast<uint32_t>(key.size())),
                  KeyLibrary_OK);
    }

    // How often the engine was asked for a secret.
    static size_t computations()
    {
        return engine_requests().secrets.size();
    }

    // The context after a derivation that went all the way.
    static ContextState after(const ContextState& before, const Bytes& peer, const Bytes& amtc0,
                              const Bytes& session_key)
    {
        return with(before, {{"ecdh_pub_key", "04" + to_hex(peer)},
                             {"pwr_on_amtc0", to_hex(amtc0)},
                             {"hmac_session_key", to_hex(session_key)}});
    }

    // The context after a derivation that ended between the peer key and the session key.
    static ContextState with_peer_key(const ContextState& before, const Bytes& peer)
    {
        return with(before, {{"ecdh_pub_key", "04" + to_hex(peer)}});
    }

    const P256KeyPair own_ = random_key_pair();
    const P256KeyPair peer_pair_ = random_key_pair();
    const Bytes peer_ = peer_pair_.coordinates;
    const Bytes other_peer_ = random_key_pair().coordinates;
    const Bytes amtc0_ = {1, 2, 3, 4, 5, 6};
    const Bytes other_amtc0_ = {9, 8, 7};
    const Bytes other_key_ = counting_from(0xD0, 32);
    const Bytes msg_ = bytes_of("message");
};

// ---- What is derived ------------------------------------------------------------------------

class Amtc0OfLength : public EcdhSessionKey, public testing::WithParamInterface<uint32_t> {
  protected:
    const Bytes value_ = counting_from(0xFE, GetParam());
};

INSTANTIATE_TEST_SUITE_P(Bytes, Amtc0OfLength, testing::Range(1U, 7U));

TEST_P(Amtc0OfLength, GivesTheHmacOfTheValueUnderTheSecret)
{
    EXPECT_EQ(derive(peer_, value_), KeyLibrary_OK);
    EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)),
              to_hex(derived(own_.private_key, peer_, value_)));
}

TEST_P(Amtc0OfLength, IsRememberedWithThePeerKey)
{
    const ContextState before = state();
    EXPECT_EQ(derive(peer_, value_), KeyLibrary_OK);
    EXPECT_EQ(context().pwr_on_amtc0_len, GetParam());
    EXPECT_EQ(state(), after(before, peer_, value_, derived(own_.private_key, peer_, value_)));
}

TEST_P(Amtc0OfLength, IsDerivedFromOnce)
{
    EXPECT_EQ(derive(peer_, value_), KeyLibrary_OK);
    EXPECT_EQ(derive(peer_, value_), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
}

TEST_P(Amtc0OfLength, ReplacesALongerOne)
{
    ASSERT_EQ(derive(peer_, Bytes(6, 0x77)), KeyLibrary_OK);
    EXPECT_EQ(derive(peer_, value_), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(context().pwr_on_amtc0, context().pwr_on_amtc0_len), value_);
    EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)),
              to_hex(derived(own_.private_key, peer_, value_)));
}

TEST_F(EcdhSessionKey, AgreesWithOpensslForRandomKeysAndValues)
{
    for (int round = 0; round < ROUNDS; ++round) {
        const P256KeyPair own = random_key_pair();
        const Bytes peer = random_key_pair_with_y(round % 2 != 0).coordinates;
        const Bytes amtc0 = random_bytes_between(1, 6);
        answer_for_store({0, own.private_key, 32});
        ASSERT_EQ(derive(peer, amtc0), KeyLibrary_OK);
        ASSERT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)),
                  to_hex(derived(own.private_key, peer, amtc0)))
            << "private key " << to_hex(own.private_key) << ", peer key " << to_hex(peer);
    }
}

// RFC 5903, section 8.1: both sides of one agreement.
TEST_F(EcdhSessionKey, IsKeyedByThePublishedSecret)
{
    const Bytes i = from_hex("c88f01f510d9ac3f70a292daa2316de544e9aab8afe84049c62a9c57862d1433");
    const Bytes g_i = from_hex("dad0b65394221cf9b051e1feca5787d098dfe637fc90b9ef945d0c3772581180"
                               "5271a0461cdb8252d61f1c456fa3e59ab1f45b33accf5f58389e0577b8990bb3");
    const Bytes r = from_hex("c6ef9c5d78ae012a011164acb397ce2088685d8f06bf9be0b283ab46476bee53");
    const Bytes g_r = from_hex("d12dfb5289c8d4f81208b70270398c342296970a0bccb74c736fc7554494bf63"
                               "56fbf3ca366cc23e8157854c13c58d6aac23f046ada30f8353e74f33039872ab");
    const Bytes secret =
        from_hex("d6840f6b42f6edafd13116e0e12565202fef8e9ece7dce03812464d04b9442de");

    for (const auto& [private_key, peer] : {std::pair(i, g_r), std::pair(r, g_i)}) {
        put_into_store(private_key);
        EXPECT_EQ(derive(peer, amtc0_, true), KeyLibrary_OK);
        EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)),
                  to_hex(keyed_hash(secret, amtc0_)));
    }
}

TEST_F(EcdhSessionKey, IsTheSameOnBothSides)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    const Bytes here = bytes_at(context().hmac_session_key, 32);
    put_into_store(peer_pair_.private_key);
    ASSERT_EQ(derive(own_.coordinates, amtc0_), KeyLibrary_OK);
    EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)), to_hex(here));
}

TEST_F(EcdhSessionKey, MakesTagsThatOpensslMakesToo)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    const Bytes key = derived();
    const Tag expected = openssl_hmac_sha256(key.data(), 32, msg_.data(), msg_.size());
    Tag tag = {};
    EXPECT_EQ(gen_session_sha256_hmac(context_buf(), msg_.data(),
                                      static_cast<uint32_t>(msg_.size()), tag.data()),
              KeyLibrary_OK);
    EXPECT_EQ(tag, expected);
    bool verified = false;
    EXPECT_EQ(verify_session_sha256_hmac(context_buf(), msg_.data(),
                                         static_cast<uint32_t>(msg_.size()), expected.data(),
                                         &verified),
              KeyLibrary_OK);
    EXPECT_TRUE(verified);
}

TEST_F(EcdhSessionKey, ComesFromPeerKeyAndValueAtOddAddresses)
{
    const Bytes shifted_peer = Bytes{0} + peer_;
    const Bytes shifted_amtc0 = Bytes{0} + amtc0_;
    EXPECT_EQ(derive_ecdh_session_key(context_buf(), shifted_peer.data() + 1,
                                      shifted_amtc0.data() + 1, 6, false),
              KeyLibrary_OK);
    EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)), to_hex(derived()));
}

TEST_F(EcdhSessionKey, ReplacesTheOneInPlaceInItsBuffer)
{
    uint8_t* in_place = plant(&ContextRecord::hmac_session_key, counting_from(1, 40));
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(context().hmac_session_key, in_place);
    EXPECT_EQ(to_hex(bytes_at(in_place, 40)), to_hex(derived() + counting_from(33, 8)));
}

TEST_F(EcdhSessionKey, LeavesTheOtherKeysAndTheSlotAlone)
{
    plant(&ContextRecord::hmac_root_key, counting_from(1, 32));
    plant(&ContextRecord::ecdsa_signing_key, counting_from(2, 32));
    plant(&ContextRecord::ecdsa_verification_key, counting_from(3, 65));
    plant(&ContextRecord::kts_hmac_signing_key, counting_from(4, 32));
    plant(&ContextRecord::kts_ecdsa_signing_key, counting_from(5, 32));
    context().kts_slot = 7;
    const ContextState before = state();
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(state(), after(before, peer_, amtc0_, derived()));
}

TEST_F(EcdhSessionKey, NeedsNoRootKey)
{
    ASSERT_EQ(context().hmac_root_key, nullptr);
    EXPECT_EQ(derive(), KeyLibrary_OK);
}

TEST_F(EcdhSessionKey, IsDerivedWithoutAWord)
{
    EXPECT_EQ(printed_by([&] {
                  EXPECT_EQ(derive(), KeyLibrary_OK);
                  EXPECT_EQ(derive(), KeyLibrary_OK);
                  EXPECT_EQ(derive(true), KeyLibrary_OK);
              }),
              "");
}

// ---- Arguments ------------------------------------------------------------------------------

struct BadArguments {
    const char* name;
    bool has_context;
    bool has_peer;
    bool has_amtc0;
    uint32_t amtc0_len;
};

std::ostream& operator<<(std::ostream& stream, const BadArguments& arguments)
{
    return stream << arguments.name;
}

const BadArguments BAD_ARGUMENTS[] = {
    {"NoLocation", false, true, true, 6},
    {"NoPeerKey", true, false, true, 6},
    {"NoValue", true, true, false, 6},
    {"NoValueOfNoBytes", true, true, false, 0},
    {"ValueOfNoBytes", true, true, true, 0},
    {"ValueOf7Bytes", true, true, true, 7},
    {"ValueOf8Bytes", true, true, true, 8},
    {"ValueOf2To31Bytes", true, true, true, 0x80000000U},
    {"ValueOf2To32LessOneBytes", true, true, true, 0xffffffffU},
    {"NoLocationAndABadLength", false, true, true, 0},
    {"Nothing", false, false, false, 0},
};

class BadEcdhArguments : public EcdhSessionKey, public testing::WithParamInterface<BadArguments> {
  protected:
    KeyLibraryErrorCode derive_badly(bool force)
    {
        const BadArguments& given = GetParam();
        return derive_ecdh_session_key(given.has_context ? context_buf() : nullptr,
                                       given.has_peer ? other_peer_.data() : nullptr,
                                       given.has_amtc0 ? amtc0_.data() : nullptr, given.amtc0_len,
                                       force);
    }
};

INSTANTIATE_TEST_SUITE_P(Are, BadEcdhArguments, testing::ValuesIn(BAD_ARGUMENTS),
                         [](const auto& test) { return test.param.name; });

TEST_P(BadEcdhArguments, RefusedBeforeAnythingIsDone)
{
    const ContextState before = state();
    EXPECT_EQ(derive_badly(false), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(derive_badly(true), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(state(), before);
    EXPECT_TRUE(store_requests().empty());
    EXPECT_EQ(computations(), 0U);
}

TEST_P(BadEcdhArguments, RefusedWhateverIsInPlace)
{
    ASSERT_EQ(derive(other_peer_, amtc0_), KeyLibrary_OK);
    const ContextState before = state();
    EXPECT_EQ(derive_badly(false), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(derive_badly(true), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(state(), before);
}

TEST_P(BadEcdhArguments, RefusedWithoutAWord)
{
    EXPECT_EQ(printed_by([&] { derive_badly(true); }), "");
}

// ---- What counts as in place ----------------------------------------------------------------

using EcdhSessionKeyInPlace = EcdhSessionKey;

TEST_F(EcdhSessionKeyInPlace, IsNotComputedAgain)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    const ContextState before = state();
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(store_requests().size(), 1U);
    EXPECT_EQ(mbedtls_calls().count("mbedtls_md_hmac_finish"), 1U);
    EXPECT_EQ(state(), before);
}

TEST_F(EcdhSessionKeyInPlace, IsComputedAgainWhenForced)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    plant(&ContextRecord::hmac_session_key, other_key_);
    EXPECT_EQ(derive(true), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
    EXPECT_EQ(store_requests().size(), 2U);
    EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)), to_hex(derived()));
}

TEST_F(EcdhSessionKeyInPlace, StaysWhenTheStoreNoLongerHoldsThePrivateKey)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    write_store_file(PRIVATE_FILE, "");
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)), to_hex(derived()));
}

TEST_F(EcdhSessionKeyInPlace, StaysWhenTheStoreHoldsAnotherPrivateKey)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    put_into_store(peer_pair_.private_key);
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)), to_hex(derived()));
}

TEST_F(EcdhSessionKeyInPlace, StaysWithoutAUid)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    drop_uid();
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
}

TEST_F(EcdhSessionKeyInPlace, IsNoneOnceTheKeysAreCleared)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    ASSERT_EQ(clear(), KeyLibrary_OK);
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
}

TEST_F(EcdhSessionKeyInPlace, IsNoneWithoutASessionKey)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    unload(&ContextRecord::hmac_session_key);
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
    EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)), to_hex(derived()));
}

TEST_F(EcdhSessionKeyInPlace, IsNoneWithoutAPeerKey)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    unload(&ContextRecord::ecdh_pub_key);
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
}

TEST_F(EcdhSessionKeyInPlace, IsNoneForAPeerKeyWithAnotherByte)
{
    for (size_t i = 0; i < peer_.size(); ++i) {
        Bytes other = peer_;
        other[i] ^= 1;
        restore_engine();
        answer_for_engine(1, Bytes(32, 0x42));
        ASSERT_EQ(derive(true), KeyLibrary_OK);
        EXPECT_EQ(derive(other, amtc0_), KeyLibrary_OK);
        EXPECT_EQ(computations(), 2U) << "byte " << i;
        EXPECT_EQ(bytes_at(context().ecdh_pub_key + 1, 64), other);
    }
}

TEST_F(EcdhSessionKeyInPlace, IsAnotherOneForAnotherPeerKeyAndTheSameValue)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(derive(other_peer_, amtc0_), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
    EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)),
              to_hex(derived(own_.private_key, other_peer_, amtc0_)));
}

// The first byte of the peer key's buffer is no part of the comparison.
TEST_F(EcdhSessionKeyInPlace, IsComparedBehindTheMarkOfThePoint)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    context().ecdh_pub_key[0] = 0x99;
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(context().ecdh_pub_key[0], 0x99);
}

TEST_F(EcdhSessionKeyInPlace, IsNoneForAValueWithAnotherByte)
{
    for (size_t i = 0; i < amtc0_.size(); ++i) {
        Bytes other = amtc0_;
        other[i] ^= 0x80;
        restore_engine();
        ASSERT_EQ(derive(true), KeyLibrary_OK);
        EXPECT_EQ(derive(peer_, other), KeyLibrary_OK);
        EXPECT_EQ(computations(), 2U) << "byte " << i;
        EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)),
                  to_hex(derived(own_.private_key, peer_, other)));
    }
}

TEST_F(EcdhSessionKeyInPlace, IsNoneForABeginningOfTheValue)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(derive(peer_, {1, 2, 3, 4, 5}), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
}

TEST_F(EcdhSessionKeyInPlace, IsNoneForMoreThanTheValue)
{
    ASSERT_EQ(derive(peer_, {1, 2, 3}), KeyLibrary_OK);
    EXPECT_EQ(derive(peer_, {1, 2, 3, 0}), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
}

// A session key that came from elsewhere since is not noticed: only the value, the peer key and
// that there is a session key are looked at.
TEST_F(EcdhSessionKeyInPlace, IsAlsoOneThatTheCallerSetSince)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    set_session_key(other_key_);
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(bytes_at(context().hmac_session_key, 32), other_key_);
}

TEST_F(EcdhSessionKeyInPlace, IsAlsoOneThatWasLoadedSince)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    answer_for_store({0, other_key_, 32});
    ASSERT_EQ(set_csk_as_hmac_session_signing_key(context_buf(), true), KeyLibrary_OK);
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(bytes_at(context().hmac_session_key, 32), other_key_);
}

TEST_F(EcdhSessionKeyInPlace, IsAlsoOneThatWasDerivedFromTheRootKeySince)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    plant(&ContextRecord::hmac_root_key, other_key_);
    ASSERT_EQ(derive_hmac_session_key(context_buf(), amtc0_.data(), 6, true), KeyLibrary_OK);
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(bytes_at(context().hmac_session_key, 32), keyed_hash(other_key_, amtc0_));
}

TEST_F(EcdhSessionKeyInPlace, IsNoneWhenAnotherValueWasDerivedFromSince)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    plant(&ContextRecord::hmac_root_key, other_key_);
    ASSERT_EQ(derive_hmac_session_key(context_buf(), other_amtc0_.data(), 3, false), KeyLibrary_OK);
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
    EXPECT_EQ(bytes_at(context().hmac_session_key, 32), derived());
}

TEST_F(EcdhSessionKeyInPlace, IsInPlaceForTheDerivationFromTheRootKeyToo)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    plant(&ContextRecord::hmac_root_key, other_key_);
    EXPECT_EQ(derive_hmac_session_key(context_buf(), amtc0_.data(), 6, false), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(context().hmac_session_key, 32), derived());
}

TEST_F(EcdhSessionKeyInPlace, IsNoneForASetSessionKeyWithoutARememberedValue)
{
    set_session_key(other_key_);
    plant(&ContextRecord::ecdh_pub_key, Bytes{0x04} + peer_);
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 1U);
    EXPECT_EQ(bytes_at(context().hmac_session_key, 32), derived());
}

// Three coincidences are enough, though no agreement ever took place.
TEST_F(EcdhSessionKeyInPlace, IsAlsoOneThatNoAgreementGave)
{
    plant(&ContextRecord::hmac_root_key, other_key_);
    ASSERT_EQ(derive_hmac_session_key(context_buf(), amtc0_.data(), 6, false), KeyLibrary_OK);
    plant(&ContextRecord::ecdh_pub_key, Bytes{0x04} + peer_);
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 0U);
    EXPECT_EQ(bytes_at(context().hmac_session_key, 32), keyed_hash(other_key_, amtc0_));
}

TEST_F(EcdhSessionKeyInPlace, IsNoneWhenASlotWasKeyedWithAnotherPeerSince)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    answer_for_store({0, own_.private_key, 32});
    ASSERT_EQ(set_kts_hmac_signing_key(context_buf(), 1, other_peer_.data(), false), KeyLibrary_OK);
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 3U);
    EXPECT_EQ(bytes_at(context().ecdh_pub_key + 1, 64), peer_);
}

TEST_F(EcdhSessionKeyInPlace, StaysWhenASlotWasKeyedWithTheSamePeerSince)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    answer_for_store({0, own_.private_key, 32});
    ASSERT_EQ(set_kts_hmac_signing_key(context_buf(), 1, peer_.data(), false), KeyLibrary_OK);
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
}

// ---- The peer key ---------------------------------------------------------------------------

using EcdhPeerKey = EcdhSessionKey;

TEST_F(EcdhPeerKey, IsKeptBehindTheMarkOfAnUncompressedPoint)
{
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(context().ecdh_pub_key[0], 0x04);
    EXPECT_EQ(bytes_at(context().ecdh_pub_key + 1, 64), peer_);
}

TEST_F(EcdhPeerKey, ReplacesTheOneInPlaceInItsBuffer)
{
    uint8_t* in_place = plant(&ContextRecord::ecdh_pub_key, counting_from(0x20, 80));
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(context().ecdh_pub_key, in_place);
    EXPECT_EQ(to_hex(bytes_at(in_place, 80)),
              to_hex(Bytes{0x04} + peer_ + counting_from(0x20 + 65, 15)));
}

TEST_F(EcdhPeerKey, IsCopied)
{
    Bytes callers = peer_;
    EXPECT_EQ(derive_ecdh_session_key(context_buf(), callers.data(), amtc0_.data(), 6, false),
              KeyLibrary_OK);
    std::fill(callers.begin(), callers.end(), uint8_t{0xEE});
    EXPECT_EQ(bytes_at(context().ecdh_pub_key + 1, 64), peer_);
}

TEST_F(EcdhPeerKey, IsHandedToTheEngineInItsBuffer)
{
    EXPECT_EQ(derive(), KeyLibrary_OK);
    ASSERT_EQ(computations(), 1U);
    const SecretRequest& request = engine_requests().secrets[0];
    EXPECT_EQ(request.public_key, context().ecdh_pub_key);
    EXPECT_EQ(bytes_at(request.public_key_bytes.data(), 65), Bytes{0x04} + peer_);
}

TEST_F(EcdhPeerKey, IsHandedToTheEngineThoughItIsNoPointOfTheCurve)
{
    const Bytes no_point = counting_from(0x31, 64);
    EXPECT_EQ(derive(no_point, amtc0_), KeyLibrary_OK);
    ASSERT_EQ(computations(), 1U);
    EXPECT_EQ(bytes_at(engine_requests().secrets[0].public_key_bytes.data(), 65),
              Bytes{0x04} + no_point);
}

// ---- The private key ------------------------------------------------------------------------

using EcdhPrivateKey = EcdhSessionKey;

TEST_F(EcdhPrivateKey, IsAskedOfTheStoreByUidNameAndLength)
{
    EXPECT_EQ(derive(), KeyLibrary_OK);
    ASSERT_EQ(store_requests().size(), 1U);
    EXPECT_EQ(store_requests()[0].uid, context().uid);
    EXPECT_STREQ(store_requests()[0].key_name, "ecdh_prv");
    EXPECT_EQ(store_requests()[0].len, 32U);
}

TEST_F(EcdhPrivateKey, IsTheOneOfTheContextsUid)
{
    write_store_file(PRIVATE_FILE,
                     record("another", "ecdh_prv", "1", to_hex(peer_pair_.private_key)) +
                         record(DEVICE_UID, "ecdh_prv", "2", to_hex(own_.private_key)));
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)), to_hex(derived()));
}

TEST_F(EcdhPrivateKey, IsHandedToTheEngineWithAZeroedPlaceForTheSecret)
{
    EXPECT_EQ(derive(), KeyLibrary_OK);
    ASSERT_EQ(computations(), 1U);
    const SecretRequest& request = engine_requests().secrets[0];
    EXPECT_EQ(bytes_at(request.private_key_bytes.data(), 32), own_.private_key);
    EXPECT_EQ(bytes_at(request.secret_before.data(), 32), Bytes(32, 0));
    EXPECT_NE(request.secret, context().hmac_session_key);
}

TEST_F(EcdhPrivateKey, IsNotKeptInTheContext)
{
    const ContextState before = state();
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(state(), after(before, peer_, amtc0_, derived()));
    EXPECT_NE(store_requests()[0].buffer, context().hmac_session_key);
}

// Where a private key is missing, the new peer key is in place all the same, and all else is as it
// was: nothing was derived.
class FailedFetch : public EcdhSessionKey {
  protected:
    void expect_failure_in_empty_context(KeyLibraryErrorCode expected)
    {
        const ContextState before = state();
        EXPECT_EQ(derive(), expected);
        EXPECT_EQ(state(), with_peer_key(before, peer_));
        EXPECT_EQ(computations(), 0U);
    }

    void expect_usable()
    {
        restore_store();
        put_into_store(own_.private_key);
        EXPECT_EQ(derive(), KeyLibrary_OK);
        EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)), to_hex(derived()));
        EXPECT_EQ(clear(), KeyLibrary_OK);
    }

    void derive_before()
    {
        answer_for_store({0, own_.private_key, 32});
        ASSERT_EQ(derive(other_peer_, other_amtc0_), KeyLibrary_OK);
    }
};

class StoreFailure : public FailedFetch, public testing::WithParamInterface<uint32_t> {};

INSTANTIATE_TEST_SUITE_P(Result, StoreFailure,
                         testing::Values(1U, 2U, 3U, 4U, 5U, 6U, 0x100U, 0x10000U, 0x80000000U,
                                         0xffffffffU));

TEST_P(StoreFailure, IsAKeyNotFoundAndLeavesThePeerKey)
{
    answer_for_store({GetParam(), {}, 32});
    expect_failure_in_empty_context(KeyLibrary_KEY_NOT_FOUND);
    expect_usable();
}

TEST_P(StoreFailure, IsAKeyNotFoundAndLeavesWhatWasDerivedBefore)
{
    derive_before();
    answer_for_store({GetParam(), own_.private_key, 32});
    const ContextState before = state();
    EXPECT_EQ(derive(), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(state(), with_peer_key(before, peer_));
    expect_usable();
}

TEST_P(StoreFailure, IsToldEvenWhenTheLengthIsWrongToo)
{
    answer_for_store({GetParam(), {}, 16});
    expect_failure_in_empty_context(KeyLibrary_KEY_NOT_FOUND);
}

class WrongLength : public FailedFetch, public testing::WithParamInterface<uint32_t> {};

INSTANTIATE_TEST_SUITE_P(Of, WrongLength,
                         testing::Values(0U, 1U, 16U, 31U, 33U, 64U, 0x80000020U, 0xffffffffU));

TEST_P(WrongLength, IsAnInvalidKeyAndLeavesThePeerKey)
{
    answer_for_store({0, own_.private_key, GetParam()});
    expect_failure_in_empty_context(KeyLibrary_INVALID_KEY);
    expect_usable();
}

TEST_P(WrongLength, IsAnInvalidKeyAndLeavesWhatWasDerivedBefore)
{
    derive_before();
    answer_for_store({0, own_.private_key, GetParam()});
    const ContextState before = state();
    EXPECT_EQ(derive(), KeyLibrary_INVALID_KEY);
    EXPECT_EQ(state(), with_peer_key(before, peer_));
    expect_usable();
}

TEST_P(WrongLength, IsToldBeforeAFailingEngine)
{
    answer_for_store({0, own_.private_key, GetParam()});
    answer_for_engine(0);
    expect_failure_in_empty_context(KeyLibrary_INVALID_KEY);
}

struct StoredKey {
    const char* name;
    size_t len;
    KeyLibraryErrorCode result;
};

std::ostream& operator<<(std::ostream& stream, const StoredKey& stored)
{
    return stream << stored.name;
}

class StoredPrivateKey : public FailedFetch, public testing::WithParamInterface<StoredKey> {};

INSTANTIATE_TEST_SUITE_P(Of, StoredPrivateKey,
                         testing::Values(StoredKey{"16Bytes", 16, KeyLibrary_INVALID_KEY},
                                         StoredKey{"31Bytes", 31, KeyLibrary_INVALID_KEY},
                                         StoredKey{"33Bytes", 33, KeyLibrary_KEY_NOT_FOUND},
                                         StoredKey{"64Bytes", 64, KeyLibrary_KEY_NOT_FOUND}),
                         [](const auto& test) { return test.param.name; });

TEST_P(StoredPrivateKey, IsInvalidIfTooShortAndNotFoundIfTooLong)
{
    put_into_store(counting_from(1, GetParam().len));
    printed_by([&] { expect_failure_in_empty_context(GetParam().result); });
    expect_usable();
}

TEST_F(FailedFetch, WithoutARecordIsAKeyNotFound)
{
    write_store_file(PRIVATE_FILE, "");
    printed_by([&] { expect_failure_in_empty_context(KeyLibrary_KEY_NOT_FOUND); });
    expect_usable();
}

TEST_F(FailedFetch, WithoutFilesIsAKeyNotFound)
{
    ASSERT_EQ(unlink(PRIVATE_FILE), 0);
    ASSERT_EQ(unlink(PUBLIC_FILE), 0);
    printed_by([&] { expect_failure_in_empty_context(KeyLibrary_KEY_NOT_FOUND); });
    expect_usable();
}

TEST_F(FailedFetch, WithoutAUidIsLeftToTheStore)
{
    drop_uid();
    expect_failure_in_empty_context(KeyLibrary_KEY_NOT_FOUND);
    ASSERT_EQ(store_requests().size(), 1U);
    EXPECT_EQ(store_requests()[0].uid, nullptr);
}

TEST_F(FailedFetch, WithoutAUidIsNoneIfTheStoreDelivers)
{
    drop_uid();
    answer_for_store({0, own_.private_key, 32});
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(context().hmac_session_key, 32), derived());
}

TEST_F(FailedFetch, LeavesWhatWasDerivedBeforeWhetherForcedOrNot)
{
    derive_before();
    answer_for_store({1, {}, 32});
    const ContextState before = state();
    for (const bool force : {false, true}) {
        EXPECT_EQ(derive(force), KeyLibrary_KEY_NOT_FOUND);
        EXPECT_EQ(state(), with_peer_key(before, peer_));
    }
}

TEST_F(FailedFetch, SaysNothingOfItsOwn)
{
    for (const StoreAnswer& answer : {StoreAnswer{1, {}, 32}, StoreAnswer{0, {}, 31}}) {
        answer_for_store(answer);
        EXPECT_EQ(printed_by([&] { derive(); }), "");
    }
}

// After a failure, the new peer key stands beside the old session key: that counts as in place.
TEST_F(FailedFetch, LeavesAContextInWhichTheOldSessionKeyPassesForTheNewPeers)
{
    derive_before();
    answer_for_store({1, {}, 32});
    ASSERT_EQ(derive(peer_, other_amtc0_), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(derive(peer_, other_amtc0_), KeyLibrary_OK);
    EXPECT_EQ(bytes_at(context().hmac_session_key, 32),
              derived(own_.private_key, other_peer_, other_amtc0_));
}

// ---- The engine -----------------------------------------------------------------------------

class FailedAgreement : public FailedFetch {
  protected:
    void expect_failure()
    {
        const ContextState before = state();
        EXPECT_EQ(derive(), KeyLibrary_CRYPTO);
        EXPECT_EQ(state(), with_peer_key(before, peer_));
    }
};

TEST_F(FailedAgreement, LeavesThePeerKeyAndNoSessionKey)
{
    answer_for_engine(0);
    expect_failure();
    EXPECT_EQ(mbedtls_calls().functions, std::vector<std::string>());
    restore_engine();
    expect_usable();
}

TEST_F(FailedAgreement, LeavesWhatWasDerivedBefore)
{
    derive_before();
    uint8_t* in_place = context().hmac_session_key;
    answer_for_engine(0, Bytes(32, 0x42));
    expect_failure();
    EXPECT_EQ(context().hmac_session_key, in_place);
    restore_engine();
    expect_usable();
}

TEST_F(FailedAgreement, SaysNothing)
{
    answer_for_engine(0);
    EXPECT_EQ(printed_by([&] { derive(); }), "");
}

TEST_F(FailedAgreement, IsOneWithAPeerKeyWhoseXIsZero)
{
    const ContextState before = state();
    EXPECT_EQ(derive(Bytes(64, 0), amtc0_), KeyLibrary_CRYPTO);
    EXPECT_EQ(state(), with_peer_key(before, Bytes(64, 0)));
    expect_usable();
}

TEST_F(FailedAgreement, IsNoneWhateverElseThanZeroTheEngineReturns)
{
    const Bytes secret = counting_from(0x61, 32);
    for (const int result : {1, 2, 0x100, 0x10000, 0x1000000, -1, INT_MAX, INT_MIN}) {
        answer_for_engine(result, secret);
        EXPECT_EQ(derive(true), KeyLibrary_OK) << result;
        EXPECT_EQ(bytes_at(context().hmac_session_key, 32), keyed_hash(secret, amtc0_)) << result;
    }
}

class AgreementWithoutRandomNumbers : public FailedAgreement,
                                      public testing::WithParamInterface<RandomFailure> {};

INSTANTIATE_TEST_SUITE_P(By, AgreementWithoutRandomNumbers, testing::ValuesIn(RANDOM_FAILURES),
                         [](const auto& test) { return test.param.name; });

TEST_P(AgreementWithoutRandomNumbers, LeavesThePeerKeyAndNoSessionKey)
{
    {
        RandomSource source;
        GetParam().arrange(source);
        EXPECT_EQ(printed_by([&] { expect_failure(); }), "");
    }
    expect_usable();
}

TEST_P(AgreementWithoutRandomNumbers, LeavesWhatWasDerivedBefore)
{
    derive_before();
    {
        RandomSource source;
        GetParam().arrange(source);
        expect_failure();
    }
    expect_usable();
}

TEST_P(AgreementWithoutRandomNumbers, IsNotNoticedWhenTheSessionKeyIsInPlace)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    RandomSource source;
    GetParam().arrange(source);
    EXPECT_EQ(derive(), KeyLibrary_OK);
    EXPECT_EQ(source.calls, std::vector<std::string>());
}

// ---- The HMAC -------------------------------------------------------------------------------

TEST_F(EcdhSessionKey, IsOneHmacOfTheValueUnder32BytesOfTheSecret)
{
    const Bytes secret = counting_from(0x61, 32);
    answer_for_engine(1, secret);
    EXPECT_EQ(derive(peer_, other_amtc0_), KeyLibrary_OK);
    EXPECT_EQ(mbedtls_calls().key_lens, std::vector<size_t>{32});
    EXPECT_EQ(mbedtls_calls().keys,
              std::vector<const uint8_t*>{engine_requests().secrets[0].secret});
    EXPECT_EQ(mbedtls_calls().piece_lens, std::vector<size_t>{3});
    EXPECT_EQ(mbedtls_calls().fed, other_amtc0_);
    EXPECT_EQ(mbedtls_calls().outputs, std::vector<uint8_t*>{context().hmac_session_key});
    EXPECT_EQ(mbedtls_calls().count("mbedtls_md_free"), 0U);
    EXPECT_EQ(bytes_at(context().hmac_session_key, 32), keyed_hash(secret, other_amtc0_));
}

class FailedHmac : public EcdhSessionKey, public testing::WithParamInterface<HmacFailure> {
  protected:
    // The derivation with its HMAC failing; what is printed is the HMAC routine's.
    KeyLibraryErrorCode derive_failing(bool force = false)
    {
        restore_mbedtls();
        fail_in_mbedtls(GetParam().function, GetParam().error);
        KeyLibraryErrorCode result = KeyLibrary_OK;
        EXPECT_EQ(printed_by([&] { result = derive(force); }), GetParam().message);
        return result;
    }

    void expect_usable()
    {
        Tag tag = {};
        EXPECT_EQ(gen_session_sha256_hmac(context_buf(), msg_.data(), 1, tag.data()),
                  KeyLibrary_KEY_NOT_FOUND);
        EXPECT_EQ(derive(), KeyLibrary_OK);
        EXPECT_EQ(to_hex(bytes_at(context().hmac_session_key, 32)), to_hex(derived()));
        EXPECT_EQ(clear(), KeyLibrary_OK);
    }
};

INSTANTIATE_TEST_SUITE_P(In, FailedHmac, testing::ValuesIn(HMAC_FAILURES),
                         [](const auto& test) { return test.param.name; });

TEST_P(FailedHmac, IsASuccessWithoutASessionKey)
{
    const ContextState before = state();
    EXPECT_EQ(derive_failing(), KeyLibrary_OK);
    EXPECT_EQ(context().hmac_session_key, nullptr);
    EXPECT_EQ(context().pwr_on_amtc0_len, 0U);
    EXPECT_EQ(state(), with_peer_key(before, peer_));
    expect_usable();
}

TEST_P(FailedHmac, UnloadsTheSessionKeyAndLeavesTheRememberedValue)
{
    ASSERT_EQ(derive(other_peer_, other_amtc0_), KeyLibrary_OK);
    const ContextState before = state();
    EXPECT_EQ(derive_failing(), KeyLibrary_OK);
    EXPECT_EQ(state(), with(with_peer_key(before, peer_), {{"hmac_session_key", NOT_LOADED}}));
    EXPECT_EQ(bytes_at(context().pwr_on_amtc0, 3), other_amtc0_);
    expect_usable();
}

TEST_P(FailedHmac, UnloadsTheSessionKeyOfTheSameValueWhenForced)
{
    ASSERT_EQ(derive(), KeyLibrary_OK);
    const ContextState before = state();
    EXPECT_EQ(derive_failing(true), KeyLibrary_OK);
    EXPECT_EQ(state(), with(before, {{"hmac_session_key", NOT_LOADED}}));
    expect_usable();
}

TEST_P(FailedHmac, FreesTheSessionKeyOnceAndUnwiped)
{
    set_session_key(other_key_);
    const uint8_t* in_place = context().hmac_session_key;
    FreedBlocks freed;
    freed.watch(in_place, 32);
    EXPECT_EQ(derive_failing(), KeyLibrary_OK);
    ASSERT_EQ(freed.in_order.size(), 1U);
    EXPECT_EQ(freed.in_order[0].address, in_place);
    EXPECT_EQ(to_hex(freed.in_order[0].content), to_hex(other_key_));
}

TEST_P(FailedHmac, IsFollowedByADerivationThatComputesAgain)
{
    ASSERT_EQ(derive_failing(), KeyLibrary_OK);
    ASSERT_EQ(derive_failing(), KeyLibrary_OK);
    EXPECT_EQ(computations(), 2U);
}

} // namespace
