// The engine's numbers and field, in both forms, against GMP. Products are those of a model with
// the engine's overflow test, which differ from the true ones only where an overflow is lost.

#include "../ecc/ecc.cpp"

#include "gmp_memory.h"
#include "target.h"

#include "tests/support/ecc_model.h"

#include <type_traits>

namespace {

// A digit at which carries go wrong if they can, or any.
uint64_t take_digit(Input* input)
{
    const size_t choice = take_byte(input);
    if (choice < corner_digits().size()) {
        return corner_digits()[choice];
    }
    uint64_t digit = 0;
    for (int i = 0; i < 8; ++i) {
        digit = digit << 8 | take_byte(input);
    }
    return digit;
}

template <typename Array> Array take_digits(Input* input)
{
    Array digits;
    std::generate(digits.begin(), digits.end(), [&] { return take_digit(input); });
    return digits;
}

struct Operands {
    Digits left;
    Digits right;
    mpz_class l;
    mpz_class r;
};

mpz_class digit_product(uint64_t left, uint64_t right)
{
    return integer(std::array<uint64_t, 1>{left}) * integer(std::array<uint64_t, 1>{right});
}

// Changes one factor of a column so that its sum comes next to a high half of all ones, where an
// overflow is lost: rarely met by chance.
void fill_column(Input* input, Digits* left, Digits* right)
{
    const size_t column = 2 + take_byte(input) % 3;
    const size_t first = column < 4 ? 0 : column - 3;
    mpz_class sum = digit_product((*left)[first], (*right)[column - first]);
    const size_t filled = first + 1;
    const mpz_class away = integer(Digits{take_digit(input), take_byte(input) % 8U, 0, 0});
    mpz_class missing = power_of_two(128) - 1 - away - sum;
    mpz_fdiv_r_2exp(missing.get_mpz_t(), missing.get_mpz_t(), 128);
    const mpz_class factor = missing / (integer(std::array<uint64_t, 1>{(*left)[filled]}) + 1);
    (*right)[column - filled] = digits(factor)[0];
}

Operands take_operands(Input* input)
{
    const uint8_t shape = take_byte(input);
    Operands operands;
    operands.left = take_digits<Digits>(input);
    operands.right = take_digits<Digits>(input);
    if (shape % 2 == 1) {
        fill_column(input, &operands.left, &operands.right);
    }
    if (shape & 2) {
        operands.right = operands.left;
    }
    operands.l = integer(operands.left);
    operands.r = integer(operands.right);
    return operands;
}

// The functions are called, never passed: their addresses are more than GCC for ARM can take.
template <typename Function>
uint64_t carry_of(const Function& function, uint64_t* result, const uint64_t* left,
                  const uint64_t* right)
{
    if constexpr (std::is_void_v<decltype(function(result, left, right))>) {
        function(result, left, right);
        return 0;
    } else {
        return function(result, left, right);
    }
}

// With the result in an array of its own, in the left operand's and in the right one's.
template <typename Function>
void check_binary(const Function& function, const Operands& operands, const mpz_class& expected,
                  uint64_t expected_carry, const char* rule)
{
    Digits own = {};
    Digits in_left = operands.left;
    Digits in_right = operands.right;
    const uint64_t* left = operands.left.data();
    const uint64_t* right = operands.right.data();
    const bool carries_agree =
        carry_of(function, own.data(), left, right) == expected_carry &&
        carry_of(function, in_left.data(), in_left.data(), right) == expected_carry &&
        carry_of(function, in_right.data(), left, in_right.data()) == expected_carry;
    demand(carries_agree && own == digits(expected) && own == in_left && own == in_right, rule);
}

void check_sums(const Operands& o)
{
    const mpz_class sum = o.l + o.r;
    const uint64_t carry = sum >= power_of_two(256);
    check_binary([](auto* r, auto* a, auto* b) { return portable::vli_add(r, a, b); }, o, sum,
                 carry, "portable sum");
    check_binary([](auto* r, auto* a, auto* b) { return primitives::vli_add(r, a, b); }, o, sum,
                 carry, "sum");

    const uint64_t borrow = o.l < o.r;
    const mpz_class difference = o.l - o.r + power_of_two(256);
    check_binary([](auto* r, auto* a, auto* b) { return portable::vli_sub(r, a, b); }, o,
                 difference, borrow, "portable difference");
    check_binary([](auto* r, auto* a, auto* b) { return primitives::vli_sub(r, a, b); }, o,
                 difference, borrow, "difference");

    const mpz_class sum_p = ecc_model::mod_add(o.l, o.r);
    const mpz_class difference_p = ecc_model::mod_sub(o.l, o.r);
    check_binary([](auto* r, auto* a, auto* b) { return portable::vli_modAdd_fast(r, a, b); }, o,
                 sum_p, 0, "portable sum modulo p");
    check_binary([](auto* r, auto* a, auto* b) { return primitives::vli_modAdd_fast(r, a, b); }, o,
                 sum_p, 0, "sum modulo p");
    check_binary([](auto* r, auto* a, auto* b) { return portable::vli_modSub_fast(r, a, b); }, o,
                 difference_p, 0, "portable difference modulo p");
    check_binary([](auto* r, auto* a, auto* b) { return primitives::vli_modSub_fast(r, a, b); }, o,
                 difference_p, 0, "difference modulo p");

    const mpz_class sum_n = ecc_model::mod_add(o.l, o.r, ecc_model::n);
    const mpz_class difference_n = ecc_model::mod_sub(o.l, o.r, ecc_model::n);
    check_binary([](auto* r, auto* a, auto* b) { return vli_modAdd(r, a, b, curve_n); }, o, sum_n,
                 0, "sum modulo n");
    check_binary([](auto* r, auto* a, auto* b) { return portable::vli_modSub(r, a, b, curve_n); },
                 o, difference_n, 0, "difference modulo n");
}

void check_products(const Operands& o)
{
    bool overflow_is_lost = false;
    const mpz_class product = ecc_model::product(o.l, o.r, &overflow_is_lost);
    demand(overflow_is_lost || product == o.l * o.r, "the model's product is the true one");
    const Product expected = to_digits<8>(product);
    Product result = {};
    portable::vli_mult(result.data(), o.left.data(), o.right.data());
    demand(result == expected, "portable product");
    primitives::vli_mult(result.data(), o.left.data(), o.right.data());
    demand(result == expected, "product");

    const mpz_class remainder = product % ecc_model::p;
    check_binary([](auto* r, auto* a, auto* b) { return portable::vli_modMult_fast(r, a, b); }, o,
                 remainder, 0, "portable product modulo p");
    check_binary([](auto* r, auto* a, auto* b) { return primitives::vli_modMult_fast(r, a, b); }, o,
                 remainder, 0, "product modulo p");
    check_binary([](auto* r, auto* a, auto* b) { return vli_modMult(r, a, b, curve_n); }, o,
                 product % ecc_model::n, 0, "product modulo n");
}

void check_squares(const Operands& o)
{
    bool overflow_is_lost = false;
    const mpz_class square = ecc_model::square(o.l, &overflow_is_lost);
    demand(overflow_is_lost || square == o.l * o.l, "the model's square is the true one");
    const Product expected = to_digits<8>(square);
    Product result = {};
    portable::vli_square(result.data(), o.left.data());
    demand(result == expected, "portable square");
    primitives::vli_square(result.data(), o.left.data());
    demand(result == expected, "square");

    const mpz_class remainder = square % ecc_model::p;
    Operands left_only = o;
    left_only.right = o.left;
    check_binary([](auto* r, auto* a, auto*) { return portable::vli_modSquare_fast(r, a); },
                 left_only, remainder, 0, "portable square modulo p");
    check_binary([](auto* r, auto* a, auto*) { return primitives::vli_modSquare_fast(r, a); },
                 left_only, remainder, 0, "square modulo p");
}

// Any 512 bits, which need be no product.
void check_reduction(const Product& product)
{
    const Digits expected = digits(integer(product) % ecc_model::p);
    Digits result = {};
    portable::vli_mmod_fast(result.data(), product.data());
    demand(result == expected, "portable reduction");
    primitives::vli_mmod_fast(result.data(), product.data());
    demand(result == expected, "reduction");
}

// The modulus itself is equal to its second number at once, and so has the "inverse" 1.
void check_inverse(const Digits& number, const uint64_t* modulus, const mpz_class& m)
{
    const mpz_class value = integer(number);
    const mpz_class expected = value == m ? mpz_class(1) : ecc_model::mod_inverse(value, m);
    Digits inverse = number;
    vli_modInv(inverse.data(), inverse.data(), modulus);
    demand(inverse == digits(expected), "inverse");
}

void check_bits(const Operands& o, unsigned shift)
{
    const Digits& l = o.left;
    const uint bits = o.l == 0 ? 0 : static_cast<uint>(mpz_sizeinbase(o.l.get_mpz_t(), 2));
    demand(vli_numBits(l.data()) == bits, "number of bits");
    demand(vli_numDigits(l.data()) == (bits + 63) / 64, "number of digits");
    demand((vli_isZero(l.data()) != 0) == (o.l == 0), "zero");
    const int order = cmp(o.l, o.r);
    demand(vli_cmp(l.data(), o.right.data()) == (order > 0) - (order < 0), "order");
    demand((vli_testBit(l.data(), shift) != 0) == (mpz_tstbit(o.l.get_mpz_t(), shift) != 0), "bit");

    const uint places = 1 + shift % 63;
    Digits shifted = l;
    const uint64_t out = vli_lshift(shifted.data(), shifted.data(), places);
    const mpz_class whole = o.l << places;
    demand(shifted == digits(whole) && out == digits(whole >> 256)[0], "shift to the left");
    shifted = l;
    vli_rshift1(shifted.data());
    demand(shifted == digits(o.l >> 1), "shift to the right");

    uint8_t big_endian[VLI_BYTES];
    Digits back = {};
    ecc_native2bytes(big_endian, l.data());
    demand(Bytes(big_endian, big_endian + VLI_BYTES) == bytes(o.l), "bytes of a number");
    ecc_bytes2native(back.data(), big_endian);
    demand(back == l, "number of bytes");
}

void check_square_root(const Operands& o)
{
    Digits root = o.left;
    mod_sqrt(root.data());
    demand(root == digits(ecc_model::mod_sqrt(o.l)), "square root");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool has_memory = use_gmp_blocks();
    demand(has_memory, "GMP has memory");
    Input input = {data, size};
    const Operands operands = take_operands(&input);
    check_sums(operands);
    check_products(operands);
    check_squares(operands);
    check_inverse(operands.left, curve_p, ecc_model::p);
    check_inverse(operands.left, curve_n, ecc_model::n);
    check_bits(operands, take_byte(&input));
    if (take_byte(&input) == 1) { // takes as long as a hundred of the others
        check_square_root(operands);
    }
    check_reduction(take_digits<Product>(&input));
    return 0;
}
