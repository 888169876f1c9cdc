// The engine's numbers and its field, each operation against GMP on random operands and on operands
// whose digits are the corners of their range.

#include "../ecc/ecc.cpp"

#include "support/ecc_model.h"

#include <gtest/gtest.h>

namespace {

#if defined(ZENTRAVA_TAKES_FEW_OPERANDS)
constexpr int RANDOM_SETS = 1000;
constexpr int CORNER_SETS = 1000;
#elif defined(ZENTRAVA_RUNS_SLOWLY)
constexpr int RANDOM_SETS = 20000;
constexpr int CORNER_SETS = 10000;
#else
constexpr int RANDOM_SETS = 100000;
constexpr int CORNER_SETS = 20000;
#endif

const Digits P_DIGITS = digits(ecc_model::p);
const Digits N_DIGITS = digits(ecc_model::n);

// Operands of a product and of a square with which the overflow test loses an overflow.
const Digits RARE_LEFT = {0x8000000000000000, 0xFFFFFFFFFFFFFFFF, 0x0FFFFFFFFFFFFFFF,
                          0x0004000000000000};
const Digits RARE_RIGHT = {0x0007FFFFFFFFFFFF, 0x000000000000000D, 0xFFFFFFFFFFFFFFFF,
                           0x0000000000000002};
const Digits RARE_ROOT = {0x0000000000000002, 0xFFFFFFFFFFFFFFFE, 0xFFFFFFFF00000001,
                          0x8000000000000000};

template <typename Array, typename Test> void for_each_set(Test test)
{
    for (int i = 0; i < RANDOM_SETS && !testing::Test::HasFatalFailure(); ++i) {
        test(random_digits<Array>(), random_digits<Array>());
    }
    for (int i = 0; i < CORNER_SETS && !testing::Test::HasFatalFailure(); ++i) {
        test(corner_biased_digits<Array>(), corner_biased_digits<Array>());
    }
}

template <typename Test> void for_each_number(Test test)
{
    for_each_set<Digits>([&](const Digits& number, const Digits&) { test(number); });
}

template <typename Test> void for_each_pair(Test test)
{
    for_each_set<Digits>(test);
}

// Pairs below the modulus; those close to it and close to 0 come in as well.
template <typename Test> void for_each_reduced_pair(const mpz_class& m, Test test)
{
    const std::vector<mpz_class> edges = {0, 1, 2, m / 2, m / 2 + 1, m - 2, m - 1};
    for (const mpz_class& left : edges) {
        for (const mpz_class& right : edges) {
            test(digits(left), digits(right));
        }
    }
    for_each_pair([&](const Digits& left, const Digits& right) {
        test(digits(integer(left) % m), digits(integer(right) % m));
    });
}

// The operation's result in an array of its own, in the left operand's, in the right one's and, if
// the operands are the same, in the array of both.
template <typename Operation>
void expect_binary(const Digits& left, const Digits& right, const Digits& expected,
                   Operation operation)
{
    Digits result = random_digits<Digits>();
    operation(result.data(), left.data(), right.data());
    ASSERT_EQ(result, expected);

    Digits in_left = left;
    operation(in_left.data(), in_left.data(), right.data());
    ASSERT_EQ(in_left, expected) << "result in the left operand";

    Digits in_right = right;
    operation(in_right.data(), left.data(), in_right.data());
    ASSERT_EQ(in_right, expected) << "result in the right operand";
}

template <typename Operation>
void expect_both_operands(const Digits& operand, const Digits& expected, Operation operation)
{
    Digits in_both = operand;
    operation(in_both.data(), in_both.data(), in_both.data());
    ASSERT_EQ(in_both, expected) << "both operands and the result in one array";
}

mpz_class wrap(const mpz_class& value)
{
    mpz_class result;
    mpz_fdiv_r_2exp(result.get_mpz_t(), value.get_mpz_t(), 256);
    return result;
}

} // namespace

TEST(Clear, MakesEveryDigitZero)
{
    for_each_number([](Digits number) {
        vli_clear(number.data());
        ASSERT_EQ(number, Digits{});
    });
}

TEST(Clear, LeavesTheDigitBehindTheNumberAlone)
{
    std::array<uint64_t, 5> digits = {1, 2, 3, 4, 5};
    vli_clear(digits.data());
    EXPECT_EQ(digits, (std::array<uint64_t, 5>{0, 0, 0, 0, 5}));
}

TEST(IsZero, LooksAtEveryDigit)
{
    EXPECT_EQ(vli_isZero(Digits{}.data()), 1);
    for (size_t i = 0; i < 4; ++i) {
        for (unsigned bit = 0; bit < 64; ++bit) {
            Digits number = {};
            number[i] = uint64_t{1} << bit;
            EXPECT_EQ(vli_isZero(number.data()), 0) << "digit " << i << " bit " << bit;
        }
    }
    for_each_number([](const Digits& number) {
        ASSERT_EQ(vli_isZero(number.data()), integer(number) == 0 ? 1 : 0);
    });
}

TEST(TestBit, GivesTheBitsWeightWithinItsDigit)
{
    for (int round = 0; round < 1000; ++round) {
        const Digits number =
            round % 2 == 0 ? random_digits<Digits>() : corner_biased_digits<Digits>();
        const mpz_class value = integer(number);
        for (unsigned bit = 0; bit < 256; ++bit) {
            const bool set = mpz_tstbit(value.get_mpz_t(), bit) != 0;
            ASSERT_EQ(vli_testBit(number.data(), bit), set ? uint64_t{1} << bit % 64 : 0) << bit;
        }
    }
}

TEST(TestBit, GivesWeightsThatNoIntHolds)
{
    const Digits number = {0, 0, 0, 0x8000000100000000};
    EXPECT_EQ(vli_testBit(number.data(), 255), 0x8000000000000000);
    EXPECT_EQ(vli_testBit(number.data(), 224), 0x0000000100000000);
}

TEST(NumDigits, CountsUpToTheHighestDigitThatIsNotZero)
{
    EXPECT_EQ(vli_numDigits(Digits{}.data()), 0U);
    EXPECT_EQ(vli_numDigits(Digits{1, 0, 0, 0}.data()), 1U);
    EXPECT_EQ(vli_numDigits(Digits{0, 1, 0, 0}.data()), 2U);
    EXPECT_EQ(vli_numDigits(Digits{0, 0, 1, 0}.data()), 3U);
    EXPECT_EQ(vli_numDigits(Digits{0, 0, 0, 1}.data()), 4U);
    EXPECT_EQ(vli_numDigits(Digits{5, 0, 7, 0}.data()), 3U);
}

TEST(NumBits, IsZeroForZero)
{
    EXPECT_EQ(vli_numBits(Digits{}.data()), 0U);
}

TEST(NumBits, IsTheBitLength)
{
    for (unsigned bit = 0; bit < 256; ++bit) {
        const mpz_class power = power_of_two(bit);
        EXPECT_EQ(vli_numBits(digits(power).data()), bit + 1);
        EXPECT_EQ(vli_numBits(digits(2 * power - 1).data()), bit + 1);
    }
    for_each_number([](const Digits& number) {
        const mpz_class value = integer(number);
        const size_t length = value == 0 ? 0 : mpz_sizeinbase(value.get_mpz_t(), 2);
        ASSERT_EQ(vli_numBits(number.data()), length);
    });
}

TEST(Set, CopiesEveryDigit)
{
    for_each_pair([](Digits destination, const Digits& source) {
        vli_set(destination.data(), source.data());
        ASSERT_EQ(destination, source);
    });
}

TEST(Cmp, DecidesAtTheHighestDigitThatDiffers)
{
    for_each_pair([](const Digits& left, const Digits& right) {
        const mpz_class difference = integer(left) - integer(right);
        ASSERT_EQ(vli_cmp(left.data(), right.data()), sgn(difference));
        ASSERT_EQ(vli_cmp(left.data(), left.data()), 0);
    });
    for (size_t i = 0; i < 4; ++i) {
        Digits left = {9, 9, 9, 9};
        Digits right = left;
        left[i] = 10;
        for (size_t lower = 0; lower < i; ++lower) {
            right[lower] = 0xFFFFFFFFFFFFFFFF;
        }
        EXPECT_EQ(vli_cmp(left.data(), right.data()), 1);
        EXPECT_EQ(vli_cmp(right.data(), left.data()), -1);
    }
}

TEST(LeftShift, ShiftsByEveryCountAndReturnsTheBitsShiftedOut)
{
    uint shift = 1;
    for_each_number([&](const Digits& number) {
        const mpz_class shifted = integer(number) << shift;
        Digits result = {};
        const uint64_t out = vli_lshift(result.data(), number.data(), shift);
        ASSERT_EQ(result, digits(shifted)) << shift;
        ASSERT_EQ(out, to_digits<5>(shifted)[4]) << shift;

        Digits in_place = number;
        ASSERT_EQ(vli_lshift(in_place.data(), in_place.data(), shift), out);
        ASSERT_EQ(in_place, result) << "result in the operand";
        shift = shift % 63 + 1;
    });
}

TEST(RightShift, HalvesAndDropsTheLowestBit)
{
    for_each_number([](Digits number) {
        const mpz_class value = integer(number);
        vli_rshift1(number.data());
        ASSERT_EQ(number, digits(value / 2));
    });
}

TEST(Add, IsTheSumWithItsCarry)
{
    const auto add = [](const Digits& left, const Digits& right) {
        const mpz_class sum = integer(left) + integer(right);
        expect_binary(left, right, digits(sum),
                      [&](uint64_t* r, const uint64_t* a, const uint64_t* b) {
                          ASSERT_EQ(vli_add(r, a, b), to_digits<5>(sum)[4]);
                      });
    };
    for_each_pair(add);
    for_each_number([](const Digits& number) {
        const mpz_class sum = 2 * integer(number);
        expect_both_operands(number, digits(sum),
                             [&](uint64_t* r, const uint64_t* a, const uint64_t* b) {
                                 ASSERT_EQ(vli_add(r, a, b), to_digits<5>(sum)[4]);
                             });
    });
}

TEST(Add, KeepsTheCarryThroughDigitsOfAllOnes)
{
    const Digits ones = digits(power_of_two(256) - 1);
    const Digits one = {1};
    Digits result = {};
    EXPECT_EQ(vli_add(result.data(), one.data(), ones.data()), 1U);
    EXPECT_EQ(result, Digits{});
    EXPECT_EQ(vli_add(result.data(), ones.data(), one.data()), 1U);
    EXPECT_EQ(result, Digits{});
}

TEST(Sub, IsTheDifferenceWithItsBorrow)
{
    for_each_pair([](const Digits& left, const Digits& right) {
        const mpz_class difference = integer(left) - integer(right);
        expect_binary(left, right, digits(wrap(difference)),
                      [&](uint64_t* r, const uint64_t* a, const uint64_t* b) {
                          ASSERT_EQ(vli_sub(r, a, b), difference < 0 ? 1U : 0U);
                      });
    });
    for_each_number([](const Digits& number) {
        expect_both_operands(number, Digits{},
                             [](uint64_t* r, const uint64_t* a, const uint64_t* b) {
                                 ASSERT_EQ(vli_sub(r, a, b), 0U);
                             });
    });
}

TEST(Sub, KeepsTheBorrowThroughDigitsOfAllOnes)
{
    const Digits ones = digits(power_of_two(256) - 1);
    Digits result = {};
    EXPECT_EQ(vli_sub(result.data(), Digits{}.data(), ones.data()), 1U);
    EXPECT_EQ(result, (Digits{1, 0, 0, 0}));
}

TEST(Mul64, IsTheFullProductOfTwoDigits)
{
    for_each_pair([](const Digits& left, const Digits& right) {
        for (size_t i = 0; i < 4; ++i) {
            const uint128_t product = portable::mul_64_64(left[i], right[i]);
            const auto expected = to_digits<2>(integer(std::array<uint64_t, 1>{left[i]}) *
                                               integer(std::array<uint64_t, 1>{right[i]}));
            ASSERT_EQ(product.m_low, expected[0]) << left[i] << " * " << right[i];
            ASSERT_EQ(product.m_high, expected[1]) << left[i] << " * " << right[i];
        }
    });
}

TEST(Add128, IsTheSumModulo2To128)
{
    for_each_pair([](const Digits& left, const Digits& right) {
        for (size_t i = 0; i < 4; i += 2) {
            const std::array<uint64_t, 2> a = {left[i], left[i + 1]};
            const std::array<uint64_t, 2> b = {right[i], right[i + 1]};
            const uint128_t sum = portable::add_128_128({a[0], a[1]}, {b[0], b[1]});
            const auto expected = to_digits<2>(integer(a) + integer(b));
            ASSERT_EQ(sum.m_low, expected[0]);
            ASSERT_EQ(sum.m_high, expected[1]);
        }
    });
}

TEST(Mult, IsTheTrueProductUnlessAnOverflowIsLost)
{
    int rare_products = 0;
    for_each_pair([&](const Digits& left, const Digits& right) {
        Product result = {};
        vli_mult(result.data(), left.data(), right.data());
        bool rare = false;
        const mpz_class expected = ecc_model::product(integer(left), integer(right), &rare);
        ASSERT_EQ(result, to_digits<8>(expected));
        ASSERT_EQ(expected == integer(left) * integer(right), !rare);
        rare_products += rare ? 1 : 0;
    });
    EXPECT_GT(rare_products, 0) << "the corners are to bring some along";
}

TEST(Mult, TakesTheSameNumberTwice)
{
    for_each_number([](const Digits& number) {
        Product result = {};
        vli_mult(result.data(), number.data(), number.data());
        ASSERT_EQ(integer(result), ecc_model::product(integer(number), integer(number)));
    });
}

TEST(Mult, LosesAnOverflowWhereTheHighHalfIsAllOnesAndACarryComesIn)
{
    bool rare = false;
    const mpz_class expected = ecc_model::product(integer(RARE_LEFT), integer(RARE_RIGHT), &rare);
    ASSERT_TRUE(rare);
    Product result = {};
    vli_mult(result.data(), RARE_LEFT.data(), RARE_RIGHT.data());
    EXPECT_EQ(integer(result), expected);
    // The sum of column 3 overflows uncounted: one is missing in digit 5.
    EXPECT_EQ(integer(RARE_LEFT) * integer(RARE_RIGHT) - integer(result), power_of_two(64 * 5));
}

TEST(Mult, OfTheGreatestNumberByItself)
{
    const Digits ones = digits(power_of_two(256) - 1);
    const uint64_t all = 0xFFFFFFFFFFFFFFFF;
    Product result = {};
    vli_mult(result.data(), ones.data(), ones.data());
    EXPECT_EQ(result, (Product{1, 0, 0, 0, all - 1, all, all, all}));
    vli_square(result.data(), ones.data());
    EXPECT_EQ(result, (Product{1, 0, 0, 0, all - 1, all, all, all}));
}

TEST(Square, IsTheTrueSquareUnlessAnOverflowIsLost)
{
    int rare_squares = 0;
    for_each_number([&](const Digits& number) {
        Product result = {};
        vli_square(result.data(), number.data());
        bool rare = false;
        const mpz_class expected = ecc_model::square(integer(number), &rare);
        ASSERT_EQ(result, to_digits<8>(expected));
        ASSERT_EQ(expected == integer(number) * integer(number), !rare);
        rare_squares += rare ? 1 : 0;
    });
    EXPECT_GT(rare_squares, 0) << "the corners are to bring some along";
}

TEST(Square, LosesAnOverflowWhereTheHighHalfIsAllOnesAndACarryComesIn)
{
    bool rare = false;
    const mpz_class expected = ecc_model::square(integer(RARE_ROOT), &rare);
    ASSERT_TRUE(rare);
    Product result = {};
    vli_square(result.data(), RARE_ROOT.data());
    EXPECT_EQ(integer(result), expected);
    EXPECT_NE(integer(result), integer(RARE_ROOT) * integer(RARE_ROOT));
}

TEST(ModAdd, IsTheReducedSum)
{
    for (const mpz_class& m : {ecc_model::p, ecc_model::n}) {
        const Digits mod = digits(m);
        const auto add = [&](uint64_t* r, const uint64_t* a, const uint64_t* b) {
            vli_modAdd(r, a, b, mod.data());
        };
        for_each_reduced_pair(m, [&](const Digits& left, const Digits& right) {
            const mpz_class sum = integer(left) + integer(right);
            expect_binary(left, right, digits(sum % m), add);
            expect_both_operands(left, digits(2 * integer(left) % m), add);
        });
    }
}

TEST(ModAdd, ReducesASumEqualToTheModulusToZero)
{
    const Digits left = digits(ecc_model::p - 1);
    const Digits one = {1};
    Digits result = {};
    vli_modAdd(result.data(), left.data(), one.data(), P_DIGITS.data());
    EXPECT_EQ(result, Digits{});
}

TEST(ModAdd, SubtractsTheModulusOnceAtMost)
{
    for_each_pair([](const Digits& left, const Digits& right) {
        Digits result = {};
        vli_modAdd(result.data(), left.data(), right.data(), N_DIGITS.data());
        ASSERT_EQ(integer(result), ecc_model::mod_add(integer(left), integer(right), ecc_model::n));
    });
}

TEST(ModSub, IsTheReducedDifference)
{
    for (const mpz_class& m : {ecc_model::p, ecc_model::n}) {
        const Digits mod = digits(m);
        const auto sub = [&](uint64_t* r, const uint64_t* a, const uint64_t* b) {
            portable::vli_modSub(r, a, b, mod.data());
        };
        for_each_reduced_pair(m, [&](const Digits& left, const Digits& right) {
            const mpz_class difference = integer(left) - integer(right) + m;
            expect_binary(left, right, digits(difference % m), sub);
            expect_both_operands(left, Digits{}, sub);
        });
    }
}

TEST(ModSub, OfOneFromZeroIsTheGreatestFieldNumber)
{
    const Digits one = {1};
    Digits result = {};
    portable::vli_modSub(result.data(), Digits{}.data(), one.data(), P_DIGITS.data());
    EXPECT_EQ(integer(result), ecc_model::p - 1);
}

TEST(ModSub, AddsTheModulusOnceAtMost)
{
    for_each_pair([](const Digits& left, const Digits& right) {
        Digits result = {};
        portable::vli_modSub(result.data(), left.data(), right.data(), P_DIGITS.data());
        ASSERT_EQ(integer(result), ecc_model::mod_sub(integer(left), integer(right)));
    });
}

TEST(ModHalve, TimesTwoIsTheNumber)
{
    for (const mpz_class& m : {ecc_model::p, ecc_model::n}) {
        const Digits mod = digits(m);
        for_each_reduced_pair(m, [&](Digits number, const Digits&) {
            const mpz_class value = integer(number);
            vli_modHalve(number.data(), mod.data());
            ASSERT_LT(integer(number), m);
            ASSERT_EQ(2 * integer(number) % m, value);
        });
    }
}

TEST(FastReduction, IsTheRemainderModuloThePrime)
{
    for_each_set<Product>([](const Product& product, const Product&) {
        Digits result = {};
        vli_mmod_fast(result.data(), product.data());
        ASSERT_EQ(integer(result), integer(product) % ecc_model::p);
    });
}

TEST(FastReduction, ReducesFullyAtTheEdgesOfItsRange)
{
    const mpz_class& p = ecc_model::p;
    const mpz_class greatest = power_of_two(512) - 1;
    const std::vector<mpz_class> values = {
        0,
        1,
        p - 1,
        p,
        p + 1,
        2 * p - 1,
        2 * p,
        p * p - 1,
        p * p,
        p * p + 1,
        (p - 1) * (p - 1),
        greatest,
        greatest - greatest % p,
        greatest - greatest % p - 1,
    };
    for (const mpz_class& value : values) {
        Digits result = {};
        vli_mmod_fast(result.data(), to_digits<8>(value).data());
        EXPECT_EQ(integer(result), value % p) << value;
    }
}

TEST(FastReduction, WeighsEveryWordOfTheProduct)
{
    for (unsigned word = 0; word < 16; ++word) {
        for (const uint64_t factor : {uint64_t{1}, uint64_t{0x80000000}, uint64_t{0xFFFFFFFF}}) {
            const mpz_class value = integer(std::array<uint64_t, 1>{factor}) << (32 * word);
            Digits result = {};
            vli_mmod_fast(result.data(), to_digits<8>(value).data());
            EXPECT_EQ(integer(result), value % ecc_model::p) << "word " << word;
        }
    }
}

TEST(FastReduction, EndsFromEveryStateOfItsCounter)
{
    // The sum of the terms lies between -4 and 7 times 2^256.
    for (int carry = -5; carry <= 8; ++carry) {
        for (int i = 0; i < 1000; ++i) {
            Digits number = i % 2 == 0 ? random_digits<Digits>() : corner_biased_digits<Digits>();
            const mpz_class value = integer(number) + carry * power_of_two(256);
            mpz_class expected;
            mpz_fdiv_r(expected.get_mpz_t(), value.get_mpz_t(), ecc_model::p.get_mpz_t());
            portable::correct(number.data(), carry);
            ASSERT_EQ(integer(number), expected) << carry;
        }
    }
}

TEST(FieldMult, IsTheProductModuloThePrime)
{
    for_each_pair([](const Digits& left, const Digits& right) {
        const mpz_class product = ecc_model::product(integer(left), integer(right));
        expect_binary(left, right, digits(product % ecc_model::p), vli_modMult_fast);
        const mpz_class both = ecc_model::product(integer(left), integer(left));
        expect_both_operands(left, digits(both % ecc_model::p), vli_modMult_fast);
    });
}

TEST(FieldSquare, IsTheSquareModuloThePrime)
{
    for_each_number([](const Digits& number) {
        const Digits expected = digits(ecc_model::square(integer(number)) % ecc_model::p);
        Digits result = {};
        vli_modSquare_fast(result.data(), number.data());
        ASSERT_EQ(result, expected);
        Digits in_place = number;
        vli_modSquare_fast(in_place.data(), in_place.data());
        ASSERT_EQ(in_place, expected) << "result in the operand";
    });
}

TEST(ModInv, IsTheInverse)
{
    for (const mpz_class& m : {ecc_model::p, ecc_model::n}) {
        const Digits mod = digits(m);
        for_each_reduced_pair(m, [&](const Digits& number, const Digits&) {
            const Digits expected = digits(ecc_model::mod_inverse(integer(number), m));
            Digits result = {};
            vli_modInv(result.data(), number.data(), mod.data());
            ASSERT_EQ(result, expected);
            Digits in_place = number;
            vli_modInv(in_place.data(), in_place.data(), mod.data());
            ASSERT_EQ(in_place, expected) << "result in the operand";
        });
    }
}

TEST(ModInv, OfZeroIsZeroAndOfOneIsOne)
{
    for (const Digits& mod : {P_DIGITS, N_DIGITS}) {
        Digits result = {7, 7, 7, 7};
        vli_modInv(result.data(), Digits{}.data(), mod.data());
        EXPECT_EQ(result, Digits{});
        vli_modInv(result.data(), Digits{1}.data(), mod.data());
        EXPECT_EQ(result, Digits{1});
    }
}

TEST(ModInv, TimesItsArgumentIsOne)
{
    for (int i = 0; i < 1000; ++i) {
        const Digits in_field = digits(random_below(ecc_model::p - 1) + 1);
        Digits result = {};
        vli_modInv(result.data(), in_field.data(), P_DIGITS.data());
        vli_modMult_fast(result.data(), result.data(), in_field.data());
        ASSERT_EQ(result, Digits{1});

        const Digits below_order = digits(random_below(ecc_model::n - 1) + 1);
        vli_modInv(result.data(), below_order.data(), N_DIGITS.data());
        vli_modMult(result.data(), result.data(), below_order.data(), N_DIGITS.data());
        ASSERT_EQ(result, Digits{1});
    }
}

TEST(ModMult, IsTheProductModuloTheOrder)
{
    const auto multiply = [](uint64_t* r, const uint64_t* a, const uint64_t* b) {
        vli_modMult(r, a, b, N_DIGITS.data());
    };
    for_each_pair([&](const Digits& left, const Digits& right) {
        const mpz_class product = ecc_model::product(integer(left), integer(right));
        expect_binary(left, right, digits(product % ecc_model::n), multiply);
    });
    for_each_number([&](const Digits& number) {
        const mpz_class product = ecc_model::product(integer(number), integer(number));
        expect_both_operands(number, digits(product % ecc_model::n), multiply);
    });
}

TEST(ModMult, TakesModuliOfEveryLength)
{
    for (unsigned length = 1; length <= 256; ++length) {
        for (int i = 0; i < 20; ++i) {
            const mpz_class mod = power_of_two(length - 1) + random_below(power_of_two(length - 1));
            const mpz_class left = random_below(mod);
            const mpz_class right = random_below(mod);
            Digits result = {};
            vli_modMult(result.data(), digits(left).data(), digits(right).data(),
                        digits(mod).data());
            ASSERT_EQ(integer(result), left * right % mod) << "modulo " << mod;
        }
    }
}

TEST(ModMult, LeavesAProductShorterThanTheModulusAsItIs)
{
    for (unsigned length = 0; length < 256; ++length) {
        const mpz_class left = power_of_two(length / 2);
        const mpz_class right = power_of_two(length - length / 2) - 1;
        Digits result = {};
        vli_modMult(result.data(), digits(left).data(), digits(right).data(), N_DIGITS.data());
        EXPECT_EQ(integer(result), left * right);
    }
}

TEST(ModMult, ReducesProductsAroundMultiplesOfTheOrder)
{
    const mpz_class& n = ecc_model::n;
    for (const mpz_class& left : {mpz_class(n - 1), n, mpz_class(n + 1), mpz_class(n / 2)}) {
        for (const mpz_class& right :
             {mpz_class(1), mpz_class(2), mpz_class(3), mpz_class(n - 1)}) {
            Digits result = {};
            vli_modMult(result.data(), digits(left).data(), digits(right).data(), N_DIGITS.data());
            EXPECT_EQ(integer(result), left * right % n) << left << " * " << right;
        }
    }
}

TEST(ModMult, OfTheGreatestRemainderByItselfIsOne)
{
    const Digits greatest = digits(ecc_model::n - 1);
    Digits result = {};
    vli_modMult(result.data(), greatest.data(), greatest.data(), N_DIGITS.data());
    EXPECT_EQ(result, Digits{1});
}

TEST(SubtractOrderOnce, LeavesNumbersBelowTheOrderAndTakesItOffOthers)
{
    for_each_number([](Digits number) {
        const mpz_class value = integer(number);
        vli_subtractOrderOnce(number.data());
        ASSERT_EQ(integer(number), value >= ecc_model::n ? mpz_class(value - ecc_model::n) : value);
    });
    Digits order = N_DIGITS;
    vli_subtractOrderOnce(order.data());
    EXPECT_EQ(order, Digits{});
}

TEST(Umax, IsTheGreaterOfTheTwo)
{
    EXPECT_EQ(umax(3, 5), 5U);
    EXPECT_EQ(umax(5, 3), 5U);
    EXPECT_EQ(umax(4, 4), 4U);
    EXPECT_EQ(umax(0xFFFFFFFF, 0), 0xFFFFFFFF);
}

TEST(ByteForm, IsBigEndian)
{
    for_each_number([](const Digits& number) {
        Bytes form(32);
        ecc_native2bytes(form.data(), number.data());
        ASSERT_EQ(integer(form), integer(number));
        Digits back = {};
        ecc_bytes2native(back.data(), form.data());
        ASSERT_EQ(back, number);
    });
}

TEST(ByteForm, BeginsWithTheMostSignificantByte)
{
    Bytes form(32);
    form[31] = 1;
    Digits number = {};
    ecc_bytes2native(number.data(), form.data());
    EXPECT_EQ(number, Digits{1});

    ecc_native2bytes(form.data(), curve_p);
    EXPECT_EQ(Bytes(form.begin(), form.begin() + 8), hex("FFFFFFFF00000001"));
}

TEST(ByteForm, IsReadFromAnyAddress)
{
    const Bytes form = random_bytes(40);
    for (size_t offset = 0; offset < 8; ++offset) {
        Digits number = {};
        ecc_bytes2native(number.data(), form.data() + offset);
        const auto begin = form.begin() + static_cast<std::ptrdiff_t>(offset);
        EXPECT_EQ(integer(number), integer(Bytes(begin, begin + 32)));
    }
}
