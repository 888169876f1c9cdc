// ECDSA signatures made and verified with the keys of a context.

#include "key_driver/zentrava_key_driver.h"
#include "tests/support/bytes.h"
#include "tests/support/curve_context.h"
#include "tests/support/engine_double.h"
#include "tests/support/p256_key_pair.h"
#include "tests/support/printed.h"
#include "tests/support/random_failures.h"
#include "tests/support/sha256_double.h"

#include <gtest/gtest.h>

#include <limits.h>
#include <stdint.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <ostream>
#include <string>
#include <vector>

namespace {

const size_t SIGNATURE_LEN = 64;
const int ROUNDS = 300;

// What the engine may return for success, besides 1.
const int NON_ZERO_RESULTS[] = {1, 2, 0x100, 0x10000, 0x1000000, -1, INT_MAX, INT_MIN};

Bytes random_message()
{
    return random_bytes_between(0, 300);
}

Bytes hash_handed_over(const std::array<uint8_t, 32>& hash)
{
    return {hash.begin(), hash.end()};
}

// ---- Published figures ----------------------------------------------------------------------

// FIPS 180-4's examples, and the empty message.
struct PublishedHash {
    const char* name;
    Bytes msg;
    const char* hash;
};

std::ostream& operator<<(std::ostream& stream, const PublishedHash& published)
{
    return stream << published.name;
}

const PublishedHash PUBLISHED_HASHES[] = {
    {"EmptyMessage", {}, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    {"OneBlock", bytes_of("abc"),
     "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {"TwoBlocks", bytes_of("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
     "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
    {"AMillionBytes", Bytes(1000000, 'a'),
     "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
};

// RFC 6979, appendix A.2.5: with SHA-256, the signatures that these nonces give.
const Bytes PUBLISHED_KEY =
    from_hex("c9afa9d845ba75166b5c215767b1d6934e50c3db36e89b127b8a622b120f6721");
const Bytes PUBLISHED_COORDINATES =
    from_hex("60fed4ba255a9d31c961eb74c6356d68c049b8923b61fa6ce669622e60f29fb6"
             "7903fe1008b8bc99a41ae9e95628bc64f2f1b20c2d7e9f5177a3c294d4462299");

struct PublishedSignature {
    const char* msg;
    const char* nonce;
    const char* signature;
};

std::ostream& operator<<(std::ostream& stream, const PublishedSignature& published)
{
    return stream << published.msg;
}

const PublishedSignature PUBLISHED_SIGNATURES[] = {
    {"sample", "a6e3c57dd01abe90086538398355dd4c3b17aa873382b0f24d6129493d8aad60",
     "efd48b2aacb6a8fd1140dd9cd45e81d69d2c877b56aaf991c34d0ea84eaf3716"
     "f7cb1c942d657c41d436c7a1b6e29f65f3e900dbb9aff4064dc4ab2f843acda8"},
    {"test", "d16b6ae827f17175e040871a1c7ec3500192c4c92677336ec2537acaee0008e0",
     "f1abb023518351cd71d881567b1ea663ed3efcf6c5132b354f28d3b0b7d38367"
     "019f4113742a2b14bd25926b49c649155f267e60d3814b4c0cc84250e46f0083"},
};

// ---- Signing --------------------------------------------------------------------------------

struct Signer {
    const char* name;
    KeyLibraryErrorCode (*sign)(const uint8_t* context_buf, const uint8_t* msg_buf,
                                uint32_t msg_len, uint8_t* signature);
    KeyPointer field;
};

std::ostream& operator<<(std::ostream& stream, const Signer& signer)
{
    return stream << signer.name;
}

const Signer SIGNERS[] = {
    {"EcdsaSigningKey", generate_ecdsa_signature, &ContextRecord::ecdsa_signing_key},
    {"KtsEcdsaSigningKey", generate_kts_ecdsa_signature, &ContextRecord::kts_ecdsa_signing_key},
};

class Signing : public CurveContext {
  protected:
    void SetUp() override
    {
        restore_engine();
        restore_sha256();
        CurveContext::SetUp();
        // Each field holds a key of its own, so that taking the wrong one is noticed.
        plant(&ContextRecord::ecdsa_signing_key, random_key_pair().private_key);
        plant(&ContextRecord::kts_ecdsa_signing_key, random_key_pair().private_key);
    }

    // Message and signature are in memory of exactly their sizes.
    KeyLibraryErrorCode sign_with(const Signer& signer, const Bytes& msg)
    {
        const auto msg_copy = exact_copy(msg);
        const auto signature = exact_copy(untouched_);
        const KeyLibraryErrorCode result = signer.sign(
            context_buf(), msg_copy.get(), static_cast<uint32_t>(msg.size()), signature.get());
        signature_ = bytes_at(signature.get(), SIGNATURE_LEN);
        return result;
    }

    const Bytes untouched_ = Bytes(SIGNATURE_LEN, 0xEE);
    Bytes signature_ = untouched_;
};

class SignatureUnder : public Signing, public testing::WithParamInterface<Signer> {
  protected:
    void SetUp() override
    {
        Signing::SetUp();
        plant(signer_.field, pair_.private_key);
    }

    KeyLibraryErrorCode sign(const Bytes& msg)
    {
        return sign_with(signer_, msg);
    }

    bool openssl_accepts(const Bytes& msg)
    {
        return openssl_verify(pair_.point, openssl_sha256(msg), signature_);
    }

    const Signer signer_ = GetParam();
    P256KeyPair pair_ = random_key_pair();
    const Bytes msg_ = bytes_of("a message of more than thirty-two bytes");
};

std::string signer_name(const testing::TestParamInfo<Signer>& test)
{
    return test.param.name;
}

INSTANTIATE_TEST_SUITE_P(The, SignatureUnder, testing::ValuesIn(SIGNERS), signer_name);

TEST_P(SignatureUnder, IsAcceptedByOpensslForRandomKeysAndMessages)
{
    for (int round = 0; round < ROUNDS; ++round) {
        pair_ = random_key_pair();
        plant(signer_.field, pair_.private_key);
        const Bytes msg = random_message();
        ASSERT_EQ(sign(msg), KeyLibrary_OK);
        ASSERT_TRUE(openssl_accepts(msg))
            << "key " << to_hex(pair_.private_key) << ", message " << to_hex(msg);
    }
}

TEST_P(SignatureUnder, IsAcceptedByOpensslForMessagesOf0To130Bytes)
{
    for (size_t len = 0; len <= 130; ++len) {
        const Bytes msg = counting_from(static_cast<uint8_t>(len), len);
        ASSERT_EQ(sign(msg), KeyLibrary_OK);
        EXPECT_TRUE(openssl_accepts(msg)) << len << " bytes";
    }
}

TEST_P(SignatureUnder, IsOfTheWholeOfALongMessage)
{
    Bytes msg = counting_from(3, 100001);
    ASSERT_EQ(sign(msg), KeyLibrary_OK);
    EXPECT_TRUE(openssl_accepts(msg));
    msg.back() ^= 1;
    EXPECT_FALSE(openssl_accepts(msg));
}

TEST_P(SignatureUnder, OfAnEmptyMessageSignsTheHashOfNothing)
{
    EXPECT_EQ(sign({}), KeyLibrary_OK);
    EXPECT_TRUE(openssl_verify(pair_.point, from_hex(PUBLISHED_HASHES[0].hash), signature_));
}

TEST_P(SignatureUnder, ReachesThePublishedFigures)
{
    plant(signer_.field, PUBLISHED_KEY);
    for (const PublishedSignature& published : PUBLISHED_SIGNATURES) {
        RandomSource source;
        source.supply(integer(from_hex(published.nonce)));
        EXPECT_EQ(sign(bytes_of(published.msg)), KeyLibrary_OK);
        EXPECT_EQ(to_hex(signature_), published.signature) << published;
    }
}

TEST_P(SignatureUnder, IsAnotherOneEachTime)
{
    ASSERT_EQ(sign(msg_), KeyLibrary_OK);
    const Bytes first = signature_;
    ASSERT_EQ(sign(msg_), KeyLibrary_OK);
    EXPECT_NE(to_hex(first), to_hex(signature_));
    EXPECT_TRUE(openssl_accepts(msg_));
}

TEST_P(SignatureUnder, WritesNothingAroundItsPlace)
{
    Bytes place(8 + SIGNATURE_LEN + 8, 0xA5);
    EXPECT_EQ(signer_.sign(context_buf(), msg_.data(), static_cast<uint32_t>(msg_.size()),
                           place.data() + 8),
              KeyLibrary_OK);
    EXPECT_EQ(bytes_at(place.data(), 8), Bytes(8, 0xA5));
    EXPECT_EQ(bytes_at(place.data() + 8 + SIGNATURE_LEN, 8), Bytes(8, 0xA5));
}

TEST_P(SignatureUnder, IsMadeOfAMessageAtAnOddAddressIntoAnOddAddress)
{
    const Bytes shifted = Bytes{0} + msg_;
    Bytes place(1 + SIGNATURE_LEN);
    EXPECT_EQ(signer_.sign(context_buf(), shifted.data() + 1, static_cast<uint32_t>(msg_.size()),
                           place.data() + 1),
              KeyLibrary_OK);
    signature_.assign(place.begin() + 1, place.end());
    EXPECT_TRUE(openssl_accepts(msg_));
}

TEST_P(SignatureUnder, LeavesTheMessageAndTheContextAsTheyAre)
{
    const ContextState before = state();
    const uint8_t* key = context().*signer_.field;
    const Bytes msg = msg_;
    EXPECT_EQ(signer_.sign(context_buf(), msg_.data(), static_cast<uint32_t>(msg_.size()),
                           signature_.data()),
              KeyLibrary_OK);
    EXPECT_EQ(msg_, msg);
    EXPECT_EQ(state(), before);
    EXPECT_EQ(context().*signer_.field, key);
}

TEST_P(SignatureUnder, NeedsNoUid)
{
    drop_uid();
    EXPECT_EQ(sign(msg_), KeyLibrary_OK);
    EXPECT_TRUE(openssl_accepts(msg_));
}

TEST_P(SignatureUnder, IsMadeOrRefusedWithoutAWord)
{
    EXPECT_EQ(printed_by([&] {
                  sign(msg_);
                  signer_.sign(nullptr, nullptr, 0, nullptr);
                  fail_sha256(-1);
                  sign(msg_);
                  answer_for_engine(0);
                  sign(msg_);
                  unload(signer_.field);
                  sign(msg_);
              }),
              "");
}

// ---- Signing: arguments and keys that are missing --------------------------------------------

class Unsigned : public SignatureUnder {
  protected:
    void unload_keys()
    {
        for (const Signer& signer : SIGNERS) {
            unload(signer.field);
        }
    }
};

INSTANTIATE_TEST_SUITE_P(By, Unsigned, testing::ValuesIn(SIGNERS), signer_name);

TEST_P(Unsigned, WithoutALocation)
{
    EXPECT_EQ(signer_.sign(nullptr, msg_.data(), 1, signature_.data()), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(signature_, untouched_);
}

TEST_P(Unsigned, WithoutAMessage)
{
    EXPECT_EQ(signer_.sign(context_buf(), nullptr, 1, signature_.data()), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(signature_, untouched_);
}

TEST_P(Unsigned, WithoutAnEmptyMessage)
{
    EXPECT_EQ(signer_.sign(context_buf(), nullptr, 0, signature_.data()), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(signature_, untouched_);
}

TEST_P(Unsigned, WithoutAPlaceForTheSignature)
{
    EXPECT_EQ(signer_.sign(context_buf(), msg_.data(), 1, nullptr), KeyLibrary_BAD_PARAMETER);
}

TEST_P(Unsigned, WithoutAnyArgument)
{
    EXPECT_EQ(signer_.sign(nullptr, nullptr, 0, nullptr), KeyLibrary_BAD_PARAMETER);
}

TEST_P(Unsigned, WithoutTheKey)
{
    unload(signer_.field);
    EXPECT_EQ(sign(msg_), KeyLibrary_KEY_NOT_FOUND);
    EXPECT_EQ(signature_, untouched_);
    EXPECT_TRUE(engine_requests().signatures.empty());
    EXPECT_TRUE(sha256_requests().empty());
}

TEST_P(Unsigned, WithTheArgumentsMissedBeforeTheKey)
{
    unload_keys();
    EXPECT_EQ(signer_.sign(nullptr, msg_.data(), 1, signature_.data()), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(signer_.sign(context_buf(), nullptr, 1, signature_.data()), KeyLibrary_BAD_PARAMETER);
    EXPECT_EQ(signer_.sign(context_buf(), msg_.data(), 1, nullptr), KeyLibrary_BAD_PARAMETER);
}

TEST_P(Unsigned, WithTheKeyMissedBeforeAFailingEngine)
{
    unload_keys();
    answer_for_engine(0);
    EXPECT_EQ(sign(msg_), KeyLibrary_KEY_NOT_FOUND);
}

TEST_P(Unsigned, OnceTheKeysAreCleared)
{
    ASSERT_EQ(clear(), KeyLibrary_OK);
    EXPECT_EQ(sign(msg_), KeyLibrary_KEY_NOT_FOUND);
}

// ---- Signing: what is asked of the hash and of the engine -------------------------------------

TEST_P(SignatureUnder, IsAskedOfTheEngineWithTheFieldsKeyAndTheCallersPlace)
{
    EXPECT_EQ(signer_.sign(context_buf(), msg_.data(), 5, signature_.data()), KeyLibrary_OK);
    ASSERT_EQ(engine_requests().signatures.size(), 1U);
    EXPECT_EQ(engine_requests().signatures[0].private_key, context().*signer_.field);
    EXPECT_EQ(engine_requests().signatures[0].signature, signature_.data());
    EXPECT_TRUE(engine_requests().verifications.empty());
}

TEST_P(SignatureUnder, IsOfThePublishedHashes)
{
    for (const PublishedHash& published : PUBLISHED_HASHES) {
        restore_engine();
        EXPECT_EQ(sign(published.msg), KeyLibrary_OK);
        ASSERT_EQ(engine_requests().signatures.size(), 1U);
        EXPECT_EQ(to_hex(hash_handed_over(engine_requests().signatures[0].hash)), published.hash)
            << published;
    }
}

TEST_P(SignatureUnder, IsOfOneHashWithout224BitsIntoZeros)
{
    EXPECT_EQ(signer_.sign(context_buf(), msg_.data(), 17, signature_.data()), KeyLibrary_OK);
    ASSERT_EQ(sha256_requests().size(), 1U);
    EXPECT_EQ(sha256_requests()[0].input, msg_.data());
    EXPECT_EQ(sha256_requests()[0].input_len, 17U);
    EXPECT_EQ(sha256_requests()[0].hash_before, Bytes(32, 0));
    EXPECT_EQ(sha256_requests()[0].is224, 0);
}

TEST_P(SignatureUnder, IsOfAllBytesOfAMessageHoweverLong)
{
    fail_sha256(-1); // there is no such message in memory
    for (const uint32_t len : {0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        restore_engine();
        EXPECT_EQ(signer_.sign(context_buf(), msg_.data(), len, signature_.data()), KeyLibrary_OK);
        EXPECT_EQ(sha256_requests().back().input_len, len);
    }
}

TEST_P(SignatureUnder, IsOfZerosWhenTheHashFails)
{
    fail_sha256(-0x5100);
    EXPECT_EQ(sign(msg_), KeyLibrary_OK);
    EXPECT_TRUE(openssl_verify(pair_.point, Bytes(32, 0), signature_));
}

TEST_P(SignatureUnder, IsOfWhatAFailedHashLeft)
{
    fail_sha256(-0x006E, Bytes(5, 0xAB));
    EXPECT_EQ(sign(msg_), KeyLibrary_OK);
    EXPECT_TRUE(openssl_verify(pair_.point, Bytes(5, 0xAB) + Bytes(27, 0), signature_));
}

TEST_P(SignatureUnder, IsMadeWhateverElseThanZeroTheEngineReturns)
{
    const Bytes made = counting_from(1, SIGNATURE_LEN);
    for (const int result : NON_ZERO_RESULTS) {
        answer_for_engine(result, made);
        EXPECT_EQ(sign(msg_), KeyLibrary_OK) << result;
        EXPECT_EQ(signature_, made) << result;
    }
}

TEST_P(SignatureUnder, IsAFailureOfCryptographyWhenTheEngineReturnsZero)
{
    const ContextState before = state();
    answer_for_engine(0);
    EXPECT_EQ(sign(msg_), KeyLibrary_CRYPTO);
    EXPECT_EQ(state(), before);
}

TEST_P(SignatureUnder, StaysAsAFailedEngineLeftIt)
{
    answer_for_engine(0, Bytes(40, 0x77));
    EXPECT_EQ(sign(msg_), KeyLibrary_CRYPTO);
    EXPECT_EQ(signature_, Bytes(40, 0x77) + Bytes(24, 0xEE));
}

// ---- Signing: failures of the random source ---------------------------------------------------

struct SigningFailure {
    Signer signer;
    RandomFailure failure;
};

std::ostream& operator<<(std::ostream& stream, const SigningFailure& test)
{
    return stream << test.signer << ", " << test.failure;
}

std::vector<SigningFailure> signing_failures()
{
    std::vector<RandomFailure> failures(std::begin(RANDOM_FAILURES), std::end(RANDOM_FAILURES));
    failures.insert(failures.end(), std::begin(LATER_RANDOM_FAILURES),
                    std::end(LATER_RANDOM_FAILURES));
    std::vector<SigningFailure> tests;
    for (const Signer& signer : SIGNERS) {
        for (const RandomFailure& failure : failures) {
            tests.push_back({signer, failure});
        }
    }
    return tests;
}

class SigningWithoutRandomNumbers : public Signing,
                                    public testing::WithParamInterface<SigningFailure> {
  protected:
    KeyLibraryErrorCode sign_without_random_numbers()
    {
        RandomSource source;
        GetParam().failure.arrange(source);
        return sign();
    }

    KeyLibraryErrorCode sign()
    {
        plant(GetParam().signer.field, pair_.private_key);
        return sign_with(GetParam().signer, msg_);
    }

    const P256KeyPair pair_ = random_key_pair();
    const Bytes msg_ = bytes_of("message");
};

INSTANTIATE_TEST_SUITE_P(By, SigningWithoutRandomNumbers, testing::ValuesIn(signing_failures()),
                         [](const auto& test) {
                             return std::string(test.param.signer.name) + "_" +
                                    test.param.failure.name;
                         });

TEST_P(SigningWithoutRandomNumbers, IsAFailureOfCryptographyThatWritesNothing)
{
    EXPECT_EQ(sign_without_random_numbers(), KeyLibrary_CRYPTO);
    EXPECT_EQ(to_hex(signature_), to_hex(untouched_));
}

TEST_P(SigningWithoutRandomNumbers, LeavesTheContextAsItIs)
{
    plant(GetParam().signer.field, pair_.private_key);
    const ContextState before = state();
    sign_without_random_numbers();
    EXPECT_EQ(state(), before);
}

TEST_P(SigningWithoutRandomNumbers, SaysNothing)
{
    EXPECT_EQ(printed_by([&] { sign_without_random_numbers(); }), "");
}

TEST_P(SigningWithoutRandomNumbers, LeavesAContextThatSignsLaterAndIsClearedAndClosed)
{
    ASSERT_EQ(sign_without_random_numbers(), KeyLibrary_CRYPTO);
    ASSERT_EQ(sign(), KeyLibrary_OK);
    EXPECT_TRUE(openssl_verify(pair_.point, openssl_sha256(msg_), signature_));
    ASSERT_EQ(sign_without_random_numbers(), KeyLibrary_CRYPTO);
    EXPECT_EQ(clear(), KeyLibrary_OK);
}

TEST_P(SignatureUnder, IsMadeWithTheSixteenthCandidateWhenFifteenAreUnusable)
{
    RandomSource source;
    source.supply(std::vector<mpz_class>(15, 0));
    source.supply(mpz_class(5));
    EXPECT_EQ(sign(msg_), KeyLibrary_OK);
    EXPECT_TRUE(openssl_accepts(msg_));
}

TEST_P(SignatureUnder, IsMadeWithTheSecondRandomDeviceWhereThereIsNoFirst)
{
    RandomSource source;
    source.urandom_exists = false;
    source.supply(mpz_class(5));
    EXPECT_EQ(sign(msg_), KeyLibrary_OK);
    EXPECT_TRUE(openssl_accepts(msg_));
}

// ---- Verifying ------------------------------------------------------------------------------

class VerifiedSignature : public CurveContext {
  protected:
    void SetUp() override
    {
        restore_engine();
        restore_sha256();
        CurveContext::SetUp();
        load(pair_);
    }

    void load(const P256KeyPair& pair)
    {
        plant(&ContextRecord::ecdsa_verification_key, pair.point);
    }

    void load_from_store(const P256KeyPair& pair)
    {
        write_store_file(PUBLIC_FILE,
                         record(DEVICE_UID, "ECDSA_DS_PuK", "1", to_hex(pair.coordinates)));
        ASSERT_EQ(set_ecdsa_verification_key(context_buf(), true), KeyLibrary_OK);
    }

    // Message and signature are in memory of exactly their sizes. The answer is asked for twice,
    // with either answer there before.
    bool verify(const Bytes& msg, const Bytes& signature)
    {
        const auto msg_copy = exact_copy(msg);
        const auto signature_copy = exact_copy(signature);
        bool answers[] = {false, true};
        for (bool& answer : answers) {
            EXPECT_EQ(verify_ecdsa_signature(context_buf(), msg_copy.get(),
                                             static_cast<uint32_t>(msg.size()),
                                             signature_copy.get(), &answer),
                      KeyLibrary_OK);
        }
        EXPECT_EQ(answers[0], answers[1]);
        return answers[0];
    }

    Bytes signed_by_openssl(const P256KeyPair& pair, const Bytes& msg)
    {
        return openssl_sign(pair.private_key, openssl_sha256(msg));
    }

    const P256KeyPair pair_ = random_key_pair();
    const Bytes msg_ = bytes_of("a message of more than thirty-two bytes");
    const Bytes signature_ = signed_by_openssl(pair_, msg_);
};

TEST_F(VerifiedSignature, IsOpensslsForRandomKeysAndMessages)
{
    for (int round = 0; round < ROUNDS; ++round) {
        const P256KeyPair pair = random_key_pair();
        load(pair);
        const Bytes msg = random_message();
        const Bytes signature = signed_by_openssl(pair, msg);
        ASSERT_TRUE(verify(msg, signature)) << "key " << to_hex(pair.private_key) << ", message "
                                            << to_hex(msg) << ", signature " << to_hex(signature);
    }
}

TEST_F(VerifiedSignature, IsTheContextsOwn)
{
    for (const Signer& signer : SIGNERS) {
        plant(signer.field, pair_.private_key);
        for (size_t len = 0; len <= 70; ++len) {
            const Bytes msg = counting_from(static_cast<uint8_t>(len), len);
            Bytes signature(SIGNATURE_LEN);
            const auto msg_copy = exact_copy(msg);
            ASSERT_EQ(signer.sign(context_buf(), msg_copy.get(), static_cast<uint32_t>(len),
                                  signature.data()),
                      KeyLibrary_OK);
            EXPECT_TRUE(verify(msg, signature)) << signer << ", " << len << " bytes";
        }
    }
}

TEST_F(VerifiedSignature, IsOneOfThePublished)
{
    plant(&ContextRecord::ecdsa_verification_key, Bytes{0x04} + PUBLISHED_COORDINATES);
    for (const PublishedSignature& published : PUBLISHED_SIGNATURES) {
        EXPECT_TRUE(verify(bytes_of(published.msg), from_hex(published.signature))) << published;
    }
}

TEST_F(VerifiedSignature, IsOfAnEmptyMessage)
{
    EXPECT_TRUE(verify({}, signed_by_openssl(pair_, {})));
}

TEST_F(VerifiedSignature, IsOfTheWholeOfALongMessage)
{
    Bytes msg = counting_from(3, 100001);
    const Bytes signature = signed_by_openssl(pair_, msg);
    EXPECT_TRUE(verify(msg, signature));
    msg.back() ^= 1;
    EXPECT_FALSE(verify(msg, signature));
}

TEST_F(VerifiedSignature, IsOfAMessageAtAnOddAddressAndAtOneItself)
{
    const Bytes shifted_msg = Bytes{0} + msg_;
    const Bytes shifted_signature = Bytes{0} + signature_;
    bool verified = false;
    EXPECT_EQ(verify_ecdsa_signature(context_buf(), shifted_msg.data() + 1,
                                     static_cast<uint32_t>(msg_.size()),
                                     shifted_signature.data() + 1, &verified),
              KeyLibrary_OK);
    EXPECT_TRUE(verified);
}

TEST_F(VerifiedSignature, LeavesTheContextAsItIs)
{
    const ContextState before = state();
    const uint8_t* key = context().ecdsa_verification_key;
    EXPECT_TRUE(verify(msg_, signature_));
    EXPECT_FALSE(verify(msg_, Bytes(SIGNATURE_LEN, 0)));
    EXPECT_EQ(state(), before);
    EXPECT_EQ(context().ecdsa_verification_key, key);
}

TEST_F(VerifiedSignature, NeedsNoUid)
{
    drop_uid();
    EXPECT_TRUE(verify(msg_, signature_));
}

TEST_F(VerifiedSignature, NeedsNoRandomNumbers)
{
    RandomSource source;
    EXPECT_TRUE(verify(msg_, signature_));
    EXPECT_EQ(source.calls, std::vector<std::string>());
}

TEST_F(VerifiedSignature, IsToldWithoutAWord)
{
    EXPECT_EQ(printed_by([&] {
                  verify(msg_, signature_);
                  verify(msg_, Bytes(SIGNATURE_LEN, 0));
                  verify_ecdsa_signature(nullptr, nullptr, 0, nullptr, nullptr);
                  fail_sha256(-1);
                  verify(msg_, signature_);
                  clear();
                  bool verified = false;
                  verify_ecdsa_signature(context_buf(), msg_.data(), 1, signature_.data(),
                                         &verified);
              }),
              "");
}

// ---- Verifying with the key as it is stored ---------------------------------------------------

class ParityOfY : public VerifiedSignature, public testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(Is, ParityOfY, testing::Bool(),
                         [](const auto& test) { return test.param ? "Odd" : "Even"; });

TEST_P(ParityOfY, IsOfNoConcernToAStoredKey)
{
    for (int round = 0; round < 20; ++round) {
        const P256KeyPair pair = random_key_pair_with_y(GetParam());
        load_from_store(pair);
        const Bytes msg = random_message();
        ASSERT_TRUE(verify(msg, signed_by_openssl(pair, msg))) << to_hex(pair.private_key);
    }
}

// The point with the same X is another key.
TEST_P(ParityOfY, IsThatOfTheStoredY)
{
    const P256KeyPair pair = random_key_pair_with_y(GetParam());
    const P256KeyPair opposite = key_pair_of(bytes(P256_ORDER - integer(pair.private_key)));
    load_from_store(opposite);
    EXPECT_FALSE(verify(msg_, signed_by_openssl(pair, msg_)));
    EXPECT_TRUE(verify(msg_, signed_by_openssl(opposite, msg_)));
}

TEST_P(ParityOfY, IsOfNoConcernToTheBytesOfTheKey)
{
    const P256KeyPair pair = random_key_pair_with_y(GetParam());
    load_from_store(pair);
    EXPECT_EQ(to_hex(bytes_at(context().ecdsa_verification_key, 65)),
              "04" + to_hex(pair.coordinates));
}

// ---- Verifying what does not hold -------------------------------------------------------------

using RefusedSignature = VerifiedSignature;

TEST_F(RefusedSignature, HasAWrongBitInAnyByte)
{
    for (size_t i = 0; i < SIGNATURE_LEN; ++i) {
        for (const int bits : {0x01, 0x80, 0xFF}) {
            Bytes wrong = signature_;
            wrong[i] = static_cast<uint8_t>(wrong[i] ^ bits);
            EXPECT_FALSE(verify(msg_, wrong)) << "byte " << i << ", bits " << bits;
        }
    }
}

TEST_F(RefusedSignature, IsOfAMessageWithAWrongBitInAnyByte)
{
    for (size_t i = 0; i < msg_.size(); ++i) {
        Bytes wrong = msg_;
        wrong[i] ^= 0x10;
        EXPECT_FALSE(verify(wrong, signature_)) << "byte " << i;
    }
}

TEST_F(RefusedSignature, IsOfMoreOfTheMessage)
{
    EXPECT_FALSE(verify({msg_.begin(), msg_.end() - 1}, signature_));
}

TEST_F(RefusedSignature, IsOfLessOfTheMessage)
{
    EXPECT_FALSE(verify(msg_ + Bytes{0}, signature_));
}

TEST_F(RefusedSignature, IsAnothers)
{
    EXPECT_FALSE(verify(msg_, signed_by_openssl(random_key_pair(), msg_)));
}

TEST_F(RefusedSignature, HasItsHalvesExchanged)
{
    EXPECT_FALSE(verify(msg_, Bytes(signature_.begin() + 32, signature_.end()) +
                                  Bytes(signature_.begin(), signature_.begin() + 32)));
}

TEST_F(RefusedSignature, HasAHalfOutOfItsRange)
{
    const Bytes r(signature_.begin(), signature_.begin() + 32);
    const Bytes s(signature_.begin() + 32, signature_.end());
    for (const Bytes& bad : {Bytes(32, 0), bytes(P256_ORDER), Bytes(32, 0xFF)}) {
        EXPECT_FALSE(verify(msg_, bad + s)) << to_hex(bad);
        EXPECT_FALSE(verify(msg_, r + bad)) << to_hex(bad);
        EXPECT_FALSE(verify(msg_, bad + bad)) << to_hex(bad);
    }
}

// ---- Verifying: arguments and keys that are missing -------------------------------------------

class Unverified : public VerifiedSignature {
  protected:
    // Runs a verification that is to end without an answer, with either answer there before.
    void expect_no_answer(KeyLibraryErrorCode expected,
                          const std::function<KeyLibraryErrorCode(bool*)>& verification)
    {
        for (const bool before : {false, true}) {
            bool verified = before;
            EXPECT_EQ(verification(&verified), expected);
            EXPECT_EQ(verified, before);
        }
        EXPECT_TRUE(engine_requests().verifications.empty());
    }
};

TEST_F(Unverified, WithoutALocation)
{
    expect_no_answer(KeyLibrary_BAD_PARAMETER, [&](bool* verified) {
        return verify_ecdsa_signature(nullptr, msg_.data(), 1, signature_.data(), verified);
    });
}

TEST_F(Unverified, WithoutAMessage)
{
    expect_no_answer(KeyLibrary_BAD_PARAMETER, [&](bool* verified) {
        return verify_ecdsa_signature(context_buf(), nullptr, 1, signature_.data(), verified);
    });
}

TEST_F(Unverified, WithoutAnEmptyMessage)
{
    expect_no_answer(KeyLibrary_BAD_PARAMETER, [&](bool* verified) {
        return verify_ecdsa_signature(context_buf(), nullptr, 0, signature_.data(), verified);
    });
}

TEST_F(Unverified, WithoutASignature)
{
    expect_no_answer(KeyLibrary_BAD_PARAMETER, [&](bool* verified) {
        return verify_ecdsa_signature(context_buf(), msg_.data(), 1, nullptr, verified);
    });
}

TEST_F(Unverified, WithoutAPlaceForTheAnswer)
{
    EXPECT_EQ(verify_ecdsa_signature(context_buf(), msg_.data(), 1, signature_.data(), nullptr),
              KeyLibrary_BAD_PARAMETER);
}

TEST_F(Unverified, WithoutTheKey)
{
    plant(&ContextRecord::ecdsa_signing_key, pair_.private_key);
    ASSERT_EQ(clear(), KeyLibrary_OK);
    expect_no_answer(KeyLibrary_KEY_NOT_FOUND, [&](bool* verified) {
        return verify_ecdsa_signature(context_buf(), msg_.data(), 1, signature_.data(), verified);
    });
    EXPECT_TRUE(sha256_requests().empty());
}

TEST_F(Unverified, WithTheKeyMissedThoughThereAreKeysToSignWith)
{
    ASSERT_EQ(clear(), KeyLibrary_OK);
    plant(&ContextRecord::ecdsa_signing_key, pair_.private_key);
    plant(&ContextRecord::kts_ecdsa_signing_key, pair_.private_key);
    plant(&ContextRecord::ecdh_pub_key, pair_.point);
    expect_no_answer(KeyLibrary_KEY_NOT_FOUND, [&](bool* verified) {
        return verify_ecdsa_signature(context_buf(), msg_.data(), 1, signature_.data(), verified);
    });
}

TEST_F(Unverified, WithTheArgumentsMissedBeforeTheKey)
{
    ASSERT_EQ(clear(), KeyLibrary_OK);
    expect_no_answer(KeyLibrary_BAD_PARAMETER, [&](bool* verified) {
        return verify_ecdsa_signature(context_buf(), nullptr, 1, signature_.data(), verified);
    });
    expect_no_answer(KeyLibrary_BAD_PARAMETER, [&](bool* verified) {
        return verify_ecdsa_signature(context_buf(), msg_.data(), 1, nullptr, verified);
    });
    EXPECT_EQ(verify_ecdsa_signature(context_buf(), msg_.data(), 1, signature_.data(), nullptr),
              KeyLibrary_BAD_PARAMETER);
}

// ---- Verifying: what is asked of the hash and of the engine -----------------------------------

TEST_F(VerifiedSignature, IsAskedOfTheEngineWithTheFieldsKeyAndTheCallersSignature)
{
    bool verified = false;
    EXPECT_EQ(verify_ecdsa_signature(context_buf(), msg_.data(), 5, signature_.data(), &verified),
              KeyLibrary_OK);
    ASSERT_EQ(engine_requests().verifications.size(), 1U);
    EXPECT_EQ(engine_requests().verifications[0].public_key, context().ecdsa_verification_key);
    EXPECT_EQ(engine_requests().verifications[0].signature, signature_.data());
}

TEST_F(VerifiedSignature, IsOfThePublishedHashes)
{
    for (const PublishedHash& published : PUBLISHED_HASHES) {
        restore_engine();
        verify(published.msg, signature_);
        ASSERT_FALSE(engine_requests().verifications.empty());
        EXPECT_EQ(to_hex(hash_handed_over(engine_requests().verifications[0].hash)), published.hash)
            << published;
    }
}

TEST_F(VerifiedSignature, IsOfOneHashWithout224BitsIntoZeros)
{
    bool verified = false;
    EXPECT_EQ(verify_ecdsa_signature(context_buf(), msg_.data(), 17, signature_.data(), &verified),
              KeyLibrary_OK);
    ASSERT_EQ(sha256_requests().size(), 1U);
    EXPECT_EQ(sha256_requests()[0].input, msg_.data());
    EXPECT_EQ(sha256_requests()[0].input_len, 17U);
    EXPECT_EQ(sha256_requests()[0].hash_before, Bytes(32, 0));
    EXPECT_EQ(sha256_requests()[0].is224, 0);
}

TEST_F(VerifiedSignature, IsOfAllBytesOfAMessageHoweverLong)
{
    fail_sha256(-1); // there is no such message in memory
    for (const uint32_t len : {0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        bool verified = false;
        EXPECT_EQ(
            verify_ecdsa_signature(context_buf(), msg_.data(), len, signature_.data(), &verified),
            KeyLibrary_OK);
        EXPECT_EQ(sha256_requests().back().input_len, len);
    }
}

TEST_F(VerifiedSignature, IsOfZerosWhenTheHashFails)
{
    fail_sha256(-0x5100);
    EXPECT_TRUE(verify(msg_, openssl_sign(pair_.private_key, Bytes(32, 0))));
    EXPECT_FALSE(verify(msg_, signature_));
}

TEST_F(VerifiedSignature, IsOfWhatAFailedHashLeft)
{
    fail_sha256(-0x006E, Bytes(5, 0xAB));
    EXPECT_TRUE(verify(msg_, openssl_sign(pair_.private_key, Bytes(5, 0xAB) + Bytes(27, 0))));
}

TEST_F(VerifiedSignature, HoldsWhateverElseThanZeroTheEngineReturns)
{
    for (const int result : NON_ZERO_RESULTS) {
        answer_for_engine(result);
        EXPECT_TRUE(verify(msg_, signature_)) << result;
    }
}

TEST_F(VerifiedSignature, DoesNotHoldWhenTheEngineReturnsZero)
{
    answer_for_engine(0);
    EXPECT_FALSE(verify(msg_, signature_));
}

} // namespace
