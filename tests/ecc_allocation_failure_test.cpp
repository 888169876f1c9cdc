// The driver's ECDSA, ECDH and slot operations while memory runs out: at their first allocation, at
// their second and so on until they need no more, whether the memory is the driver's, libxml2's or
// mbed TLS's. And how much memory they ask for.

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/bytes.h"
#include "tests/support/curve_context.h"
#include "tests/support/engine_double.h"
#include "tests/support/memory_shortage.h"
#include "tests/support/openssl_hmac.h"
#include "tests/support/p256_key_pair.h"
#include "tests/support/printed.h"
#include "tests/support/slot_names.h"
#include "tests/support/store_double.h"

#include <gtest/gtest.h>

#include <libxml/parser.h>

#include <stdint.h>
#include <stdio.h>

#include <set>
#include <string>
#include <vector>

namespace {

using Sizes = std::vector<size_t>;

Sizes followed_by(Sizes sizes, const Sizes& more)
{
    sizes.insert(sizes.end(), more.begin(), more.end());
    return sizes;
}

class CurveMemory : public CurveContext {
  protected:
    void SetUp() override
    {
        printed_by([] { puts(""); }); // standard output has its buffer from here on
        restore_doubles();
        CurveContext::SetUp();
        write_store_file(
            PRIVATE_FILE,
            record(DEVICE_UID, "ecdh_prv", "1", to_hex(own_.private_key)) +
                record(DEVICE_UID, ecdh_slot_key("5"), "2", to_hex(own_.private_key)) +
                record(DEVICE_UID, ecdsa_slot_key("5"), "3", to_hex(own_.private_key)));
    }

    static void restore_doubles()
    {
        restore_store();
        restore_engine();
    }

    // The store answers without a need for memory.
    void answer_with_key()
    {
        answer_for_store({0, own_.private_key, 32});
    }

    KeyLibraryErrorCode derive(const Bytes& peer, const Bytes& amtc0, bool force = false)
    {
        return derive_ecdh_session_key(context_buf(), peer.data(), amtc0.data(),
                                       static_cast<uint32_t>(amtc0.size()), force);
    }

    KeyLibraryErrorCode make(uint32_t slot, const Bytes& peer, bool force = false)
    {
        return set_kts_hmac_signing_key(context_buf(), slot, peer.data(), force);
    }

    KeyLibraryErrorCode load(uint32_t slot, bool force = false)
    {
        return set_kts_ecdsa_signing_key(context_buf(), slot, force);
    }

    // libxml2 keeps its set-up and its last error; with both gone before and after a call, what is
    // left is the driver's, and every run needs the same memory.
    template <typename Call> static Attempt attempt_cold(unsigned int k, Failing failing, Call call)
    {
        xmlCleanupParser();
        return attempt(k, failing, [&] {
            const KeyLibraryErrorCode result = call();
            xmlCleanupParser();
            return result;
        });
    }

    Bytes secret() const
    {
        return openssl_ecdh(own_.private_key, Bytes{0x04} + peer_);
    }

    std::string session_key() const
    {
        const Bytes key = secret();
        const Tag tag = openssl_hmac_sha256(key.data(), key.size(), amtc0_.data(), amtc0_.size());
        return to_hex({tag.begin(), tag.end()});
    }

    // The buffers of the context that are in place.
    std::set<const void*> buffers(const std::vector<KeyPointer>& fields)
    {
        std::set<const void*> in_place;
        for (const KeyPointer field : fields) {
            if (context().*field != nullptr) {
                in_place.insert(context().*field);
            }
        }
        return in_place;
    }

    const P256KeyPair own_ = random_key_pair();
    const Bytes peer_ = random_key_pair().coordinates;
    const Bytes other_peer_ = random_key_pair().coordinates;
    const Bytes amtc0_ = {1, 2, 3, 4, 5, 6};
    const Bytes other_amtc0_ = {9, 8};
    const Bytes msg_ = bytes_of("a message of more than thirty-two bytes");
    const std::string peer_key_ = "04" + to_hex(peer_);
};

// ---- How much memory is asked for -------------------------------------------------------------

TEST_F(CurveMemory, OfADerivationIsThatOfPeerKeySessionKeyAndHmac)
{
    answer_with_key();
    const Allocations made = allocations_of([&] { derive(peer_, amtc0_); });
    EXPECT_EQ(made.requested, followed_by({65, 32}, allocations_of_mbedtls()));
    EXPECT_EQ(left_by_library(made),
              buffers({&ContextRecord::ecdh_pub_key, &ContextRecord::hmac_session_key}));
}

TEST_F(CurveMemory, OfADerivationWithBothBuffersInPlaceIsThatOfTheHmac)
{
    answer_with_key();
    ASSERT_EQ(derive(other_peer_, other_amtc0_), KeyLibrary_OK);
    const Allocations made = allocations_of([&] { derive(peer_, amtc0_); });
    EXPECT_EQ(made.requested, allocations_of_mbedtls());
}

TEST_F(CurveMemory, OfADerivationThatIsInPlaceIsNone)
{
    answer_with_key();
    ASSERT_EQ(derive(peer_, amtc0_), KeyLibrary_OK);
    const Allocations made = allocations_of([&] { derive(peer_, amtc0_); });
    EXPECT_EQ(made.requested, Sizes());
}

TEST_F(CurveMemory, OfADerivationWithBadArgumentsIsNone)
{
    const Allocations made = allocations_of([&] {
        derive_ecdh_session_key(context_buf(), nullptr, amtc0_.data(), 6, true);
        derive_ecdh_session_key(context_buf(), peer_.data(), nullptr, 6, true);
        derive_ecdh_session_key(context_buf(), peer_.data(), amtc0_.data(), 7, true);
        derive_ecdh_session_key(nullptr, peer_.data(), amtc0_.data(), 6, true);
    });
    EXPECT_EQ(made.requested, Sizes());
}

// The session key's buffer is needed only once there is a secret.
TEST_F(CurveMemory, OfADerivationThatEndsBeforeTheSecretIsThatOfThePeerKey)
{
    answer_for_store({1, {}, 32});
    const Allocations not_found = allocations_of([&] { derive(peer_, amtc0_); });
    EXPECT_EQ(not_found.requested, Sizes{65});

    ASSERT_EQ(clear(), KeyLibrary_OK);
    answer_for_store({0, {}, 31});
    const Allocations invalid = allocations_of([&] { derive(peer_, amtc0_); });
    EXPECT_EQ(invalid.requested, Sizes{65});

    ASSERT_EQ(clear(), KeyLibrary_OK);
    answer_with_key();
    answer_for_engine(0);
    const Allocations failed = allocations_of([&] { derive(peer_, amtc0_); });
    EXPECT_EQ(failed.requested, Sizes{65});
}

TEST_F(CurveMemory, OfASlotsHmacKeyIsThatOfPeerKeyAndKey)
{
    answer_with_key();
    const Allocations made = allocations_of([&] { make(5, peer_); });
    EXPECT_EQ(made.requested, (Sizes{65, 32}));
    EXPECT_EQ(left_by_library(made),
              buffers({&ContextRecord::ecdh_pub_key, &ContextRecord::kts_hmac_signing_key}));
}

TEST_F(CurveMemory, OfASlotsHmacKeyWithBothBuffersInPlaceIsNone)
{
    answer_with_key();
    ASSERT_EQ(make(3, other_peer_), KeyLibrary_OK);
    const Allocations made = allocations_of([&] {
        make(5, peer_);
        make(5, peer_);
    });
    EXPECT_EQ(made.requested, Sizes());
}

TEST_F(CurveMemory, OfASlotsHmacKeyThatIsNotFetchedIsThatOfThePeerKey)
{
    answer_for_store({1, {}, 32});
    const Allocations not_found = allocations_of([&] { make(5, peer_); });
    EXPECT_EQ(not_found.requested, Sizes{65});

    ASSERT_EQ(clear(), KeyLibrary_OK);
    answer_for_store({0, {}, 31});
    const Allocations invalid = allocations_of([&] { make(5, peer_); });
    EXPECT_EQ(invalid.requested, Sizes{65});
}

TEST_F(CurveMemory, OfASlotsHmacKeyWithBadArgumentsIsNone)
{
    const Allocations made = allocations_of([&] {
        set_kts_hmac_signing_key(context_buf(), 5, nullptr, true);
        set_kts_hmac_signing_key(nullptr, 5, peer_.data(), true);
    });
    EXPECT_EQ(made.requested, Sizes());
}

TEST_F(CurveMemory, OfASlotsEcdsaKeyIsThatOfTheKey)
{
    answer_with_key();
    const Allocations made = allocations_of([&] { load(5); });
    EXPECT_EQ(made.requested, Sizes{32});
    EXPECT_EQ(left_by_library(made), buffers({&ContextRecord::kts_ecdsa_signing_key}));
}

TEST_F(CurveMemory, OfASlotsEcdsaKeyWithABufferInPlaceIsNone)
{
    answer_with_key();
    ASSERT_EQ(load(3), KeyLibrary_OK);
    const Allocations made = allocations_of([&] {
        load(5);
        load(5, true);
        load(0);
    });
    EXPECT_EQ(made.requested, Sizes());
}

TEST_F(CurveMemory, OfASlotsEcdsaKeyWithBadArgumentsIsNone)
{
    drop_uid();
    const Allocations made = allocations_of([&] {
        load(5);
        set_kts_ecdsa_signing_key(nullptr, 5, true);
    });
    EXPECT_EQ(made.requested, Sizes());
}

TEST_F(CurveMemory, OfASlotsTagIsThatOfTheHmac)
{
    plant(&ContextRecord::kts_hmac_signing_key, own_.private_key);
    Tag tag = {};
    const Allocations made =
        allocations_of([&] { gen_kts_sha256_hmac(context_buf(), msg_.data(), 33, tag.data()); });
    EXPECT_EQ(made.requested, allocations_of_mbedtls());
}

TEST_F(CurveMemory, OfSignaturesIsNone)
{
    plant(&ContextRecord::ecdsa_signing_key, own_.private_key);
    plant(&ContextRecord::kts_ecdsa_signing_key, own_.private_key);
    plant(&ContextRecord::ecdsa_verification_key, own_.point);
    uint8_t signature[64];
    bool verified = false;
    for (const auto sign : {generate_ecdsa_signature, generate_kts_ecdsa_signature}) {
        const Allocations made = failing_allocation(
            1,
            [&] {
                EXPECT_EQ(sign(context_buf(), msg_.data(), 33, signature), KeyLibrary_OK);
                EXPECT_EQ(
                    verify_ecdsa_signature(context_buf(), msg_.data(), 33, signature, &verified),
                    KeyLibrary_OK);
            },
            Failing::ALL_FROM_THERE_ON);
        EXPECT_EQ(made.requested, Sizes());
        EXPECT_TRUE(verified);
    }
}

TEST_F(CurveMemory, OfRefusedSignaturesAndTagsIsNone)
{
    uint8_t output[64];
    bool verified = false;
    const uint8_t* const locations[] = {nullptr, context_buf()}; // no context, and no keys
    const Allocations made = allocations_of([&] {
        for (const uint8_t* buf : locations) {
            generate_ecdsa_signature(buf, msg_.data(), 1, output);
            generate_kts_ecdsa_signature(buf, msg_.data(), 1, output);
            verify_ecdsa_signature(buf, msg_.data(), 1, output, &verified);
            gen_kts_sha256_hmac(buf, msg_.data(), 1, output);
        }
    });
    EXPECT_EQ(made.requested, Sizes());
}

// ---- Which result wins --------------------------------------------------------------------------

TEST_F(CurveMemory, MissingForThePeerKeyIsToldBeforeTheStoreIsAsked)
{
    const Attempt derived =
        attempt(1, Failing::ONE_ALLOCATION, [&] { return derive(peer_, amtc0_); });
    EXPECT_EQ(derived.result, KeyLibrary_MEMORY);
    const Attempt made = attempt(1, Failing::ONE_ALLOCATION, [&] { return make(5, peer_); });
    EXPECT_EQ(made.result, KeyLibrary_MEMORY);
    EXPECT_TRUE(store_requests().empty());
}

TEST_F(CurveMemory, MissingForASlotsEcdsaKeyIsToldBeforeTheStoreIsAsked)
{
    const Attempt loaded = attempt(1, Failing::ONE_ALLOCATION, [&] { return load(5); });
    EXPECT_EQ(loaded.result, KeyLibrary_MEMORY);
    EXPECT_EQ(context().kts_ecdsa_signing_key, nullptr);
    EXPECT_TRUE(store_requests().empty());
}

TEST_F(CurveMemory, MissingForTheSessionKeyIsToldAfterTheAgreement)
{
    answer_with_key();
    const Attempt derived =
        attempt(2, Failing::ONE_ALLOCATION, [&] { return derive(peer_, amtc0_); });
    EXPECT_EQ(derived.result, KeyLibrary_MEMORY);
    EXPECT_EQ(engine_requests().secrets.size(), 1U);
    EXPECT_EQ(context().hmac_session_key, nullptr);
    EXPECT_EQ(context().pwr_on_amtc0_len, 0U);
}

TEST_F(CurveMemory, MissingForASlotsHmacKeyIsToldBeforeTheAgreement)
{
    answer_with_key();
    answer_for_engine(0);
    const Attempt made = attempt(2, Failing::ONE_ALLOCATION, [&] { return make(5, peer_); });
    EXPECT_EQ(made.result, KeyLibrary_MEMORY);
    EXPECT_TRUE(engine_requests().secrets.empty());
    EXPECT_EQ(context().kts_hmac_signing_key, nullptr);
    EXPECT_EQ(context().kts_slot, 0U);
}

// ---- Every allocation in its turn, down to the store files
// ----------------------------------------

class CurveMemoryShortage : public CurveMemory, public testing::WithParamInterface<Failing> {
  protected:
    void reopen()
    {
        ASSERT_EQ(clear(), KeyLibrary_OK);
        ASSERT_EQ(key_lib_close(context_buf()), KeyLibrary_OK);
        ASSERT_EQ(key_lib_open(DEVICE_UID, nullptr, nullptr, context_buf()), KeyLibrary_OK);
    }

    // Prepares, makes the first allocation of a call fail, and looks at the outcome; then the same
    // with the second, and so on. The last outcome is that of a call that had all it needed.
    template <typename Prepare, typename Call, typename Look>
    void run_short(Prepare prepare, Call call, Look look)
    {
        needed_ = count_needed(prepare, call);
        for (unsigned int k = 1; k <= needed_ + 1; ++k) {
            SCOPED_TRACE("allocation " + std::to_string(k) + " of " + std::to_string(needed_) +
                         " fails");
            reopen();
            prepare();
            restore_doubles();
            before_ = state();
            const Attempt outcome = attempt_cold(k, GetParam(), call);
            EXPECT_EQ(outcome.printed_on_stderr, "");
            EXPECT_EQ(outcome.had_enough(), k > needed_);
            look(outcome);
            EXPECT_EQ(clear(), KeyLibrary_OK);
            if (HasFailure()) {
                return;
            }
        }
    }

    template <typename Prepare, typename Call> unsigned int count_needed(Prepare prepare, Call call)
    {
        reopen();
        prepare();
        restore_doubles();
        const Attempt outcome = attempt_cold(NO_ALLOCATION, GetParam(), call);
        EXPECT_EQ(outcome.result, KeyLibrary_OK);
        return static_cast<unsigned int>(outcome.made.requested.size());
    }

    void expect(const Attempt& outcome, KeyLibraryErrorCode result, const ContextState& after,
                const std::string& printed = "")
    {
        EXPECT_EQ(outcome.result, result);
        EXPECT_EQ(outcome.printed, printed);
        EXPECT_EQ(state(), after);
    }

    ContextState with_slot_key(const Bytes& key) const
    {
        return with(before_, {{"kts_ecdsa_signing_key", to_hex(key)}});
    }

    // Which of the last allocations it was that failed: 0 is the very last one, if any failed.
    unsigned int from_the_end(const Attempt& outcome) const
    {
        return needed_ - outcome.k;
    }

    static unsigned int hmac_needs()
    {
        return static_cast<unsigned int>(allocations_of_mbedtls().size());
    }

    unsigned int needed_ = 0;
    ContextState before_;
};

INSTANTIATE_TEST_SUITE_P(When, CurveMemoryShortage,
                         testing::Values(Failing::ONE_ALLOCATION, Failing::ALL_FROM_THERE_ON),
                         [](const auto& test) { return name_of(test.param); });

// Where libxml2 gets over a failure of its own, the key is delivered all the same. What comes next
// then has the memory it needs, or has none either.
TEST_P(CurveMemoryShortage, InADerivationGivesTheRightResultAndAUsableContext)
{
    const auto call = [&] {
        return derive(peer_, amtc0_);
    };
    const auto look = [&](const Attempt& outcome) {
        const ContextState kept = with(before_, {{"ecdh_pub_key", peer_key_}});
        const ContextState derived =
            with(kept, {{"hmac_session_key", session_key()}, {"pwr_on_amtc0", to_hex(amtc0_)}});
        if (outcome.had_enough()) {
            expect(outcome, KeyLibrary_OK, derived);
        } else if (outcome.k == 1) { // the peer key's
            expect(outcome, KeyLibrary_MEMORY, before_);
        } else if (from_the_end(outcome) < hmac_needs()) {
            expect(outcome, KeyLibrary_OK, kept, HMAC_SETUP_WITHOUT_MEMORY);
        } else if (from_the_end(outcome) == hmac_needs()) { // the session key's
            expect(outcome, KeyLibrary_MEMORY, kept);
        } else if (outcome.result == KeyLibrary_KEY_NOT_FOUND) {
            EXPECT_EQ(state(), kept);
        } else if (GetParam() == Failing::ONE_ALLOCATION) {
            expect(outcome, KeyLibrary_OK, derived);
        } else {
            expect(outcome, KeyLibrary_MEMORY, kept);
        }
        EXPECT_EQ(left_by_library(outcome.made),
                  buffers({&ContextRecord::ecdh_pub_key, &ContextRecord::hmac_session_key}));
        EXPECT_EQ(derive(peer_, amtc0_, true), KeyLibrary_OK);
        EXPECT_EQ(state(), derived);
    };
    run_short([] {}, call, look);
}

TEST_P(CurveMemoryShortage, InADerivationLeavesWhatWasRememberedBefore)
{
    const auto prepare = [&] {
        answer_with_key();
        ASSERT_EQ(derive(other_peer_, other_amtc0_), KeyLibrary_OK);
    };
    const auto call = [&] {
        return derive(peer_, amtc0_);
    };
    const auto look = [&](const Attempt& outcome) {
        const ContextState kept = with(before_, {{"ecdh_pub_key", peer_key_}});
        const ContextState unloaded = with(kept, {{"hmac_session_key", NOT_LOADED}});
        const ContextState derived =
            with(kept, {{"hmac_session_key", session_key()}, {"pwr_on_amtc0", to_hex(amtc0_)}});
        if (outcome.had_enough()) {
            expect(outcome, KeyLibrary_OK, derived);
        } else if (from_the_end(outcome) < hmac_needs()) {
            expect(outcome, KeyLibrary_OK, unloaded, HMAC_SETUP_WITHOUT_MEMORY);
        } else if (outcome.result == KeyLibrary_KEY_NOT_FOUND) {
            EXPECT_EQ(state(), kept);
        } else if (GetParam() == Failing::ONE_ALLOCATION) {
            expect(outcome, KeyLibrary_OK, derived);
        } else {
            expect(outcome, KeyLibrary_OK, unloaded, HMAC_SETUP_WITHOUT_MEMORY);
        }
        EXPECT_EQ(left_by_library(outcome.made), std::set<const void*>());
        EXPECT_EQ(derive(peer_, amtc0_), KeyLibrary_OK);
        EXPECT_EQ(state(), derived);
    };
    run_short(prepare, call, look);
}

TEST_P(CurveMemoryShortage, InMakingASlotsHmacKeyGivesTheRightResultAndAUsableContext)
{
    const auto call = [&] {
        return make(5, peer_);
    };
    const auto look = [&](const Attempt& outcome) {
        const ContextState kept = with(before_, {{"ecdh_pub_key", peer_key_}});
        const ContextState made =
            with(kept, {{"kts_hmac_signing_key", to_hex(secret())}, {"kts_slot", "5"}});
        if (outcome.had_enough()) {
            expect(outcome, KeyLibrary_OK, made);
        } else if (outcome.k == 1) { // the peer key's
            expect(outcome, KeyLibrary_MEMORY, before_);
        } else if (from_the_end(outcome) == 0) { // the HMAC key's
            expect(outcome, KeyLibrary_MEMORY, kept);
        } else if (outcome.result == KeyLibrary_KEY_NOT_FOUND) {
            EXPECT_EQ(state(), kept);
        } else if (GetParam() == Failing::ONE_ALLOCATION) {
            expect(outcome, KeyLibrary_OK, made);
        } else {
            expect(outcome, KeyLibrary_MEMORY, kept);
        }
        EXPECT_EQ(left_by_library(outcome.made),
                  buffers({&ContextRecord::ecdh_pub_key, &ContextRecord::kts_hmac_signing_key}));
        EXPECT_EQ(make(5, peer_), KeyLibrary_OK);
        EXPECT_EQ(state(), made);
    };
    run_short([] {}, call, look);
}

TEST_P(CurveMemoryShortage, InLoadingASlotsEcdsaKeyGivesTheRightResultAndAUsableContext)
{
    const auto call = [&] {
        return load(5);
    };
    const auto look = [&](const Attempt& outcome) {
        const ContextState loaded = with_slot_key(own_.private_key);
        if (outcome.had_enough()) {
            expect(outcome, KeyLibrary_OK, loaded);
        } else if (outcome.k == 1) { // the key's
            expect(outcome, KeyLibrary_MEMORY, before_);
        } else if (outcome.result == KeyLibrary_KEY_NOT_FOUND) {
            EXPECT_EQ(state(), with_slot_key(Bytes(32, 0)));
        } else {
            expect(outcome, KeyLibrary_OK, loaded);
        }
        EXPECT_EQ(left_by_library(outcome.made), buffers({&ContextRecord::kts_ecdsa_signing_key}));
        EXPECT_EQ(load(5), KeyLibrary_OK);
        EXPECT_EQ(state(), loaded);
    };
    run_short([] {}, call, look);
}

TEST_P(CurveMemoryShortage, InLoadingASlotsEcdsaKeyLeavesTheOneInPlace)
{
    const auto prepare = [&] {
        plant(&ContextRecord::kts_ecdsa_signing_key, counting_from(0x31, 32));
    };
    const auto call = [&] {
        return load(5);
    };
    const auto look = [&](const Attempt& outcome) {
        const ContextState loaded = with_slot_key(own_.private_key);
        if (!outcome.had_enough() && outcome.result == KeyLibrary_KEY_NOT_FOUND) {
            EXPECT_EQ(state(), before_);
        } else {
            expect(outcome, KeyLibrary_OK, loaded);
        }
        EXPECT_EQ(left_by_library(outcome.made), std::set<const void*>());
        EXPECT_EQ(load(5), KeyLibrary_OK);
        EXPECT_EQ(state(), loaded);
    };
    run_short(prepare, call, look);
}

TEST_P(CurveMemoryShortage, InMakingASlotsTagIsAFailureOfCryptography)
{
    const Bytes key = counting_from(0x31, 32);
    const Tag expected = openssl_hmac_sha256(key.data(), 32, msg_.data(), msg_.size());
    Tag tag = {};
    const auto prepare = [&] {
        plant(&ContextRecord::kts_hmac_signing_key, key);
        tag = {};
    };
    const auto call = [&] {
        return gen_kts_sha256_hmac(context_buf(), msg_.data(), static_cast<uint32_t>(msg_.size()),
                                   tag.data());
    };
    const auto look = [&](const Attempt& outcome) {
        if (outcome.had_enough()) {
            expect(outcome, KeyLibrary_OK, before_);
            EXPECT_EQ(tag, expected);
        } else {
            expect(outcome, KeyLibrary_CRYPTO, before_, HMAC_SETUP_WITHOUT_MEMORY);
            EXPECT_EQ(tag, Tag{});
        }
        EXPECT_EQ(call(), KeyLibrary_OK);
        EXPECT_EQ(tag, expected);
    };
    run_short(prepare, call, look);
}

} // namespace
