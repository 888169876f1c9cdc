// The engine's tuned primitives against their portable forms: the same value for a million operands
// each, some random, some made of digits at which carries go wrong if they can, and some made to
// meet the column sum's lost overflow.

#include "../ecc/ecc.cpp"

#include "support/ecc_numbers.h"

#include <gtest/gtest.h>

#include <string.h>

namespace {

constexpr int OPERAND_SETS = 1000000;

// Random digits, corner digits, and both mixed, in turn.
template <typename Array> Array operand(int set)
{
    if (set % 3 == 0) {
        return random_digits<Array>();
    }
    Array digits = corner_biased_digits<Array>();
    if (set % 3 == 1) {
        const uint64_t random = generator()();
        for (size_t i = 0; i < digits.size(); ++i) {
            if ((random >> i) % 2 != 0) {
                digits[i] = generator()();
            }
        }
    }
    return digits;
}

// Both forms with the result in an array of its own, in the left operand's, in the right one's, and
// with all three in one array.
template <typename Portable, typename Tuned>
void expect_same_binary(Portable portable_form, Tuned tuned_form)
{
    for (int set = 0; set < OPERAND_SETS; ++set) {
        const Digits left = operand<Digits>(set);
        const Digits right = operand<Digits>(set / 3);
        Digits expected = {};
        Digits result = {};
        const uint64_t expected_carry = portable_form(expected.data(), left.data(), right.data());
        ASSERT_EQ(tuned_form(result.data(), left.data(), right.data()), expected_carry) << set;
        ASSERT_EQ(result, expected) << set;

        Digits in_left = left;
        ASSERT_EQ(tuned_form(in_left.data(), in_left.data(), right.data()), expected_carry);
        ASSERT_EQ(in_left, expected) << set << ": result in the left operand";

        Digits in_right = right;
        ASSERT_EQ(tuned_form(in_right.data(), left.data(), in_right.data()), expected_carry);
        ASSERT_EQ(in_right, expected) << set << ": result in the right operand";

        Digits in_both = left;
        portable_form(expected.data(), left.data(), left.data());
        tuned_form(in_both.data(), in_both.data(), in_both.data());
        ASSERT_EQ(in_both, expected) << set << ": both operands and the result in one array";
    }
}

// Pairs whose products, summed up in a column before its last addition, come next to a high half of
// all ones: the last factor added is chosen to fill what is missing.
struct Factors {
    Digits left, right;
};

// The three low bits of random numbers move the sum a little away from the edge, to both sides.
mpz_class next_to_all_ones()
{
    const mpz_class away = integer(Digits{generator()(), generator()() % 8, 0, 0});
    return power_of_two(128) - 1 - away;
}

// Sets *factor so that sum + multiplier * *factor is as wanted modulo 2^128, if it can.
void fill_column(uint64_t* factor, uint64_t multiplier, const mpz_class& sum)
{
    const mpz_class missing =
        ((next_to_all_ones() - sum) % power_of_two(128) + power_of_two(128)) % power_of_two(128);
    const mpz_class quotient = missing / (integer(std::array<uint64_t, 1>{multiplier}) + 1);
    if (quotient < power_of_two(64)) {
        *factor = digits(quotient)[0];
    }
}

mpz_class digit_product(uint64_t left, uint64_t right)
{
    return integer(std::array<uint64_t, 1>{left}) * integer(std::array<uint64_t, 1>{right});
}

Factors full_column(int kind)
{
    Factors f = {random_digits<Digits>(), random_digits<Digits>()};
    const Digits& l = f.left;
    const Digits& r = f.right;
    switch (kind) {
    case 0:
        fill_column(&f.right[1], l[1], digit_product(l[0], r[2]));
        break; // column 2
    case 1:
        fill_column(&f.right[2], l[1], digit_product(l[0], r[3]));
        break; // column 3
    case 2:    // column 3, all but the last
        fill_column(&f.right[1], l[2], digit_product(l[0], r[3]) + digit_product(l[1], r[2]));
        break;
    default:
        fill_column(&f.right[2], l[2], digit_product(l[1], r[3])); // column 4
    }
    return f;
}

// The same for a square: columns 2, 3 and 4, whose first product is doubled.
Digits full_square_column(int kind)
{
    static constexpr size_t PAIRS[3][2] = {{0, 2}, {0, 3}, {1, 3}};
    Digits number = random_digits<Digits>();
    const size_t* pair = PAIRS[kind];
    number[pair[0]] |= uint64_t{1} << 63;
    const mpz_class half = next_to_all_ones() / 2;
    const mpz_class quotient = half / integer(std::array<uint64_t, 1>{number[pair[0]]});
    number[pair[1]] = digits(quotient)[0];
    return number;
}

Product true_product(const Digits& left, const Digits& right)
{
    constexpr mp_size_t LIMBS = sizeof(Digits) / sizeof(mp_limb_t);
    mp_limb_t factors[2][LIMBS];
    mp_limb_t product[2 * LIMBS];
    memcpy(factors[0], left.data(), sizeof(Digits));
    memcpy(factors[1], right.data(), sizeof(Digits));
    mpn_mul_n(product, factors[0], factors[1], LIMBS);
    Product result = {};
    memcpy(result.data(), product, sizeof(Product));
    return result;
}

// A product differs from the true one where an overflow was lost.
void expect_same_product(const Factors& f, int* lost_overflows)
{
    Product expected = {};
    Product result = {};
    portable::vli_mult(expected.data(), f.left.data(), f.right.data());
    tuned::vli_mult(result.data(), f.left.data(), f.right.data());
    ASSERT_EQ(result, expected);
    *lost_overflows += expected != true_product(f.left, f.right) ? 1 : 0;

    Digits expected_remainder = {};
    Digits remainder = f.left;
    portable::vli_modMult_fast(expected_remainder.data(), f.left.data(), f.right.data());
    tuned::vli_modMult_fast(remainder.data(), remainder.data(), f.right.data());
    ASSERT_EQ(remainder, expected_remainder);
    remainder = f.right;
    tuned::vli_modMult_fast(remainder.data(), f.left.data(), remainder.data());
    ASSERT_EQ(remainder, expected_remainder);
}

void expect_same_square(const Digits& number, int* lost_overflows)
{
    Product expected = {};
    Product result = {};
    portable::vli_square(expected.data(), number.data());
    tuned::vli_square(result.data(), number.data());
    ASSERT_EQ(result, expected);
    *lost_overflows += expected != true_product(number, number) ? 1 : 0;

    Digits expected_remainder = {};
    Digits remainder = number;
    portable::vli_modSquare_fast(expected_remainder.data(), number.data());
    tuned::vli_modSquare_fast(remainder.data(), remainder.data());
    ASSERT_EQ(remainder, expected_remainder);
}

void expect_same_remainder(const Product& product)
{
    Digits expected = {};
    Digits result = {};
    portable::vli_mmod_fast(expected.data(), product.data());
    tuned::vli_mmod_fast(result.data(), product.data());
    ASSERT_EQ(result, expected);
}

// A multiple of p and a little, or a little less.
Product near_multiple_of_p()
{
    static const mpz_class p = integer(Digits{curve_p[0], curve_p[1], curve_p[2], curve_p[3]});
    mpz_class product = integer(random_digits<Digits>()) * p;
    const mpz_class little = mpz_class(static_cast<unsigned long>(generator()() % 4));
    product += generator()() % 2 == 0 ? little : mpz_class(p - little);
    return to_digits<8>(product);
}

} // namespace

TEST(TunedAdd, IsThePortableOne)
{
    expect_same_binary([](uint64_t* result, const uint64_t* left,
                          const uint64_t* right) { return portable::vli_add(result, left, right); },
                       [](uint64_t* result, const uint64_t* left, const uint64_t* right) {
                           return tuned::vli_add(result, left, right);
                       });
}

TEST(TunedSub, IsThePortableOne)
{
    expect_same_binary([](uint64_t* result, const uint64_t* left,
                          const uint64_t* right) { return portable::vli_sub(result, left, right); },
                       [](uint64_t* result, const uint64_t* left, const uint64_t* right) {
                           return tuned::vli_sub(result, left, right);
                       });
}

TEST(TunedModAdd, IsThePortableOne)
{
    expect_same_binary(
        [](uint64_t* result, const uint64_t* left, const uint64_t* right) {
            portable::vli_modAdd_fast(result, left, right);
            return uint64_t{0};
        },
        [](uint64_t* result, const uint64_t* left, const uint64_t* right) {
            tuned::vli_modAdd_fast(result, left, right);
            return uint64_t{0};
        });
}

TEST(TunedModSub, IsThePortableOne)
{
    expect_same_binary(
        [](uint64_t* result, const uint64_t* left, const uint64_t* right) {
            portable::vli_modSub_fast(result, left, right);
            return uint64_t{0};
        },
        [](uint64_t* result, const uint64_t* left, const uint64_t* right) {
            tuned::vli_modSub_fast(result, left, right);
            return uint64_t{0};
        });
}

// A sum whose top word is all ones is the one that needs all its words compared with p.
TEST(TunedModAdd, ReducesSumsAroundP)
{
    const Digits p = {curve_p[0], curve_p[1], curve_p[2], curve_p[3]};
    for (int set = 0; set < OPERAND_SETS; ++set) {
        const Digits left = operand<Digits>(set);
        const Digits near_p = {p[0] + generator()() % 3 - 1, p[1], p[2], p[3]};
        Digits right = {};
        portable::vli_sub(right.data(), near_p.data(), left.data());
        Digits expected = {};
        Digits result = {};
        portable::vli_modAdd_fast(expected.data(), left.data(), right.data());
        tuned::vli_modAdd_fast(result.data(), left.data(), right.data());
        ASSERT_EQ(result, expected) << set;
    }
}

TEST(TunedMult, IsThePortableOne)
{
    int lost_overflows = 0;
    for (int set = 0; set < OPERAND_SETS && !HasFatalFailure(); ++set) {
        expect_same_product({operand<Digits>(set), operand<Digits>(set / 3)}, &lost_overflows);
    }
    EXPECT_GT(lost_overflows, 1000);
}

TEST(TunedMult, LosesTheSameOverflowsInEveryColumn)
{
    for (int kind = 0; kind < 4; ++kind) {
        int lost_overflows = 0;
        for (int set = 0; set < OPERAND_SETS / 20 && !HasFatalFailure(); ++set) {
            expect_same_product(full_column(kind), &lost_overflows);
        }
        EXPECT_GT(lost_overflows, 100) << "kind " << kind;
    }
}

TEST(TunedSquare, IsThePortableOne)
{
    int lost_overflows = 0;
    for (int set = 0; set < OPERAND_SETS && !HasFatalFailure(); ++set) {
        expect_same_square(operand<Digits>(set), &lost_overflows);
    }
    EXPECT_GT(lost_overflows, 100);
}

TEST(TunedSquare, LosesTheSameOverflowsInEveryColumn)
{
    for (int kind = 0; kind < 3; ++kind) {
        int lost_overflows = 0;
        for (int set = 0; set < OPERAND_SETS / 20 && !HasFatalFailure(); ++set) {
            expect_same_square(full_square_column(kind), &lost_overflows);
        }
        EXPECT_GT(lost_overflows, 100) << "kind " << kind;
    }
}

TEST(TunedReduction, IsThePortableOne)
{
    for (int set = 0; set < OPERAND_SETS && !HasFatalFailure(); ++set) {
        expect_same_remainder(operand<Product>(set));
    }
}

TEST(TunedReduction, IsThePortableOneAroundMultiplesOfP)
{
    for (int set = 0; set < OPERAND_SETS / 10 && !HasFatalFailure(); ++set) {
        expect_same_remainder(near_multiple_of_p());
    }
}
