// The engine's four operations: against OpenSSL, against published figures and, for inputs that
// have no meaning on the curve, against the model of the steps.

#include "../ecc/ecc.cpp"

#include "support/ecc_model.h"
#include "support/ecc_openssl.h"
#include "support/ecc_random_source.h"
#include "support/ecc_stack.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

#if defined(ZENTRAVA_TAKES_FEW_OPERANDS)
constexpr int ROUNDS = 20;
constexpr int SHORT_ROUNDS = 10; // of what takes several operations
constexpr int MODEL_ROUNDS = 5;  // of whole operations in the model
constexpr size_t BIT_STEP = 9;   // from one changed bit to the next
#else
#ifdef ZENTRAVA_RUNS_SLOWLY
constexpr int ROUNDS = 500;
#else
constexpr int ROUNDS = 2000;
#endif
constexpr int SHORT_ROUNDS = 100;
constexpr int MODEL_ROUNDS = 20;
constexpr size_t BIT_STEP = 1;
#endif

const mpz_class& p = ecc_model::p;
const mpz_class& n = ecc_model::n;

struct Key {
    Bytes private_key, compressed, uncompressed;
};

Key key(const mpz_class& d)
{
    const Bytes point = openssl_base_mult(d);
    return {bytes(d), openssl_compressed(point), point};
}

// Not 1 or n - 1, with which the engine's ladder has its own way.
Key random_key()
{
    return key(random_below(n - 3) + 2);
}

int shared_secret(const Bytes& public_key, const Bytes& private_key, Bytes* secret)
{
    secret->assign(32, 0xAA);
    return ecdh_shared_secret(public_key.data(), private_key.data(), secret->data());
}

Bytes sign(const Bytes& private_key, const Bytes& hash)
{
    Bytes signature(64);
    EXPECT_EQ(ecdsa_sign(private_key.data(), hash.data(), signature.data()), 1);
    return signature;
}

Bytes sign_with_draws(const Bytes& private_key, const Bytes& hash,
                      const std::vector<mpz_class>& draws)
{
    RandomSource source;
    source.supply(draws);
    return sign(private_key, hash);
}

int verify(const Bytes& public_key, const Bytes& hash, const Bytes& signature)
{
    return ecdsa_verify(public_key.data(), hash.data(), signature.data());
}

mpz_class inverse(const mpz_class& value)
{
    return ecc_model::mod_inverse(value, n);
}

// Modulo the prime.
mpz_class power(const mpz_class& base, const mpz_class& exponent)
{
    mpz_class result;
    mpz_powm(result.get_mpz_t(), base.get_mpz_t(), exponent.get_mpz_t(), p.get_mpz_t());
    return result;
}

mpz_class x_of(const Bytes& uncompressed)
{
    return integer(Bytes(uncompressed.begin() + 1, uncompressed.begin() + 33));
}

mpz_class y_of(const Bytes& uncompressed)
{
    return integer(Bytes(uncompressed.begin() + 33, uncompressed.end()));
}

// A hash and a valid signature for which verification computes exactly u1 * G + u2 * Q.
struct Instance {
    Bytes hash, signature;
};

Instance instance(const mpz_class& u1, const mpz_class& u2, const Bytes& uncompressed)
{
    const Bytes second = openssl_mult(u2, uncompressed);
    const Bytes sum = u1 == 0 ? second : openssl_add(openssl_base_mult(u1), second);
    const mpz_class r = x_of(sum) % n;
    const mpz_class s = r * inverse(u2) % n;
    return {bytes(u1 * s % n), bytes(r) + bytes(s)};
}

} // namespace

TEST(MakeKey, GivesThePublicKeyOfThePrivateOne)
{
    for (int round = 0; round < ROUNDS; ++round) {
        Bytes public_key(33);
        Bytes private_key(32);
        ASSERT_EQ(ecc_make_key(public_key.data(), private_key.data()), 1);
        ASSERT_EQ(public_key, openssl_compressed(openssl_base_mult(integer(private_key))));
    }
}

TEST(MakeKey, WritesExactlyThirtyThreeAndThirtyTwoBytes)
{
    Bytes public_key(40, 0xAA);
    Bytes private_key(40, 0xAA);
    ASSERT_EQ(ecc_make_key(public_key.data(), private_key.data()), 1);
    EXPECT_EQ(Bytes(public_key.begin() + 33, public_key.end()), Bytes(7, 0xAA));
    EXPECT_EQ(Bytes(private_key.begin() + 32, private_key.end()), Bytes(8, 0xAA));
}

TEST(MakeKey, GivesAPublicKeyThatDecompressesToThePoint)
{
    for (int round = 0; round < 20; ++round) {
        Bytes public_key(33);
        Bytes private_key(32);
        ASSERT_EQ(ecc_make_key(public_key.data(), private_key.data()), 1);
        ASSERT_TRUE(public_key[0] == 2 || public_key[0] == 3);
        EccPoint point = {};
        ecc_point_decompress(&point, public_key.data());
        Bytes form(65, 4);
        ecc_native2bytes(form.data() + 1, point.x);
        ecc_native2bytes(form.data() + 33, point.y);
        EXPECT_EQ(form, openssl_base_mult(integer(private_key)));
    }
}

TEST(MakeKey, TakesTheCandidateAsThePrivateKey)
{
    const mpz_class candidate = random_below(n - 3) + 2;
    RandomSource source;
    source.supply(candidate);
    Bytes public_key(33);
    Bytes private_key(32);
    ASSERT_EQ(ecc_make_key(public_key.data(), private_key.data()), 1);
    EXPECT_EQ(private_key, bytes(candidate));
}

TEST(MakeKey, FollowsItsStepsForEveryKindOfCandidate)
{
    const mpz_class greatest = power_of_two(256) - 1;
    const std::vector<std::vector<mpz_class>> candidates = {
        {1},     {2},        {3},       {n - 2}, {n - 1, 5}, {n - 1, n - 1, 7}, {n},     {n + 1},
        {n + 2}, {greatest}, {0, 0, n}, {0, 9},  {n, 5},     {greatest - 1},    {n - 3},
    };
    for (const std::vector<mpz_class>& draws : candidates) {
        RandomSource source;
        source.supply(draws);
        source.supply(99);
        Bytes public_key(33);
        Bytes private_key(32);
        ASSERT_EQ(ecc_make_key(public_key.data(), private_key.data()), 1);
        std::vector<mpz_class> all = draws;
        all.push_back(99);
        const std::optional<ecc_model::KeyPair> expected = ecc_model::make_key(all);
        EXPECT_EQ(public_key, expected->public_key) << draws[0];
        EXPECT_EQ(private_key, expected->private_key) << draws[0];
    }
}

TEST(MakeKey, LeavesThePrivateKeyZeroForACandidateEqualToTheOrder)
{
    RandomSource source;
    source.supply(n);
    Bytes public_key(33);
    Bytes private_key(32);
    EXPECT_EQ(ecc_make_key(public_key.data(), private_key.data()), 1);
    EXPECT_EQ(private_key, bytes(0));
    EXPECT_EQ(public_key, openssl_compressed(openssl_base_mult(2)));
}

TEST(SharedSecret, IsTheOneOfOpenSslForBothFormsOfThePublicKey)
{
    for (int round = 0; round < ROUNDS; ++round) {
        const Key own = random_key();
        const Key peer = random_key();
        const Bytes expected = openssl_ecdh(own.private_key, peer.uncompressed);
        Bytes secret;
        ASSERT_EQ(shared_secret(peer.compressed, own.private_key, &secret), 1);
        ASSERT_EQ(secret, expected);
        ASSERT_EQ(shared_secret(peer.uncompressed, own.private_key, &secret), 1);
        ASSERT_EQ(secret, expected);
    }
}

TEST(SharedSecret, IsTheSameOnBothSides)
{
    for (int round = 0; round < SHORT_ROUNDS; ++round) {
        Bytes public_a(33), private_a(32), public_b(33), private_b(32);
        ASSERT_EQ(ecc_make_key(public_a.data(), private_a.data()), 1);
        ASSERT_EQ(ecc_make_key(public_b.data(), private_b.data()), 1);
        Bytes secret_a, secret_b;
        ASSERT_EQ(shared_secret(public_b, private_a, &secret_a), 1);
        ASSERT_EQ(shared_secret(public_a, private_b, &secret_b), 1);
        ASSERT_EQ(secret_a, secret_b);
    }
}

// NIST CAVP, ECC CDH primitive, P-256, counts 0 and 1; RFC 5903, section 8.1.
TEST(SharedSecret, IsThePublishedOne)
{
    const struct {
        const char *x, *y, *d, *z;
    } figures[] = {
        {"700c48f77f56584c5cc632ca65640db91b6bacce3a4df6b42ce7cc838833d287",
         "db71e509e3fd9b060ddb20ba5c51dcc5948d46fbf640dfe0441782cab85fa4ac",
         "7d7dc5f71eb29ddaf80d6214632eeae03d9058af1fb6d22ed80badb62bc1a534",
         "46fc62106420ff012e54a434fbdd2d25ccc5852060561e68040dd7778997bd7b"},
        {"809f04289c64348c01515eb03d5ce7ac1a8cb9498f5caa50197e58d43a86a7ae",
         "b29d84e811197f25eba8f5194092cb6ff440e26d4421011372461f579271cda3",
         "38f65d6dce47676044d58ce5139582d568f64bb16098d179dbab07741dd5caf5",
         "057d636096cb80b67a8c038c890e887d1adfa4195e9b3ce241c8a778c59cda67"},
        {"d12dfb5289c8d4f81208b70270398c342296970a0bccb74c736fc7554494bf63",
         "56fbf3ca366cc23e8157854c13c58d6aac23f046ada30f8353e74f33039872ab",
         "c88f01f510d9ac3f70a292daa2316de544e9aab8afe84049c62a9c57862d1433",
         "d6840f6b42f6edafd13116e0e12565202fef8e9ece7dce03812464d04b9442de"},
        {"dad0b65394221cf9b051e1feca5787d098dfe637fc90b9ef945d0c3772581180",
         "5271a0461cdb8252d61f1c456fa3e59ab1f45b33accf5f58389e0577b8990bb3",
         "c6ef9c5d78ae012a011164acb397ce2088685d8f06bf9be0b283ab46476bee53",
         "d6840f6b42f6edafd13116e0e12565202fef8e9ece7dce03812464d04b9442de"},
    };
    for (const auto& figure : figures) {
        Bytes secret;
        ASSERT_EQ(shared_secret(Bytes{4} + hex(figure.x) + hex(figure.y), hex(figure.d), &secret),
                  1);
        EXPECT_EQ(secret, hex(figure.z));
    }
}

TEST(SharedSecret, DoesNotDependOnTheRandomNumber)
{
    const Key own = random_key();
    const Key peer = random_key();
    const Bytes expected = openssl_ecdh(own.private_key, peer.uncompressed);
    for (const mpz_class& z : {mpz_class(1), mpz_class(2), mpz_class(p - 1), mpz_class(p + 1),
                               mpz_class(power_of_two(256) - 1), random_below(p)}) {
        RandomSource source;
        source.supply(z);
        Bytes secret;
        ASSERT_EQ(shared_secret(peer.compressed, own.private_key, &secret), 1);
        EXPECT_EQ(secret, expected) << z;
    }
}

TEST(SharedSecret, IsZeroAndAFailureForARandomNumberThatIsZeroInTheField)
{
    const Key own = random_key();
    for (const mpz_class& z : {mpz_class(0), p}) {
        RandomSource source;
        source.supply(z);
        Bytes secret;
        EXPECT_EQ(shared_secret(own.compressed, own.private_key, &secret), 0);
        EXPECT_EQ(secret, bytes(0));
    }
}

TEST(SharedSecret, IsZeroAndAFailureForThePrivateKeyOrderLessOne)
{
    Bytes secret;
    EXPECT_EQ(shared_secret(random_key().compressed, bytes(n - 1), &secret), 0);
    EXPECT_EQ(secret, bytes(0));
}

TEST(SharedSecret, IsZeroAndAFailureForAPublicKeyWithXOfZero)
{
    Bytes secret;
    EXPECT_EQ(shared_secret(Bytes{2} + bytes(0), bytes(5), &secret), 0);
    EXPECT_EQ(secret, bytes(0));
    EXPECT_EQ(shared_secret(Bytes{4} + bytes(0) + bytes(0), bytes(5), &secret), 0);
    EXPECT_EQ(secret, bytes(0));
}

TEST(SharedSecret, BelongsToTwoAndThreeForThePrivateKeysZeroAndOne)
{
    const Bytes peer = random_key().uncompressed;
    Bytes secret;
    EXPECT_EQ(shared_secret(peer, bytes(0), &secret), 1);
    EXPECT_EQ(integer(secret), x_of(openssl_mult(2, peer)));
    EXPECT_EQ(shared_secret(peer, bytes(1), &secret), 1);
    EXPECT_EQ(integer(secret), x_of(openssl_mult(3, peer)));
}

TEST(SharedSecret, FollowsItsStepsForKeysOutOfRange)
{
    for (int round = 0; round < MODEL_ROUNDS; ++round) {
        // Points off the curve, coordinates that are not below the prime, an X without Y.
        const Bytes x = bytes(round % 3 == 0 ? integer(corner_biased_digits<Digits>())
                                             : random_below(power_of_two(256)));
        const Bytes public_key = round % 2 == 0
                                     ? Bytes{4} + x + bytes(integer(corner_biased_digits<Digits>()))
                                     : Bytes{3} + x;
        const Bytes private_key =
            bytes(round < 8 ? mpz_class(n - 3 + round) : random_below(power_of_two(256)));
        const mpz_class z = random_below(p);
        RandomSource source;
        source.supply(z);
        Bytes secret;
        const int result = shared_secret(public_key, private_key, &secret);
        const ecc_model::Point expected = ecc_model::shared_point(public_key, private_key, z);
        EXPECT_EQ(secret, bytes(expected.x));
        EXPECT_EQ(result, expected.x == 0 && expected.y == 0 ? 0 : 1);
    }
}

TEST(SharedSecret, ReadsAndWritesAtAnyAddress)
{
    const Key own = random_key();
    const Key peer = random_key();
    const Bytes expected = openssl_ecdh(own.private_key, peer.uncompressed);
    for (size_t offset = 0; offset < 8; ++offset) {
        const Bytes public_key = Bytes(offset) + peer.uncompressed;
        const Bytes private_key = Bytes(offset) + own.private_key;
        Bytes secret(48, 0xAA);
        ASSERT_EQ(ecdh_shared_secret(public_key.data() + offset, private_key.data() + offset,
                                     secret.data() + offset),
                  1);
        EXPECT_EQ(secret, Bytes(offset, 0xAA) + expected + Bytes(16 - offset, 0xAA));
    }
}

TEST(Sign, GivesSignaturesThatOpenSslVerifies)
{
    for (int round = 0; round < ROUNDS; ++round) {
        const Key signer = random_key();
        const Bytes hash = random_bytes(32);
        const Bytes signature = sign(signer.private_key, hash);
        ASSERT_TRUE(openssl_verify(signer.uncompressed, hash, signature));
        Bytes other_hash = hash;
        other_hash[static_cast<size_t>(round) % 32] ^= 1;
        ASSERT_FALSE(openssl_verify(signer.uncompressed, other_hash, signature));
    }
}

// RFC 6979, appendix A.2.5: P-256 with SHA-256; NIST CAVP, SigGen, P-256 with SHA-256, count 0.
struct SignatureFigures {
    const char *d, *x, *y, *hash, *k, *r, *s;
};
static const SignatureFigures PUBLISHED_SIGNATURES[] = {
    {"C9AFA9D845BA75166B5C215767B1D6934E50C3DB36E89B127B8A622B120F6721",
     "60FED4BA255A9D31C961EB74C6356D68C049B8923B61FA6CE669622E60F29FB6",
     "7903FE1008B8BC99A41AE9E95628BC64F2F1B20C2D7E9F5177A3C294D4462299",
     "af2bdbe1aa9b6ec1e2ade1d694f41fc71a831d0268e9891562113d8a62add1bf", // "sample"
     "A6E3C57DD01ABE90086538398355DD4C3B17AA873382B0F24D6129493D8AAD60",
     "EFD48B2AACB6A8FD1140DD9CD45E81D69D2C877B56AAF991C34D0EA84EAF3716",
     "F7CB1C942D657C41D436C7A1B6E29F65F3E900DBB9AFF4064DC4AB2F843ACDA8"},
    {"C9AFA9D845BA75166B5C215767B1D6934E50C3DB36E89B127B8A622B120F6721",
     "60FED4BA255A9D31C961EB74C6356D68C049B8923B61FA6CE669622E60F29FB6",
     "7903FE1008B8BC99A41AE9E95628BC64F2F1B20C2D7E9F5177A3C294D4462299",
     "9f86d081884c7d659a2feaa0c55ad015a3bf4f1b2b0b822cd15d6c15b0f00a08", // "test"
     "D16B6AE827F17175E040871A1C7EC3500192C4C92677336EC2537ACAEE0008E0",
     "F1ABB023518351CD71D881567B1EA663ED3EFCF6C5132B354F28D3B0B7D38367",
     "019F4113742A2B14BD25926B49C649155F267E60D3814B4C0CC84250E46F0083"},
    {"519b423d715f8b581f4fa8ee59f4771a5b44c8130b4e3eacca54a56dda72b464",
     "1ccbe91c075fc7f4f033bfa248db8fccd3565de94bbfb12f3c59ff46c271bf83",
     "ce4014c68811f9a21a1fdb2c0e6113e06db7ca93b7404e78dc7ccd5ca89a4ca9",
     "44acf6b7e36c1342c2c5897204fe09504e1e2efb1a900377dbc4e7a6a133ec56",
     "94a1bbb14b906a61a280f245f9e93c7f3b4a6247824f5d33b9670787642a68de",
     "f3ac8061b514795b8843e3d6629527ed2afd6b1f6a555a7acabb5e6f79c8c2ac",
     "8bf77819ca05a6b2786c76262bf7371cef97b218e96f175a3ccdda2acc058903"},
};

TEST(Sign, GivesThePublishedSignatureForThePublishedNonce)
{
    for (const SignatureFigures& figures : PUBLISHED_SIGNATURES) {
        EXPECT_EQ(sign_with_draws(hex(figures.d), hex(figures.hash), {integer(hex(figures.k))}),
                  hex(figures.r) + hex(figures.s));
    }
}

TEST(Verify, AcceptsThePublishedSignatures)
{
    for (const SignatureFigures& figures : PUBLISHED_SIGNATURES) {
        const Bytes point = Bytes{4} + hex(figures.x) + hex(figures.y);
        const Bytes signature = hex(figures.r) + hex(figures.s);
        EXPECT_EQ(verify(point, hex(figures.hash), signature), 1);
        EXPECT_EQ(verify(openssl_compressed(point), hex(figures.hash), signature), 1);
        EXPECT_EQ(verify(point, bytes(integer(hex(figures.hash)) ^ 1), signature), 0);
    }
}

TEST(Sign, WritesExactlySixtyFourBytes)
{
    Bytes signature(70, 0xAA);
    ASSERT_EQ(ecdsa_sign(bytes(5).data(), bytes(9).data(), signature.data()), 1);
    EXPECT_EQ(Bytes(signature.begin() + 64, signature.end()), Bytes(6, 0xAA));
}

TEST(Sign, TakesHashesThatAreNotBelowTheOrder)
{
    const Key signer = random_key();
    for (const mpz_class& e :
         {mpz_class(0), mpz_class(n - 1), n, mpz_class(n + 1), mpz_class(power_of_two(256) - 1)}) {
        const Bytes signature = sign(signer.private_key, bytes(e));
        EXPECT_TRUE(openssl_verify(signer.uncompressed, bytes(e), signature)) << e;
        EXPECT_EQ(verify(signer.uncompressed, bytes(e), signature), 1) << e;
    }
}

TEST(Sign, FollowsItsStepsForEveryKindOfNonce)
{
    const mpz_class greatest = power_of_two(256) - 1;
    const std::vector<std::vector<mpz_class>> nonces = {
        {1}, {2}, {3}, {n - 2}, {n - 1, 5}, {0, n - 1, 6}, {n}, {n + 1}, {n + 2}, {greatest},
    };
    const Bytes private_key = random_key().private_key;
    const Bytes hash = random_bytes(32);
    for (const std::vector<mpz_class>& draws : nonces) {
        EXPECT_EQ(sign_with_draws(private_key, hash, draws),
                  ecc_model::sign(private_key, hash, draws))
            << draws[0];
    }
}

TEST(Sign, FollowsItsStepsForPrivateKeysAndHashesOutOfRange)
{
    for (int round = 0; round < MODEL_ROUNDS; ++round) {
        const Bytes private_key = bytes(round % 2 == 0 ? integer(corner_biased_digits<Digits>())
                                                       : mpz_class(n - 2 + round));
        const Bytes hash = bytes(integer(corner_biased_digits<Digits>()));
        const mpz_class k = random_below(power_of_two(256) - 1) + 1;
        EXPECT_EQ(sign_with_draws(private_key, hash, {k}), ecc_model::sign(private_key, hash, {k}));
    }
}

TEST(Sign, DoesNotLookForAnSOfZero)
{
    const Key signer = random_key();
    const mpz_class k = random_below(n - 4) + 2;
    const mpz_class r = x_of(openssl_base_mult(k)) % n;
    const mpz_class e = n - r * integer(signer.private_key) % n;
    const Bytes signature = sign_with_draws(signer.private_key, bytes(e), {k});
    EXPECT_EQ(signature, bytes(r) + bytes(0));
    EXPECT_EQ(verify(signer.uncompressed, bytes(e), signature), 0);
}

TEST(Sign, GivesAnSOfZeroForANonceEqualToTheOrder)
{
    const Bytes signature = sign_with_draws(random_key().private_key, random_bytes(32), {n});
    EXPECT_EQ(signature, bytes(x_of(openssl_base_mult(2)) % n) + bytes(0));
}

TEST(Verify, AcceptsSignaturesOfOpenSslForBothFormsOfThePublicKey)
{
    for (int round = 0; round < ROUNDS; ++round) {
        const Key signer = random_key();
        const Bytes hash = random_bytes(32);
        const Bytes signature = openssl_sign(signer.private_key, hash);
        ASSERT_EQ(verify(signer.compressed, hash, signature), 1);
        ASSERT_EQ(verify(signer.uncompressed, hash, signature), 1);
    }
}

TEST(Verify, AcceptsWhatSignMadeAndNothingElse)
{
    for (int round = 0; round < SHORT_ROUNDS; ++round) {
        const Key signer = random_key();
        const Bytes hash = random_bytes(32);
        const Bytes signature = sign(signer.private_key, hash);
        ASSERT_EQ(verify(signer.compressed, hash, signature), 1);
        ASSERT_EQ(verify(random_key().compressed, hash, signature), 0);

        Bytes other_parity = signer.compressed;
        other_parity[0] ^= 1;
        ASSERT_EQ(verify(other_parity, hash, signature), 0);
    }
}

TEST(Verify, RefusesEverySignatureAndHashThatDiffersInOneBit)
{
    const Key signer = random_key();
    const Bytes hash = random_bytes(32);
    const Bytes signature = sign(signer.private_key, hash);
    for (size_t bit = 0; bit < 512; bit += BIT_STEP) {
        Bytes other = signature;
        other[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
        EXPECT_EQ(verify(signer.uncompressed, hash, other), 0) << "signature bit " << bit;
    }
    for (size_t bit = 0; bit < 256; bit += BIT_STEP) {
        Bytes other = hash;
        other[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
        EXPECT_EQ(verify(signer.uncompressed, other, signature), 0) << "hash bit " << bit;
    }
}

TEST(Verify, RefusesRAndSOutsideOneToTheOrderLessOne)
{
    const Key signer = random_key();
    const Bytes hash = random_bytes(32);
    const Bytes signature = sign(signer.private_key, hash);
    const Bytes r(signature.begin(), signature.begin() + 32);
    const Bytes s(signature.begin() + 32, signature.end());
    for (const mpz_class& value :
         {mpz_class(0), n, mpz_class(n + 1), mpz_class(power_of_two(256) - 1)}) {
        EXPECT_EQ(verify(signer.uncompressed, hash, bytes(value) + s), 0) << value;
        EXPECT_EQ(verify(signer.uncompressed, hash, r + bytes(value)), 0) << value;
        EXPECT_EQ(verify(signer.uncompressed, hash, bytes(value) + bytes(value)), 0) << value;
    }
    // Without a check of its own, r = 0 would be the X of the point at infinity.
    EXPECT_EQ(verify(signer.uncompressed, bytes(0), bytes(0) + s), 0);
    EXPECT_EQ(verify(signer.uncompressed, bytes(n), bytes(0) + s), 0);
}

TEST(Verify, RefusesAValidSWithTheOrderAdded)
{
    const Key signer = random_key();
    const mpz_class d = integer(signer.private_key);
    const mpz_class k = random_below(n - 4) + 2;
    const mpz_class r = x_of(openssl_base_mult(k)) % n;
    const mpz_class s = 12345; // small enough for s + n to have 32 bytes
    const mpz_class e = (s * k - r * d) % n;
    const Bytes hash = bytes(e < 0 ? mpz_class(e + n) : e);
    EXPECT_EQ(verify(signer.uncompressed, hash, bytes(r) + bytes(s)), 1);
    EXPECT_EQ(verify(signer.uncompressed, hash, bytes(r) + bytes(s + n)), 0);
}

// The inversion is not meant for the modulus itself, and gives 1 for it.
TEST(Verify, RefusesTheOrderAsSWhereOneWouldBeValid)
{
    const Key signer = random_key();
    const mpz_class k = random_below(n - 4) + 2;
    const mpz_class r = x_of(openssl_base_mult(k)) % n;
    const Bytes hash = bytes(((k - r * integer(signer.private_key)) % n + n) % n);
    ASSERT_TRUE(openssl_verify(signer.uncompressed, hash, bytes(r) + bytes(1)));
    EXPECT_EQ(verify(signer.uncompressed, hash, bytes(r) + bytes(1)), 1);
    EXPECT_EQ(verify(signer.uncompressed, hash, bytes(r) + bytes(n)), 0);
}

TEST(Verify, ComparesEveryBitOfTheSumsX)
{
    const Key signer = random_key();
    const mpz_class u1 = random_below(n);
    const mpz_class u2 = random_below(n - 1) + 1;
    const Instance valid = instance(u1, u2, signer.uncompressed);
    const mpz_class x = integer(Bytes(valid.signature.begin(), valid.signature.begin() + 32));
    ASSERT_EQ(verify(signer.uncompressed, valid.hash, valid.signature), 1);
    for (unsigned bit = 0; bit < 256; ++bit) {
        // The same sum of points for an r that differs from its X.
        const mpz_class r = x ^ power_of_two(bit);
        if (r < n) {
            const mpz_class s = r * inverse(u2) % n;
            EXPECT_EQ(verify(signer.uncompressed, bytes(u1 * s % n), bytes(r) + bytes(s)), 0)
                << bit;
        }
    }
}

TEST(Verify, ReducesTheSumsXModuloTheOrder)
{
    // The first point with n < X < p is the public key, and 0 G + 1 Q the sum.
    mpz_class r = 1;
    const auto on_curve = [](const mpz_class& x) {
        const mpz_class square = (x * x * x - 3 * x + ecc_model::b) % p;
        return mpz_legendre(square.get_mpz_t(), p.get_mpz_t()) == 1;
    };
    while (!on_curve(r + n)) {
        ++r;
    }
    const Bytes public_key = Bytes{2} + bytes(r + n);
    const Bytes signature = bytes(r) + bytes(r);
    ASSERT_TRUE(openssl_verify(public_key, bytes(0), signature));
    EXPECT_EQ(verify(public_key, bytes(0), signature), 1);
    EXPECT_EQ(verify(public_key, bytes(0), bytes(r + 1) + bytes(r + 1)), 0);
}

TEST(Verify, AcceptsTheMirroredS)
{
    const Key signer = random_key();
    const Bytes hash = random_bytes(32);
    const Bytes signature = sign(signer.private_key, hash);
    const mpz_class s = integer(Bytes(signature.begin() + 32, signature.end()));
    const Bytes r(signature.begin(), signature.begin() + 32);
    EXPECT_EQ(verify(signer.uncompressed, hash, r + bytes(n - s)), 1);
}

TEST(Verify, AcceptsSignaturesThatLeadToTinyScalars)
{
    const Key signer = random_key();
    for (unsigned u1 = 0; u1 <= 9; ++u1) {
        for (unsigned u2 = 1; u2 <= 9; ++u2) {
            const Instance tiny = instance(u1, u2, signer.uncompressed);
            EXPECT_TRUE(openssl_verify(signer.uncompressed, tiny.hash, tiny.signature));
            EXPECT_EQ(verify(signer.uncompressed, tiny.hash, tiny.signature), 1)
                << u1 << " G + " << u2 << " Q";
        }
    }
}

TEST(Verify, AcceptsSignaturesOfHashesThatAreZeroModuloTheOrder)
{
    const Key signer = random_key();
    for (const mpz_class& e : {mpz_class(0), n}) {
        const Bytes signature = openssl_sign(signer.private_key, bytes(e));
        EXPECT_EQ(verify(signer.uncompressed, bytes(e), signature), 1);
    }
}

TEST(Verify, FollowsItsStepsForKeysNearTheBasePoint)
{
    int refused = 0;
    for (const mpz_class& d :
         {mpz_class(1), mpz_class(2), mpz_class(3), mpz_class(n - 2), mpz_class(n - 1)}) {
        const Key signer = key(d);
        for (int round = 0; round < MODEL_ROUNDS; ++round) {
            const Bytes hash = random_bytes(32);
            const Bytes signature = openssl_sign(signer.private_key, hash);
            const bool accepted = ecc_model::verify(signer.uncompressed, hash, signature);
            EXPECT_EQ(verify(signer.uncompressed, hash, signature), accepted ? 1 : 0)
                << d << " round " << round;
            refused += accepted ? 0 : 1;
        }
    }
    EXPECT_GT(refused, 0) << "valid signatures that meet equal X";
}

TEST(Verify, RefusesNearlyAllSignaturesOfTheKeysWhosePointHasTheBasePointsX)
{
    for (const mpz_class& d : {mpz_class(1), mpz_class(n - 1)}) {
        const Key signer = key(d);
        int accepted = 0;
        for (int round = 0; round < 2 * SHORT_ROUNDS; ++round) {
            const Bytes hash = random_bytes(32);
            accepted += verify(signer.uncompressed, hash, openssl_sign(signer.private_key, hash));
        }
        EXPECT_LE(accepted, 2) << d;
    }
}

TEST(Verify, FollowsItsStepsForTinyScalarsWithKeysNearTheBasePoint)
{
    for (const mpz_class& d : {mpz_class(1), mpz_class(2), mpz_class(n - 1)}) {
        const Key signer = key(d);
        for (unsigned u1 = 0; u1 <= 4; ++u1) {
            for (unsigned u2 = 1; u2 <= 4; ++u2) {
                if ((u1 + u2 * d) % n != 0) {
                    const Instance tiny = instance(u1, u2, signer.uncompressed);
                    EXPECT_EQ(verify(signer.uncompressed, tiny.hash, tiny.signature) != 0,
                              ecc_model::verify(signer.uncompressed, tiny.hash, tiny.signature))
                        << u1 << " G + " << u2 << " Q, d = " << d;
                }
            }
        }
    }
}

TEST(Verify, FollowsItsStepsForPublicKeysOutOfRange)
{
    int accepted = 0;
    for (int round = 0; round < MODEL_ROUNDS; ++round) {
        const Bytes x =
            bytes(round % 2 == 0 ? integer(corner_biased_digits<Digits>()) : random_below(p));
        const Bytes public_key = round % 4 < 2
                                     ? Bytes{4} + x + bytes(integer(corner_biased_digits<Digits>()))
                                     : Bytes{2} + x;
        // The engine's own sum for tiny scalars makes the r that it has to accept.
        const ecc_model::Point q = ecc_model::decompress(public_key);
        const mpz_class r = q.x % n;
        const Bytes hash = bytes(0);
        const Bytes signature = bytes(r) + bytes(r);
        const bool expected = ecc_model::verify(public_key, hash, signature);
        EXPECT_EQ(verify(public_key, hash, signature) != 0, expected);
        accepted += expected ? 1 : 0;

        const Bytes any = bytes(random_below(n - 1) + 1) + bytes(random_below(n - 1) + 1);
        EXPECT_EQ(verify(public_key, hash, any) != 0, ecc_model::verify(public_key, hash, any));
    }
    EXPECT_GT(accepted, 0);
}

TEST(Verify, ReadsAtAnyAddress)
{
    const Key signer = random_key();
    const Bytes hash = random_bytes(32);
    const Bytes signature = openssl_sign(signer.private_key, hash);
    for (size_t offset = 0; offset < 8; ++offset) {
        EXPECT_EQ(ecdsa_verify((Bytes(offset) + signer.uncompressed).data() + offset,
                               (Bytes(offset) + hash).data() + offset,
                               (Bytes(offset) + signature).data() + offset),
                  1);
    }
}

TEST(Threads, DoNotDisturbEachOther)
{
    const auto work = [](int* failures) {
        for (int round = 0; round < SHORT_ROUNDS / 2; ++round) {
            Bytes public_a(33), private_a(32), public_b(33), private_b(32);
            Bytes secret_a(32), secret_b(32), signature(64);
            *failures += ecc_make_key(public_a.data(), private_a.data()) != 1;
            *failures += ecc_make_key(public_b.data(), private_b.data()) != 1;
            *failures += shared_secret(public_b, private_a, &secret_a) != 1;
            *failures += shared_secret(public_a, private_b, &secret_b) != 1;
            *failures += secret_a != secret_b;
            *failures += ecdsa_sign(private_a.data(), secret_a.data(), signature.data()) != 1;
            *failures += verify(public_a, secret_a, signature) != 1;
        }
    };
    std::array<int, 8> failures = {};
    std::vector<std::thread> threads;
    for (int& count : failures) {
        threads.emplace_back(work, &count);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, (std::array<int, 8>{}));
}

class Secrets : public testing::Test {
  protected:
    // Where symbols are bound lazily, the first call of a function takes the way through the
    // dynamic linker, which saves registers, with pieces of secrets in them, on the stack.
    static void SetUpTestSuite()
    {
        const Key signer = random_key();
        Bytes public_key(33), private_key(32), secret;
        ecc_make_key(public_key.data(), private_key.data());
        shared_secret(signer.uncompressed, signer.private_key, &secret);
        sign(signer.private_key, secret);
    }
};

TEST_F(Secrets, AreFoundWhereACallLeavesThemOnTheStack)
{
    const mpz_class number = random_below(n);
    const Digits source = digits(number);
    const auto leave_behind = [&] {
        // Far down, out of reach of what runs on the stack between the call's end and the look.
        volatile uint64_t left[512];
        std::copy(source.begin(), source.end(), left);
    };
    EXPECT_TRUE(holds(stack_after(leave_behind), number));
    EXPECT_FALSE(holds(stack_after([] {}), number));
}

TEST_F(Secrets, OfKeyGenerationDoNotStayOnTheStack)
{
    const mpz_class d = random_below(n - 4) + 2;
    RandomSource source;
    source.supply(d);
    Bytes public_key(33), private_key(32);
    const Bytes stack = stack_after([&] { ecc_make_key(public_key.data(), private_key.data()); });
    ASSERT_EQ(integer(private_key), d);
    EXPECT_FALSE(holds(stack, d));
}

TEST_F(Secrets, OfTheSharedSecretDoNotStayOnTheStack)
{
    const Key own = random_key();
    const Key peer = random_key();
    Bytes secret(32);
    const Bytes stack = stack_after([&] {
        ecdh_shared_secret(peer.uncompressed.data(), own.private_key.data(), secret.data());
    });
    ASSERT_EQ(secret, openssl_ecdh(own.private_key, peer.uncompressed));
    EXPECT_FALSE(holds(stack, integer(own.private_key)));
    EXPECT_FALSE(holds(stack, integer(secret)));
}

// With the private key 2 the ladder has one step: it adds P and 2P, and takes P from their sum. Each
// addition multiplies Z by the difference of the two X, which is Z^2 times that of the affine x.
TEST_F(Secrets, OfTheLadderDoNotStayOnTheStack)
{
    const Bytes peer = random_key().uncompressed;
    const mpz_class initial_z = random_below(p - 1) + 1;
    RandomSource source;
    source.supply(initial_z);
    Bytes secret(32);
    const Bytes stack =
        stack_after([&] { ecdh_shared_secret(peer.data(), bytes(2).data(), secret.data()); });
    const Bytes product = openssl_mult(2, peer);
    const Bytes sum = openssl_mult(3, peer);
    ASSERT_EQ(integer(secret), x_of(product));

    mpz_class z = y_of(peer) * power(initial_z, 4);
    z = power(z, 3) * (x_of(product) - x_of(peer));
    z = power(z, 3) * (x_of(sum) - x_of(peer));
    EXPECT_FALSE(holds(stack, initial_z));
    // 1/Z, and the sum as it is left in a register: up to their signs.
    const mpz_class inverse_z = power(z, p - 2);
    const mpz_class X = x_of(sum) * power(z, 2) % p;
    const mpz_class Y = y_of(sum) * power(z, 3) % p;
    for (const mpz_class& number : {inverse_z, X, Y}) {
        EXPECT_FALSE(holds(stack, number));
        EXPECT_FALSE(holds(stack, p - number));
    }
}

TEST_F(Secrets, OfSigningDoNotStayOnTheStack)
{
    const Key signer = random_key();
    const Bytes hash = random_bytes(32);
    const mpz_class k = random_below(n - 4) + 2;
    RandomSource source;
    source.supply(k);
    Bytes signature(64);
    const Bytes stack =
        stack_after([&] { ecdsa_sign(signer.private_key.data(), hash.data(), signature.data()); });

    const mpz_class r = integer(Bytes(signature.begin(), signature.begin() + 32));
    const mpz_class d = integer(signer.private_key);
    ASSERT_TRUE(openssl_verify(signer.uncompressed, hash, signature));
    EXPECT_FALSE(holds(stack, k));
    EXPECT_FALSE(holds(stack, inverse(k)));
    EXPECT_FALSE(holds(stack, d));
    EXPECT_FALSE(holds(stack, r * d % n));
}

TEST_F(Secrets, OfArithmeticModuloTheOrderDoNotStayOnTheStack)
{
    const mpz_class number = random_below(n - 1) + 1;
    const mpz_class factor = random_below(n);
    const Digits operand = digits(number);
    const Digits other_operand = digits(factor);
    Digits result = {};
    const Bytes after_inversion =
        stack_after([&] { vli_modInv(result.data(), operand.data(), curve_n); });
    ASSERT_EQ(integer(result), inverse(number));
    EXPECT_FALSE(holds(after_inversion, inverse(number)));

    const Bytes after_product = stack_after(
        [&] { vli_modMult(result.data(), operand.data(), other_operand.data(), curve_n); });
    ASSERT_EQ(integer(result), number * factor % n);
    EXPECT_FALSE(holds(after_product, number * factor % n));
}
