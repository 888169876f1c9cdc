// Where the engine's random numbers come from: the sequence of calls to the system, and what each
// outcome of a call does to the four operations.

#include "../ecc/ecc.cpp"

#include "support/ecc_openssl.h"
#include "support/ecc_random_source.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <errno.h>

namespace {

constexpr int LEAK_ROUNDS = 10000;

using Calls = std::vector<std::string>;

const Calls ONE_DRAW = {"open /dev/urandom", "read 32", "close"};

const mpz_class ORDER =
    integer(hex("FFFFFFFF00000000FFFFFFFFFFFFFFFFBCE6FAADA7179E84F3B9CAC2FC632551"));

size_t open_descriptors()
{
    size_t count = 0;
    DIR* directory = opendir("/proc/self/fd");
    while (readdir(directory) != nullptr) {
        ++count;
    }
    closedir(directory);
    return count;
}

Calls repeated(const Calls& calls, size_t times)
{
    Calls result;
    for (size_t i = 0; i < times; ++i) {
        result.insert(result.end(), calls.begin(), calls.end());
    }
    return result;
}

// The operations that draw random numbers, with inputs of no importance and outputs that show
// whether something was written.
struct Operations {
    Bytes public_key = Bytes(33, 0xAA);
    Bytes private_key = Bytes(32, 0xAA);
    Bytes secret = Bytes(32, 0xAA);
    Bytes signature = Bytes(64, 0xAA);

    int make_key()
    {
        return ecc_make_key(public_key.data(), private_key.data());
    }

    int shared_secret()
    {
        return ecdh_shared_secret(openssl_base_mult(7).data(), bytes(5).data(), secret.data());
    }

    int sign()
    {
        return ecdsa_sign(bytes(5).data(), bytes(9).data(), signature.data());
    }

    void expect_untouched() const
    {
        EXPECT_EQ(public_key, Bytes(33, 0xAA));
        EXPECT_EQ(private_key, Bytes(32, 0xAA));
        EXPECT_EQ(secret, Bytes(32, 0xAA));
        EXPECT_EQ(signature, Bytes(64, 0xAA));
    }
};

} // namespace

TEST(GetRandomNumber, ReadsUrandomInOneGo)
{
    RandomSource source;
    source.supply(12345);
    Digits number = {};
    EXPECT_EQ(getRandomNumber(number.data()), 1);
    EXPECT_EQ(source.calls, ONE_DRAW);
    EXPECT_EQ(integer(number), 12345);
}

TEST(GetRandomNumber, OpensReadOnlyAndClosedOnExec)
{
    RandomSource source;
    source.urandom_exists = false;
    source.supply(1);
    Digits number = {};
    EXPECT_EQ(getRandomNumber(number.data()), 1);
    EXPECT_EQ(source.open_flags, (std::vector<int>{O_RDONLY | O_CLOEXEC, O_RDONLY | O_CLOEXEC}));
}

TEST(GetRandomNumber, TakesTheFirstBytesForTheLowestDigit)
{
    RandomSource source;
    for (uint8_t byte = 0; byte < 32; ++byte) {
        source.content.push_back(byte);
    }
    Digits number = {};
    EXPECT_EQ(getRandomNumber(number.data()), 1);
    EXPECT_EQ(number, (Digits{0x0706050403020100, 0x0F0E0D0C0B0A0908, 0x1716151413121110,
                              0x1F1E1D1C1B1A1918}));
}

TEST(GetRandomNumber, GoesOnAfterShortReads)
{
    RandomSource source;
    const mpz_class value = random_below(power_of_two(256));
    source.supply(value);
    source.reads = {1, 7, 3, 20};
    Digits number = {};
    EXPECT_EQ(getRandomNumber(number.data()), 1);
    EXPECT_EQ(source.calls, (Calls{"open /dev/urandom", "read 32", "read 31", "read 24", "read 21",
                                   "read 1", "close"}));
    EXPECT_EQ(integer(number), value);
}

TEST(GetRandomNumber, GoesOnByteByByte)
{
    RandomSource source;
    const mpz_class value = random_below(power_of_two(256));
    source.supply(value);
    source.reads = std::deque<int>(32, 1);
    Digits number = {};
    EXPECT_EQ(getRandomNumber(number.data()), 1);
    EXPECT_EQ(source.count("read"), 32U);
    EXPECT_EQ(integer(number), value);
}

TEST(GetRandomNumber, FailsAtTheEndOfTheDevice)
{
    RandomSource source;
    Digits number = {};
    EXPECT_EQ(getRandomNumber(number.data()), 0);
    EXPECT_EQ(source.calls, ONE_DRAW);
}

TEST(GetRandomNumber, FailsAtTheEndOfTheDeviceAfterAShortRead)
{
    RandomSource source;
    source.content = std::deque<uint8_t>(31, 0x55);
    Digits number = {};
    EXPECT_EQ(getRandomNumber(number.data()), 0);
    EXPECT_EQ(source.calls, (Calls{"open /dev/urandom", "read 32", "read 1", "close"}));
}

TEST(GetRandomNumber, FailsAtAReadErrorWithoutAnotherAttempt)
{
    for (const int error : {EIO, EINTR, EAGAIN}) {
        RandomSource source;
        source.supply(1);
        source.reads = {-error};
        Digits number = {};
        EXPECT_EQ(getRandomNumber(number.data()), 0) << error;
        EXPECT_EQ(source.calls, ONE_DRAW) << error;
    }
}

TEST(GetRandomNumber, FailsAtAnInterruptionAfterAShortRead)
{
    RandomSource source;
    source.supply(1);
    source.reads = {16, -EINTR};
    Digits number = {};
    EXPECT_EQ(getRandomNumber(number.data()), 0);
    EXPECT_EQ(source.calls, (Calls{"open /dev/urandom", "read 32", "read 16", "close"}));
}

TEST(GetRandomNumber, TakesRandomWhereUrandomDoesNotOpen)
{
    RandomSource source;
    source.urandom_exists = false;
    source.supply(77);
    Digits number = {};
    EXPECT_EQ(getRandomNumber(number.data()), 1);
    EXPECT_EQ(source.calls, (Calls{"open /dev/urandom", "open /dev/random", "read 32", "close"}));
    EXPECT_EQ(integer(number), 77);
}

TEST(GetRandomNumber, DoesNotTurnToRandomAfterAReadError)
{
    RandomSource source;
    source.supply(1);
    source.reads = {0};
    Digits number = {};
    EXPECT_EQ(getRandomNumber(number.data()), 0);
    EXPECT_EQ(source.count("open"), 1U);
}

TEST(GetRandomNumber, FailsWhereNeitherDeviceOpens)
{
    RandomSource source;
    source.urandom_exists = false;
    source.random_exists = false;
    Digits number = {};
    EXPECT_EQ(getRandomNumber(number.data()), 0);
    EXPECT_EQ(source.calls, (Calls{"open /dev/urandom", "open /dev/random"}));
}

// As where an application has closed its standard input.
TEST(GetRandomNumber, ReadsADeviceThatOpensAsDescriptorZero)
{
    RandomSource source;
    source.descriptor = 0;
    source.supply(77);
    Digits number = {};
    EXPECT_EQ(getRandomNumber(number.data()), 1);
    EXPECT_EQ(source.calls, ONE_DRAW);
    EXPECT_EQ(integer(number), 77);
}

TEST(GetRandomNumber, FillsEveryByteFromTheRealDevice)
{
    Digits together = {};
    for (int i = 0; i < 100; ++i) {
        Digits number = {};
        ASSERT_EQ(getRandomNumber(number.data()), 1);
        for (size_t digit = 0; digit < 4; ++digit) {
            together[digit] |= number[digit];
        }
    }
    const uint64_t all = 0xFFFFFFFFFFFFFFFF;
    EXPECT_EQ(together, (Digits{all, all, all, all}));
}

TEST(GetRandomNumber, LeavesNoDescriptorOpen)
{
    const size_t before = open_descriptors();
    for (int i = 0; i < LEAK_ROUNDS; ++i) {
        Digits number = {};
        ASSERT_EQ(getRandomNumber(number.data()), 1);
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(GetRandomNumber, LeavesNoDescriptorOpenAfterFailures)
{
    RandomSource source;
    for (int i = 0; i < LEAK_ROUNDS; ++i) {
        Digits number = {};
        source.content = std::deque<uint8_t>(16, 0x55);
        source.reads = {i % 2 == 0 ? 16 : -EIO};
        ASSERT_EQ(getRandomNumber(number.data()), 0);
    }
    EXPECT_EQ(source.count("open"), static_cast<size_t>(LEAK_ROUNDS));
    EXPECT_EQ(source.count("close"), static_cast<size_t>(LEAK_ROUNDS));
}

TEST(Draws, AreOneForEachOperationWithUsableCandidates)
{
    Operations operations;
    {
        RandomSource source;
        source.supply(20);
        EXPECT_EQ(operations.make_key(), 1);
        EXPECT_EQ(source.calls, ONE_DRAW);
    }
    {
        RandomSource source;
        source.supply(20);
        EXPECT_EQ(operations.shared_secret(), 1);
        EXPECT_EQ(source.calls, ONE_DRAW);
    }
    {
        RandomSource source;
        source.supply(20);
        EXPECT_EQ(operations.sign(), 1);
        EXPECT_EQ(source.calls, ONE_DRAW);
    }
}

TEST(Draws, AreNoneForVerification)
{
    // RFC 6979's, A.2.5. With a small one, some 1 % of all right signatures are refused: on the way, the
    // sums of multiples of two points so close to each other meet a point that is to be added.
    const mpz_class private_key(
        "0xc9afa9d845ba75166b5c215767b1d6934e50c3db36e89b127b8a622b120f6721");
    RandomSource source;
    EXPECT_EQ(ecdsa_verify(openssl_base_mult(private_key).data(), bytes(9).data(),
                           openssl_sign(bytes(private_key), bytes(9)).data()),
              1);
    EXPECT_EQ(source.calls, Calls{});
}

TEST(Draws, AreRepeatedForCandidatesOfZero)
{
    Operations operations;
    {
        RandomSource source;
        source.supply({0, 0, 20});
        EXPECT_EQ(operations.make_key(), 1);
        EXPECT_EQ(source.calls, repeated(ONE_DRAW, 3));
        EXPECT_EQ(operations.private_key, bytes(20));
    }
    {
        RandomSource source;
        source.supply({0, 0, 20});
        EXPECT_EQ(operations.sign(), 1);
        EXPECT_EQ(source.calls, repeated(ONE_DRAW, 3));
    }
}

TEST(Draws, AreRepeatedForTheCandidateThatGivesThePointAtInfinity)
{
    Operations operations;
    {
        RandomSource source;
        source.supply({ORDER - 1, 20});
        EXPECT_EQ(operations.make_key(), 1);
        EXPECT_EQ(source.calls, repeated(ONE_DRAW, 2));
        EXPECT_EQ(operations.private_key, bytes(20));
    }
    {
        RandomSource source;
        source.supply({ORDER - 1, 20});
        EXPECT_EQ(operations.sign(), 1);
        EXPECT_EQ(source.calls, repeated(ONE_DRAW, 2));
    }
}

TEST(Draws, MayFindTheSixteenthCandidateUsable)
{
    const std::vector<mpz_class> zeros(15, 0);
    Operations operations;
    {
        RandomSource source;
        source.supply(zeros);
        source.supply(20);
        EXPECT_EQ(operations.make_key(), 1);
        EXPECT_EQ(source.calls, repeated(ONE_DRAW, 16));
        EXPECT_EQ(operations.private_key, bytes(20));
    }
    {
        RandomSource source;
        source.supply(zeros);
        source.supply(20);
        EXPECT_EQ(operations.sign(), 1);
        EXPECT_EQ(source.calls, repeated(ONE_DRAW, 16));
    }
}

TEST(Draws, MakeASeventeenthAndThrowItAway)
{
    for (const mpz_class& unusable : {mpz_class(0), mpz_class(ORDER - 1)}) {
        Operations operations;
        {
            RandomSource source;
            source.supply(std::vector<mpz_class>(16, unusable));
            source.supply({20, 20});
            EXPECT_EQ(operations.make_key(), 0);
            EXPECT_EQ(source.calls, repeated(ONE_DRAW, 17));
        }
        {
            RandomSource source;
            source.supply(std::vector<mpz_class>(16, unusable));
            source.supply({20, 20});
            EXPECT_EQ(operations.sign(), 0);
            EXPECT_EQ(source.calls, repeated(ONE_DRAW, 17));
        }
        operations.expect_untouched();
    }
}

TEST(Draws, FailTheOperationWhereverTheSourceFails)
{
    for (size_t draws = 0; draws < 17; ++draws) {
        Operations operations;
        {
            RandomSource source;
            source.supply(std::vector<mpz_class>(draws, 0));
            EXPECT_EQ(operations.make_key(), 0);
            EXPECT_EQ(source.calls, repeated(ONE_DRAW, draws + 1));
        }
        {
            RandomSource source;
            source.supply(std::vector<mpz_class>(draws, 0));
            EXPECT_EQ(operations.sign(), 0);
            EXPECT_EQ(source.calls, repeated(ONE_DRAW, draws + 1));
        }
        operations.expect_untouched();
    }
}

TEST(Draws, FailTheSharedSecretWhereTheSourceFails)
{
    RandomSource source;
    Operations operations;
    EXPECT_EQ(operations.shared_secret(), 0);
    EXPECT_EQ(source.calls, ONE_DRAW);
    operations.expect_untouched();
}
