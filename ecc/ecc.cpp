// Elliptic-curve engine for the NIST curve P-256; see ecc.h for what it offers.
//
// Four layers, each built on the one above it: numbers of 256 bits, the field modulo the curve's
// prime, points, and the operations on keys, hashes and signatures. Arguments carry the prefix p_,
// locals l_, save where a formula's own letters say more.
//
// Nothing here runs in constant time.

#include "ecc.h"

#include <fcntl.h>
#include <string.h>
#include <unistd.h>

// Random bytes become a number's digits where they lie, so that the host's byte order shows.
#if !defined(__BYTE_ORDER__) || __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "the elliptic-curve engine needs a little-endian host"
#endif

// The compiler's own measure leaves some of the small operations as calls, which costs more than
// their work does.
#define ALWAYS_INLINE inline __attribute__((always_inline, unused))

// Copies of these in every point formula would double and triple the code and gain nothing.
#define NEVER_INLINE __attribute__((noinline, unused))

typedef unsigned int uint;
static_assert(sizeof(uint) == 4, "bit counts are 32-bit numbers");

// ---- Numbers ------------------------------------------------------------------------------------
//
// A number is 4 digits of 64 bits, least significant digit first; a product of two has 8 digits.
// Loops over digits are unrolled, since the curve's constants then end up inside the instructions.

constexpr uint VLI_DIGITS = 4;
constexpr uint VLI_BYTES = 32;
constexpr uint VLI_BITS = 256;
constexpr uint DIGIT_BITS = 64;

// FIPS 186-4, appendix D.1.2.3. The prime p = 2^256 - 2^224 + 2^192 + 2^96 - 1.
static constexpr uint64_t curve_p[VLI_DIGITS] = {0xFFFFFFFFFFFFFFFF, 0x00000000FFFFFFFF,
                                                 0x0000000000000000, 0xFFFFFFFF00000001};

// The order n of the base point.
static constexpr uint64_t curve_n[VLI_DIGITS] = {0xF3B9CAC2FC632551, 0xBCE6FAADA7179E84,
                                                 0xFFFFFFFFFFFFFFFF, 0xFFFFFFFF00000000};

static ALWAYS_INLINE void vli_clear(uint64_t* p_vli)
{
#pragma GCC unroll 4
    for (uint i = 0; i < VLI_DIGITS; ++i) {
        p_vli[i] = 0;
    }
}

static ALWAYS_INLINE int vli_isZero(const uint64_t* p_vli)
{
#pragma GCC unroll 4
    for (uint i = 0; i < VLI_DIGITS; ++i) {
        if (p_vli[i] != 0) {
            return 0;
        }
    }
    return 1;
}

// Returns the bit's weight within its digit, up to 2^63: test it for zero, an int does not hold it.
static ALWAYS_INLINE uint64_t vli_testBit(const uint64_t* p_vli, uint p_bit)
{
    return p_vli[p_bit / DIGIT_BITS] & (uint64_t{1} << (p_bit % DIGIT_BITS));
}

// The number of digits without leading zero digits; 0 for zero.
static ALWAYS_INLINE uint vli_numDigits(const uint64_t* p_vli)
{
    uint l_count = VLI_DIGITS;
    while (l_count > 0 && p_vli[l_count - 1] == 0) {
        --l_count;
    }
    return l_count;
}

// The number of bits without leading zero bits; 0 for zero.
static ALWAYS_INLINE uint vli_numBits(const uint64_t* p_vli)
{
    const uint l_numDigits = vli_numDigits(p_vli);
    if (l_numDigits == 0) {
        return 0;
    }
    uint l_bits = 0;
    for (uint64_t l_digit = p_vli[l_numDigits - 1]; l_digit != 0; l_digit >>= 1) {
        ++l_bits;
    }
    return (l_numDigits - 1) * DIGIT_BITS + l_bits;
}

static ALWAYS_INLINE void vli_set(uint64_t* p_dest, const uint64_t* p_src)
{
#pragma GCC unroll 4
    for (uint i = 0; i < VLI_DIGITS; ++i) {
        p_dest[i] = p_src[i];
    }
}

// Returns 1, -1 or 0 as p_left is greater than, less than or equal to p_right.
static ALWAYS_INLINE int vli_cmp(const uint64_t* p_left, const uint64_t* p_right)
{
#pragma GCC unroll 4
    for (uint i = VLI_DIGITS; i-- > 0;) {
        if (p_left[i] > p_right[i]) {
            return 1;
        }
        if (p_left[i] < p_right[i]) {
            return -1;
        }
    }
    return 0;
}

// Shifts left by 1 to 63 bits; returns the bits shifted out. The result may be the input.
static ALWAYS_INLINE uint64_t vli_lshift(uint64_t* p_result, const uint64_t* p_in, uint p_shift)
{
    uint64_t l_carry = 0;
#pragma GCC unroll 4
    for (uint i = 0; i < VLI_DIGITS; ++i) {
        const uint64_t l_digit = p_in[i];
        p_result[i] = (l_digit << p_shift) | l_carry;
        l_carry = l_digit >> (DIGIT_BITS - p_shift);
    }
    return l_carry;
}

// Shifts right by one bit in place; the lowest bit is lost.
static ALWAYS_INLINE void vli_rshift1(uint64_t* p_vli)
{
    uint64_t l_carry = 0;
#pragma GCC unroll 4
    for (uint i = VLI_DIGITS; i-- > 0;) {
        const uint64_t l_digit = p_vli[i];
        p_vli[i] = (l_digit >> 1) | l_carry;
        l_carry = l_digit << (DIGIT_BITS - 1);
    }
}

// A 128-bit intermediate by hand: the processor aimed at multiplies 32 by 32 bits at most.
struct uint128_t {
    uint64_t m_low;
    uint64_t m_high;
};

namespace portable {

// Returns the carry. The result may be either operand.
static ALWAYS_INLINE uint64_t vli_add(uint64_t* p_result, const uint64_t* p_left,
                                      const uint64_t* p_right)
{
    uint64_t l_carry = 0;
#pragma GCC unroll 4
    for (uint i = 0; i < VLI_DIGITS; ++i) {
        const uint64_t l_sum = p_left[i] + p_right[i] + l_carry;
        // A sum equal to the left digit came from adding 0, or 2^64 - 1 and a carry: it hands on
        // the carry that came in.
        if (l_sum != p_left[i]) {
            l_carry = l_sum < p_left[i];
        }
        p_result[i] = l_sum;
    }
    return l_carry;
}

// Returns the borrow. The result may be either operand.
static ALWAYS_INLINE uint64_t vli_sub(uint64_t* p_result, const uint64_t* p_left,
                                      const uint64_t* p_right)
{
    uint64_t l_borrow = 0;
#pragma GCC unroll 4
    for (uint i = 0; i < VLI_DIGITS; ++i) {
        const uint64_t l_diff = p_left[i] - p_right[i] - l_borrow;
        if (l_diff != p_left[i]) { // as in vli_add
            l_borrow = l_diff > p_left[i];
        }
        p_result[i] = l_diff;
    }
    return l_borrow;
}

static ALWAYS_INLINE uint128_t mul_64_64(uint64_t p_left, uint64_t p_right)
{
    const uint64_t a0 = p_left & 0xFFFFFFFF;
    const uint64_t a1 = p_left >> 32;
    const uint64_t b0 = p_right & 0xFFFFFFFF;
    const uint64_t b1 = p_right >> 32;

    const uint64_t m0 = a0 * b0;
    const uint64_t m1 = a0 * b1;
    uint64_t m2 = a1 * b0;
    uint64_t m3 = a1 * b1;

    m2 += m0 >> 32;
    m2 += m1;
    if (m2 < m1) { // only this addition can overflow
        m3 += uint64_t{1} << 32;
    }
    return {(m0 & 0xFFFFFFFF) | (m2 << 32), m3 + (m2 >> 32)};
}

// The sum modulo 2^128.
static ALWAYS_INLINE uint128_t add_128_128(uint128_t a, uint128_t b)
{
    const uint64_t l_low = a.m_low + b.m_low;
    return {l_low, a.m_high + b.m_high + (l_low < a.m_low)};
}

// The running sum of a product's columns: three digits.
struct ColumnSum {
    uint128_t r01;
    uint64_t r2;
};

// Adds a partial product. The overflow test looks at the high halves only, and stays so: when the
// sum's high half is all ones and a carry comes in from below, the new high half equals the
// product's, and the overflow is not counted. The product then has another digit than the true
// one. Random operands meet that less than once in 2^60 products, and the values of this engine
// are defined by this form.
static ALWAYS_INLINE void column_add(ColumnSum* p_sum, uint128_t p_product)
{
    p_sum->r01 = add_128_128(p_sum->r01, p_product);
    p_sum->r2 += p_sum->r01.m_high < p_product.m_high;
}

// Takes a finished column's digit off the sum.
static ALWAYS_INLINE uint64_t column_next(ColumnSum* p_sum)
{
    const uint64_t l_digit = p_sum->r01.m_low;
    p_sum->r01 = {p_sum->r01.m_high, p_sum->r2};
    p_sum->r2 = 0;
    return l_digit;
}

// The digits of the left operand that have a partner in column p_column: first and last.
static ALWAYS_INLINE uint column_first(uint p_column)
{
    return p_column < VLI_DIGITS ? 0 : p_column - (VLI_DIGITS - 1);
}

static ALWAYS_INLINE uint column_last(uint p_column)
{
    return p_column < VLI_DIGITS ? p_column : VLI_DIGITS - 1;
}

// The 8-digit product, column by column. The result must not overlap an operand.
static ALWAYS_INLINE void vli_mult(uint64_t* p_result, const uint64_t* p_left,
                                   const uint64_t* p_right)
{
    ColumnSum l_sum = {{0, 0}, 0};
#pragma GCC unroll 8
    for (uint k = 0; k < 2 * VLI_DIGITS - 1; ++k) {
        const uint l_min = column_first(k);
        const uint l_max = column_last(k);
#pragma GCC unroll 4
        for (uint i = l_min; i <= l_max; ++i) {
            column_add(&l_sum, mul_64_64(p_left[i], p_right[k - i]));
        }
        p_result[k] = column_next(&l_sum);
    }
    p_result[2 * VLI_DIGITS - 1] = l_sum.r01.m_low;
}

// Doubles a partial product within the sum's three digits: the bit that leaves it goes to r2.
static ALWAYS_INLINE uint128_t column_double(ColumnSum* p_sum, uint128_t p_product)
{
    p_sum->r2 += p_product.m_high >> 63;
    return {p_product.m_low << 1, (p_product.m_high << 1) | (p_product.m_low >> 63)};
}

// The 8-digit square: as vli_mult, but the products off the diagonal, which come in equal pairs,
// are computed once and doubled. The result must not overlap the operand.
static ALWAYS_INLINE void vli_square(uint64_t* p_result, const uint64_t* p_left)
{
    ColumnSum l_sum = {{0, 0}, 0};
#pragma GCC unroll 8
    for (uint k = 0; k < 2 * VLI_DIGITS - 1; ++k) {
        const uint l_min = column_first(k);
#pragma GCC unroll 4
        for (uint i = l_min; 2 * i <= k; ++i) {
            uint128_t l_product = mul_64_64(p_left[i], p_left[k - i]);
            if (2 * i < k) {
                l_product = column_double(&l_sum, l_product);
            }
            column_add(&l_sum, l_product);
        }
        p_result[k] = column_next(&l_sum);
    }
    p_result[2 * VLI_DIGITS - 1] = l_sum.r01.m_low;
}

// Operands below the modulus; the result may be either of them.
static ALWAYS_INLINE void vli_modAdd(uint64_t* p_result, const uint64_t* p_left,
                                     const uint64_t* p_right, const uint64_t* p_mod)
{
    const uint64_t l_carry = vli_add(p_result, p_left, p_right);
    if (l_carry != 0 || vli_cmp(p_result, p_mod) >= 0) {
        vli_sub(p_result, p_result, p_mod);
    }
}

// Operands below the modulus; the result may be either of them.
static ALWAYS_INLINE void vli_modSub(uint64_t* p_result, const uint64_t* p_left,
                                     const uint64_t* p_right, const uint64_t* p_mod)
{
    const uint64_t l_borrow = vli_sub(p_result, p_left, p_right);
    if (l_borrow != 0) {
        vli_add(p_result, p_result, p_mod);
    }
}

// The fast reduction modulo curve_p is that of FIPS 186-4, appendix D.2.3: with the
// product's sixteen 32-bit words c0 to c15, its remainder is congruent to
// t + 2 s1 + 2 s2 + s3 + s4 - d1 - d2 - d3 - d4, where t = (c0 ... c7) and the others are these.

constexpr uint VLI_WORDS = 8;
constexpr uint NONE = 16; // no word of the product: 0

// Which word of the product stands at each word of the term, least significant first.
typedef uint ReductionTerm[VLI_WORDS];
static constexpr ReductionTerm s1 = {NONE, NONE, NONE, 11, 12, 13, 14, 15};
static constexpr ReductionTerm s2 = {NONE, NONE, NONE, 12, 13, 14, 15, NONE};
static constexpr ReductionTerm s3 = {8, 9, 10, NONE, NONE, NONE, 14, 15};
static constexpr ReductionTerm s4 = {9, 10, 11, 13, 14, 15, 13, 8};
static constexpr ReductionTerm d1 = {11, 12, 13, NONE, NONE, NONE, 8, 10};
static constexpr ReductionTerm d2 = {12, 13, 14, 15, NONE, NONE, 9, 11};
static constexpr ReductionTerm d3 = {13, 14, 15, 8, 9, 10, NONE, 12};
static constexpr ReductionTerm d4 = {14, 15, NONE, 9, 10, 11, NONE, 13};

static ALWAYS_INLINE uint64_t product_word(const uint64_t* p_product, uint p_index)
{
    return p_index == NONE ? 0 : (p_product[p_index / 2] >> (32 * (p_index % 2))) & 0xFFFFFFFF;
}

static ALWAYS_INLINE void set_term(uint64_t* p_term, const uint64_t* p_product,
                                   const ReductionTerm& p_words)
{
#pragma GCC unroll 4
    for (size_t i = 0; i < VLI_DIGITS; ++i) {
        p_term[i] = product_word(p_product, p_words[2 * i]) |
                    (product_word(p_product, p_words[2 * i + 1]) << 32);
    }
}

// The functions for one term return what it changes in the counter of whole 2^256.
static ALWAYS_INLINE int add_term(uint64_t* p_result, const uint64_t* p_product,
                                  const ReductionTerm& p_words)
{
    uint64_t l_tmp[VLI_DIGITS];
    set_term(l_tmp, p_product, p_words);
    return static_cast<int>(vli_add(p_result, p_result, l_tmp));
}

static ALWAYS_INLINE int add_term_twice(uint64_t* p_result, const uint64_t* p_product,
                                        const ReductionTerm& p_words)
{
    uint64_t l_tmp[VLI_DIGITS];
    set_term(l_tmp, p_product, p_words);
    const int l_carry = static_cast<int>(vli_lshift(l_tmp, l_tmp, 1));
    return l_carry + static_cast<int>(vli_add(p_result, p_result, l_tmp));
}

static ALWAYS_INLINE int subtract_term(uint64_t* p_result, const uint64_t* p_product,
                                       const ReductionTerm& p_words)
{
    uint64_t l_tmp[VLI_DIGITS];
    set_term(l_tmp, p_product, p_words);
    return -static_cast<int>(vli_sub(p_result, p_result, l_tmp));
}

// Brings p_result + p_carry * 2^256 below curve_p. The counter is signed.
static ALWAYS_INLINE void correct(uint64_t* p_result, int p_carry)
{
    if (p_carry < 0) {
        do {
            p_carry += static_cast<int>(vli_add(p_result, p_result, curve_p));
        } while (p_carry < 0);
    } else {
        while (p_carry != 0 || vli_cmp(curve_p, p_result) != 1) {
            p_carry -= static_cast<int>(vli_sub(p_result, p_result, curve_p));
        }
    }
}

// The remainder of any 8-digit product modulo curve_p.
static ALWAYS_INLINE void vli_mmod_fast(uint64_t* p_result, const uint64_t* p_product)
{
    vli_set(p_result, p_product); // t
    int l_carry = add_term_twice(p_result, p_product, s1);
    l_carry += add_term_twice(p_result, p_product, s2);
    l_carry += add_term(p_result, p_product, s3);
    l_carry += add_term(p_result, p_product, s4);
    l_carry += subtract_term(p_result, p_product, d1);
    l_carry += subtract_term(p_result, p_product, d2);
    l_carry += subtract_term(p_result, p_product, d3);
    l_carry += subtract_term(p_result, p_product, d4);
    correct(p_result, l_carry);
}

// The result may be either operand.
static NEVER_INLINE void vli_modMult_fast(uint64_t* p_result, const uint64_t* p_left,
                                          const uint64_t* p_right)
{
    uint64_t l_product[2 * VLI_DIGITS];
    vli_mult(l_product, p_left, p_right);
    vli_mmod_fast(p_result, l_product);
}

// The result may be the operand.
static NEVER_INLINE void vli_modSquare_fast(uint64_t* p_result, const uint64_t* p_left)
{
    uint64_t l_product[2 * VLI_DIGITS];
    vli_square(l_product, p_left);
    vli_mmod_fast(p_result, l_product);
}

// Modulo curve_p.
static ALWAYS_INLINE void vli_modAdd_fast(uint64_t* p_result, const uint64_t* p_left,
                                          const uint64_t* p_right)
{
    vli_modAdd(p_result, p_left, p_right, curve_p);
}

static ALWAYS_INLINE void vli_modSub_fast(uint64_t* p_result, const uint64_t* p_left,
                                          const uint64_t* p_right)
{
    vli_modSub(p_result, p_left, p_right, curve_p);
}

} // namespace portable

#include "ecc_tuned.h"

// Halves modulo an odd modulus: an odd number becomes even by adding the modulus first.
static ALWAYS_INLINE void vli_modHalve(uint64_t* p_vli, const uint64_t* p_mod)
{
    uint64_t l_carry = 0;
    if (vli_testBit(p_vli, 0) != 0) {
        l_carry = vli_add(p_vli, p_vli, p_mod);
    }
    vli_rshift1(p_vli);
    p_vli[VLI_DIGITS - 1] |= l_carry << (DIGIT_BITS - 1); // the sum's 257th bit
}

// A number between n and 2n becomes one below n. A number equal to n becomes 0.
static ALWAYS_INLINE void vli_subtractOrderOnce(uint64_t* p_vli)
{
    if (vli_cmp(p_vli, curve_n) >= 0) {
        vli_sub(p_vli, p_vli, curve_n);
    }
}

// One subtraction of the Euclidean algorithm below, for p_greater > p_less, both odd:
// p_greater := (p_greater - p_less) / 2, and the same modulo p_mod for their coefficients.
static ALWAYS_INLINE void euclid_step(uint64_t* p_greater, const uint64_t* p_less, uint64_t* p_u,
                                      const uint64_t* p_v, const uint64_t* p_mod)
{
    vli_sub(p_greater, p_greater, p_less);
    vli_rshift1(p_greater);
    if (vli_cmp(p_u, p_v) < 0) {
        vli_add(p_u, p_u, p_mod);
    }
    vli_sub(p_u, p_u, p_v);
    vli_modHalve(p_u, p_mod);
}

// The inverse modulo an odd modulus, 0 for 0, by the binary extended Euclidean algorithm: a and b
// shrink to their common divisor while a = u * input and b = v * input hold modulo p_mod. The
// result may be the input, but not the modulus.
static NEVER_INLINE void vli_modInv(uint64_t* p_result, const uint64_t* p_input,
                                    const uint64_t* p_mod)
{
    if (vli_isZero(p_input)) {
        vli_clear(p_result);
        return;
    }

    uint64_t a[VLI_DIGITS];
    uint64_t b[VLI_DIGITS];
    uint64_t u[VLI_DIGITS] = {1};
    uint64_t v[VLI_DIGITS] = {0};
    vli_set(a, p_input);
    vli_set(b, p_mod);

    int l_cmpResult;
    while ((l_cmpResult = vli_cmp(a, b)) != 0) {
        if (vli_testBit(a, 0) == 0) {
            vli_rshift1(a);
            vli_modHalve(u, p_mod);
        } else if (vli_testBit(b, 0) == 0) {
            vli_rshift1(b);
            vli_modHalve(v, p_mod);
        } else if (l_cmpResult > 0) {
            euclid_step(a, b, u, v, p_mod);
        } else {
            euclid_step(b, a, v, u, p_mod);
        }
    }
    vli_set(p_result, u);

    // The input may be a nonce, and the coefficients lead back to it.
    explicit_bzero(u, sizeof(u));
    explicit_bzero(v, sizeof(v));
}

// Places the modulus within 8 zero digits, shifted left by p_shift bits.
static ALWAYS_INLINE void vli_align(uint64_t* p_multiple, const uint64_t* p_mod, uint p_shift)
{
    const uint l_digitShift = p_shift / DIGIT_BITS;
    const uint l_bitShift = p_shift % DIGIT_BITS;
    if (l_bitShift != 0) {
        p_multiple[l_digitShift + VLI_DIGITS] =
            vli_lshift(p_multiple + l_digitShift, p_mod, l_bitShift);
    } else {
        vli_set(p_multiple + l_digitShift, p_mod);
    }
}

// Subtracts an 8-digit multiple from an 8-digit product, unless it exceeds it.
static ALWAYS_INLINE void vli_subtractMultiple(uint64_t* p_product, const uint64_t* p_multiple)
{
    static constexpr uint64_t l_one[VLI_DIGITS] = {1};
    uint64_t* l_productHigh = p_product + VLI_DIGITS;
    const uint64_t* l_multipleHigh = p_multiple + VLI_DIGITS;

    const int l_cmp = vli_cmp(l_multipleHigh, l_productHigh);
    if (l_cmp < 0 || (l_cmp == 0 && vli_cmp(p_multiple, p_product) <= 0)) {
        if (vli_sub(p_product, p_product, p_multiple) != 0) {
            vli_sub(l_productHigh, l_productHigh, l_one);
        }
        vli_sub(l_productHigh, l_productHigh, l_multipleHigh);
    }
}

// Shifts 8 digits right by one bit in place.
static ALWAYS_INLINE void vli_rshift1Double(uint64_t* p_double)
{
    const uint64_t l_carry = p_double[VLI_DIGITS] << (DIGIT_BITS - 1);
    vli_rshift1(p_double + VLI_DIGITS);
    vli_rshift1(p_double);
    p_double[VLI_DIGITS - 1] |= l_carry;
}

// The product modulo any modulus, by shifting and subtracting: slow, and used modulo the order
// only. The modulus starts with its top bit below the product's and moves down bit by bit.
static NEVER_INLINE void vli_modMult(uint64_t* p_result, const uint64_t* p_left,
                                     const uint64_t* p_right, const uint64_t* p_mod)
{
    uint64_t l_product[2 * VLI_DIGITS];
    vli_mult(l_product, p_left, p_right);

    const uint l_modBits = vli_numBits(p_mod);
    uint l_productBits = vli_numBits(l_product + VLI_DIGITS);
    l_productBits = l_productBits != 0 ? l_productBits + VLI_BITS : vli_numBits(l_product);

    if (l_productBits >= l_modBits) {
        uint64_t l_modMultiple[2 * VLI_DIGITS] = {0};
        vli_align(l_modMultiple, p_mod, l_productBits - l_modBits);
        while (l_productBits > VLI_BITS || vli_cmp(l_modMultiple, p_mod) >= 0) {
            vli_subtractMultiple(l_product, l_modMultiple);
            vli_rshift1Double(l_modMultiple);
            --l_productBits;
        }
    }
    vli_set(p_result, l_product);
    explicit_bzero(l_product, sizeof(l_product)); // of a private key or a nonce
}

static ALWAYS_INLINE uint umax(uint a, uint b)
{
    return a > b ? a : b;
}

// From 32 big-endian bytes.
static void ecc_bytes2native(uint64_t* p_native, const uint8_t* p_bytes)
{
    for (size_t i = 0; i < VLI_DIGITS; ++i) {
        const uint8_t* l_bytes = p_bytes + 8 * (VLI_DIGITS - 1 - i);
        uint64_t l_digit = 0;
        for (uint j = 0; j < 8; ++j) {
            l_digit = (l_digit << 8) | l_bytes[j];
        }
        p_native[i] = l_digit;
    }
}

// To 32 big-endian bytes.
static void ecc_native2bytes(uint8_t* p_bytes, const uint64_t* p_native)
{
    for (size_t i = 0; i < VLI_DIGITS; ++i) {
        uint8_t* l_bytes = p_bytes + 8 * (VLI_DIGITS - 1 - i);
        for (uint j = 0; j < 8; ++j) {
            l_bytes[j] = static_cast<uint8_t>(p_native[i] >> (56 - 8 * j));
        }
    }
}

// Fills a number with random bytes; returns 1 for success, 0 for failure. The device is opened for
// this call only: nothing stays behind that a fork or a descriptor closed by others could break.
static int getRandomNumber(uint64_t* p_vli)
{
    int l_fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (l_fd == -1) {
        l_fd = open("/dev/random", O_RDONLY | O_CLOEXEC);
        if (l_fd == -1) {
            return 0;
        }
    }

    char* l_position = reinterpret_cast<char*>(p_vli);
    size_t l_left = VLI_BYTES;
    while (l_left > 0) {
        const ssize_t l_read = read(l_fd, l_position, l_left);
        if (l_read <= 0) { // an interruption (EINTR) included: no second attempt
            close(l_fd);
            return 0;
        }
        l_position += l_read;
        l_left -= static_cast<size_t>(l_read);
    }
    close(l_fd);
    return 1;
}

// ---- Field --------------------------------------------------------------------------------------
//
// Arithmetic modulo curve_p.

// The square root a^((p + 1) / 4), p being 3 modulo 4 (SEC 1, section 2.3.4). Of a number that is
// no square it is a root of p - a.
static void mod_sqrt(uint64_t* a)
{
    uint64_t p1[VLI_DIGITS] = {1};
    uint64_t l_result[VLI_DIGITS] = {1};
    vli_add(p1, curve_p, p1);
    for (uint i = vli_numBits(p1) - 1; i > 1; --i) { // the last two bits: divided by 4
        vli_modSquare_fast(l_result, l_result);
        if (vli_testBit(p1, i) != 0) {
            vli_modMult_fast(l_result, l_result, a);
        }
    }
    vli_set(a, l_result);
}

// ---- Points -------------------------------------------------------------------------------------
//
// The curve is y^2 = x^3 - 3x + b. In Jacobian coordinates (X, Y, Z) stand for the affine point
// x = X / Z^2, y = Y / Z^3, and Z = 0 is the point at infinity. Two points are co-Z when they have
// the same Z; adding such points is cheap, and their Z need not be known (Meloni 2007).

struct EccPoint {
    uint64_t x[VLI_DIGITS];
    uint64_t y[VLI_DIGITS];
};

// FIPS 186-4, appendix D.1.2.3.
static constexpr uint64_t curve_b[VLI_DIGITS] = {0x3BCE3C3E27D2604B, 0x651D06B0CC53B0F6,
                                                 0xB3EBBD55769886BC, 0x5AC635D8AA3A93E7};
static constexpr EccPoint curve_G = {
    {0xF4A13945D898C296, 0x77037D812DEB33A0, 0xF8BCE6E563A440F2, 0x6B17D1F2E12C4247},
    {0xCBB6406837BF51F5, 0x2BCE33576B315ECE, 0x8EE7EB4A7C0F9E16, 0x4FE342E2FE1A7F9B}};

// The point at infinity is written as x = y = 0, which is not on the curve.
static inline int EccPoint_isZero(const EccPoint* p_point)
{
    return vli_isZero(p_point->x) && vli_isZero(p_point->y);
}

// (X1, Y1, Z1) := 2 (X1, Y1, Z1), by the formula for the coefficient a = -3. With A = x y^2 and
// B = 3/2 (x^2 - z^4): x' = B^2 - 2A, y' = B (A - x') - y^4, z' = y z.
static inline void EccPoint_double_jacobian(uint64_t* X1, uint64_t* Y1, uint64_t* Z1)
{
    if (vli_isZero(Z1)) {
        return;
    }

    uint64_t t4[VLI_DIGITS];
    uint64_t t5[VLI_DIGITS];

    vli_modSquare_fast(t4, Y1);   // y^2
    vli_modMult_fast(t5, X1, t4); // A = x y^2
    vli_modSquare_fast(t4, t4);   // y^4
    vli_modMult_fast(Y1, Y1, Z1); // z' = y z
    vli_modSquare_fast(Z1, Z1);   // z^2
    vli_modAdd_fast(X1, X1, Z1);  // x + z^2
    vli_modAdd_fast(Z1, Z1, Z1);  // 2 z^2
    vli_modSub_fast(Z1, X1, Z1);  // x - z^2
    vli_modMult_fast(X1, X1, Z1); // x^2 - z^4
    vli_modAdd_fast(Z1, X1, X1);
    vli_modAdd_fast(X1, X1, Z1); // 3 (x^2 - z^4)
    vli_modHalve(X1, curve_p);   // B
    vli_modSquare_fast(Z1, X1);
    vli_modSub_fast(Z1, Z1, t5);
    vli_modSub_fast(Z1, Z1, t5); // x' = B^2 - 2A
    vli_modSub_fast(t5, t5, Z1); // A - x'
    vli_modMult_fast(X1, X1, t5);
    vli_modSub_fast(t4, X1, t4); // y' = B (A - x') - y^4

    vli_set(X1, Z1);
    vli_set(Z1, Y1);
    vli_set(Y1, t4);
}

// (X1, Y1) := (X1 Z^2, Y1 Z^3): from affine to this Z or, with 1/Z, back.
static inline void apply_z(uint64_t* X1, uint64_t* Y1, const uint64_t* Z)
{
    uint64_t t1[VLI_DIGITS];
    vli_modSquare_fast(t1, Z);
    vli_modMult_fast(X1, X1, t1);
    vli_modMult_fast(t1, t1, Z);
    vli_modMult_fast(Y1, Y1, t1);
}

// From P = (X1, Y1): (X1, Y1) := 2P and (X2, Y2) := P with the same Z. P starts with the given Z,
// or with Z = 1 if that is null.
static inline void XYcZ_initial_double(uint64_t* X1, uint64_t* Y1, uint64_t* X2, uint64_t* Y2,
                                       const uint64_t* p_initialZ)
{
    uint64_t z[VLI_DIGITS] = {1};
    vli_set(X2, X1);
    vli_set(Y2, Y1);
    if (p_initialZ != nullptr) {
        vli_set(z, p_initialZ);
    }
    apply_z(X1, Y1, z);
    EccPoint_double_jacobian(X1, Y1, z);
    apply_z(X2, Y2, z);
}

// From co-Z P = (X1, Y1) and Q = (X2, Y2): (X2, Y2) := P + Q, and (X1, Y1) := P with the sum's Z,
// which is the old one times X2 - X1 (Meloni 2007). Points with equal X are not treated apart:
// they end at Z = 0. With A = (X2 - X1)^2, B = X1 A, K = X2 A, D = (Y2 - Y1)^2:
// X3 = D - B - K, Y3 = (Y2 - Y1) (B - X3) - Y1 (K - B).
static void XYcZ_add(uint64_t* X1, uint64_t* Y1, uint64_t* X2, uint64_t* Y2)
{
    uint64_t t5[VLI_DIGITS];

    vli_modSub_fast(t5, X2, X1);
    vli_modSquare_fast(t5, t5);   // A
    vli_modMult_fast(X1, X1, t5); // B
    vli_modMult_fast(X2, X2, t5); // K
    vli_modSub_fast(Y2, Y2, Y1);  // Y2 - Y1
    vli_modSquare_fast(t5, Y2);   // D
    vli_modSub_fast(t5, t5, X1);
    vli_modSub_fast(t5, t5, X2);  // X3 = D - B - K
    vli_modSub_fast(X2, X2, X1);  // K - B
    vli_modMult_fast(Y1, Y1, X2); // Y1 (K - B)
    vli_modSub_fast(X2, X1, t5);  // B - X3
    vli_modMult_fast(Y2, Y2, X2);
    vli_modSub_fast(Y2, Y2, Y1); // Y3
    vli_set(X2, t5);
}

// The conjugate addition. From co-Z P = (X1, Y1) and Q = (X2, Y2): (X1, Y1) := P - Q and
// (X2, Y2) := P + Q with one Z (Goundar et al. 2011). As in XYcZ_add; P - Q differs in
// F = (Y2 + Y1)^2: X3' = F - B - K, Y3' = (Y2 + Y1) (X3' - B) - Y1 (K - B).
static void XYcZ_addC(uint64_t* X1, uint64_t* Y1, uint64_t* X2, uint64_t* Y2)
{
    uint64_t t5[VLI_DIGITS];
    uint64_t t6[VLI_DIGITS];
    uint64_t t7[VLI_DIGITS];

    vli_modSub_fast(t5, X2, X1);
    vli_modSquare_fast(t5, t5);   // A
    vli_modMult_fast(X1, X1, t5); // B
    vli_modMult_fast(X2, X2, t5); // K
    vli_modAdd_fast(t5, Y2, Y1);  // Y2 + Y1
    vli_modSub_fast(Y2, Y2, Y1);  // Y2 - Y1
    vli_modSub_fast(t6, X2, X1);  // K - B
    vli_modMult_fast(Y1, Y1, t6); // Y1 (K - B)
    vli_modAdd_fast(t6, X1, X2);  // B + K
    vli_modSquare_fast(X2, Y2);   // D
    vli_modSub_fast(X2, X2, t6);  // X3 = D - B - K

    vli_modSub_fast(t7, X1, X2); // B - X3
    vli_modMult_fast(Y2, Y2, t7);
    vli_modSub_fast(Y2, Y2, Y1); // Y3

    vli_modSquare_fast(t7, t5);  // F
    vli_modSub_fast(t7, t7, t6); // X3' = F - B - K
    vli_modSub_fast(t6, t7, X1); // X3' - B
    vli_modMult_fast(t6, t6, t5);
    vli_modSub_fast(Y1, t6, Y1); // Y3'
    vli_set(X1, t7);
}

// The 1/Z that the points will have after the ladder's last addition. At this point, after the last
// conjugate addition, register 1 - nb holds P itself up to its sign, which compared with the
// affine p_point gives the present 1/Z = (X y) / (Y x); the addition to come multiplies Z by
// R1.X - R0.X. Where a factor is 0 there is no such Z, and the inverse of 0 leaves z = 0.
static inline void ladder_inverse_z(uint64_t* z, uint64_t (*Rx)[VLI_DIGITS],
                                    uint64_t (*Ry)[VLI_DIGITS], uint nb, const EccPoint* p_point)
{
    vli_modSub_fast(z, Rx[1], Rx[0]);
    vli_modMult_fast(z, z, Ry[1 - nb]);
    vli_modMult_fast(z, z, p_point->x);
    vli_modInv(z, z, curve_p);
    vli_modMult_fast(z, z, p_point->y);
    vli_modMult_fast(z, z, Rx[1 - nb]);
}

// p_result := p_scalar * p_point: the co-Z Montgomery ladder with (X, Y) coordinates only (Rivain
// 2011, section 4). Between steps the registers R0 and R1 hold kP and (k + 1)P for the scalar's
// leading bits k. p_initialZ, or null for 1, is the Z to start from: it does not show in the
// result, but every intermediate value depends on it.
//
// The initial doubling stands for the top bit, and a scalar without a second bit gets what the
// steps below make of it, not a case of its own: 0 gives 2P and 1 gives 3P. The scalars n - 1 and n
// give the point at infinity, since nP in either register takes the common Z to 0; so does every
// scalar for a point with x = 0, from which no Z can be had.
static inline void EccPoint_mult(EccPoint* p_result, const EccPoint* p_point,
                                 const uint64_t* p_scalar, const uint64_t* p_initialZ)
{
    uint64_t Rx[2][VLI_DIGITS];
    uint64_t Ry[2][VLI_DIGITS];
    uint64_t z[VLI_DIGITS];
    uint nb;

    vli_set(Rx[1], p_point->x);
    vli_set(Ry[1], p_point->y);
    XYcZ_initial_double(Rx[1], Ry[1], Rx[0], Ry[0], p_initialZ);

    // Signed: it starts below zero for the scalars 0 and 1.
    for (int i = static_cast<int>(vli_numBits(p_scalar)) - 2; i > 0; --i) {
        nb = vli_testBit(p_scalar, static_cast<uint>(i)) == 0;
        XYcZ_addC(Rx[1 - nb], Ry[1 - nb], Rx[nb], Ry[nb]);
        XYcZ_add(Rx[nb], Ry[nb], Rx[1 - nb], Ry[1 - nb]);
    }

    nb = vli_testBit(p_scalar, 0) == 0;
    XYcZ_addC(Rx[1 - nb], Ry[1 - nb], Rx[nb], Ry[nb]);
    ladder_inverse_z(z, Rx, Ry, nb, p_point);
    XYcZ_add(Rx[nb], Ry[nb], Rx[1 - nb], Ry[1 - nb]);
    apply_z(Rx[0], Ry[0], z);

    vli_set(p_result->x, Rx[0]);
    vli_set(p_result->y, Ry[0]);

    // The registers and their Z give away the scalar's last bits.
    explicit_bzero(Rx, sizeof(Rx));
    explicit_bzero(Ry, sizeof(Ry));
    explicit_bzero(z, sizeof(z));
}

// Makes p_y the square root whose parity is the lowest bit of p_prefix. The root 0 turned odd is
// curve_p itself and stays so; no x of this curve, whose order is odd, has that root.
static ALWAYS_INLINE void ecc_choose_root(uint64_t* p_y, uint8_t p_prefix)
{
    if (((p_y[0] ^ p_prefix) & 1) != 0) {
        vli_sub(p_y, curve_p, p_y);
    }
}

// Reads a point from either of its byte forms (SEC 1, section 2.3.4), told apart by the first byte
// alone: 4 is the uncompressed form, in anything else the lowest bit is the parity of y. The point
// is not validated.
static void ecc_point_decompress(EccPoint* p_point, const uint8_t* p_compressed)
{
    const uint64_t _3[VLI_DIGITS] = {3};

    ecc_bytes2native(p_point->x, p_compressed + 1);
    if (p_compressed[0] == 4) {
        ecc_bytes2native(p_point->y, p_compressed + 1 + VLI_BYTES);
        return;
    }

    vli_modSquare_fast(p_point->y, p_point->x);
    vli_modSub_fast(p_point->y, p_point->y, _3);
    vli_modMult_fast(p_point->y, p_point->y, p_point->x);
    vli_modAdd_fast(p_point->y, p_point->y, curve_b); // x^3 - 3x + b
    mod_sqrt(p_point->y);
    ecc_choose_root(p_point->y, p_compressed[0]);
}

// ---- Operations ---------------------------------------------------------------------------------

constexpr uint MAX_TRIES = 16;

// Draws the next candidate for a private key or a nonce, below n, zeros being passed over. Returns
// 0 when the random source fails or the candidates are used up: the draw after the last try is
// made and thrown away. A random number equal to n becomes 0 here, and is used.
static int draw_scalar(uint64_t* p_scalar, uint* p_tries)
{
    do {
        if (!getRandomNumber(p_scalar)) {
            return 0;
        }
        if ((*p_tries)-- == 1) {
            return 0;
        }
    } while (vli_isZero(p_scalar));
    vli_subtractOrderOnce(p_scalar);
    return 1;
}

// FIPS 186-4, appendix B.4: d random, Q = dG.
int ecc_make_key(uint8_t* p_publicKey, uint8_t* p_privateKey)
{
    uint64_t l_private[VLI_DIGITS];
    EccPoint l_public;
    uint l_tries = MAX_TRIES + 1;
    int l_made = 0;

    while (!l_made && draw_scalar(l_private, &l_tries)) {
        EccPoint_mult(&l_public, &curve_G, l_private, nullptr);
        l_made = !EccPoint_isZero(&l_public);
    }
    if (l_made) {
        ecc_native2bytes(p_privateKey, l_private);
        ecc_native2bytes(p_publicKey + 1, l_public.x);
        p_publicKey[0] = static_cast<uint8_t>(2 + (l_public.y[0] & 1));
    }
    explicit_bzero(l_private, sizeof(l_private));
    return l_made;
}

// SEC 1, section 3.3.1, without the validation of the public key.
int ecdh_shared_secret(const uint8_t* p_publicKey, const uint8_t* p_privateKey, uint8_t* p_secret)
{
    uint64_t l_random[VLI_DIGITS];
    if (!getRandomNumber(l_random)) {
        return 0;
    }

    EccPoint l_public;
    uint64_t l_private[VLI_DIGITS];
    ecc_point_decompress(&l_public, p_publicKey);
    ecc_bytes2native(l_private, p_privateKey);

    EccPoint l_product;
    EccPoint_mult(&l_product, &l_public, l_private, l_random);
    ecc_native2bytes(p_secret, l_product.x); // the point at infinity too
    const int l_agreed = !EccPoint_isZero(&l_product);

    explicit_bzero(l_random, sizeof(l_random));
    explicit_bzero(l_private, sizeof(l_private));
    explicit_bzero(&l_product, sizeof(l_product));
    return l_agreed;
}

// Draws a nonce k with its r = x(kG) mod n, other than 0. Returns 0 when there is none to be had.
static int ecdsa_drawNonce(uint64_t* k, uint64_t* r)
{
    EccPoint p;
    uint l_tries = MAX_TRIES + 1;
    while (draw_scalar(k, &l_tries)) {
        EccPoint_mult(&p, &curve_G, k, nullptr);
        vli_set(r, p.x);
        vli_subtractOrderOnce(r);
        if (!vli_isZero(r)) {
            return 1;
        }
    }
    return 0;
}

// FIPS 186-4, section 6.4: s = (e + r d) / k modulo n. An s of 0 is deliberately not looked for.
int ecdsa_sign(const uint8_t* p_privateKey, const uint8_t* p_hash, uint8_t* p_signature)
{
    uint64_t k[VLI_DIGITS];
    uint64_t r[VLI_DIGITS];
    const int l_drawn = ecdsa_drawNonce(k, r);

    if (l_drawn) {
        uint64_t d[VLI_DIGITS];
        uint64_t e[VLI_DIGITS];
        uint64_t s[VLI_DIGITS];

        ecc_native2bytes(p_signature, r);
        ecc_bytes2native(d, p_privateKey);
        vli_modMult(s, r, d, curve_n);
        ecc_bytes2native(e, p_hash);
        vli_modAdd(s, e, s, curve_n); // e may be n or above, and is not reduced first
        vli_modInv(k, k, curve_n);
        vli_modMult(s, s, k, curve_n);
        ecc_native2bytes(p_signature + VLI_BYTES, s);
        explicit_bzero(d, sizeof(d));
    }
    explicit_bzero(k, sizeof(k));
    return l_drawn;
}

// Reads r and s; returns 1 if both lie between 1 and n - 1.
static int ecdsa_readSignature(uint64_t* r, uint64_t* s, const uint8_t* p_signature)
{
    ecc_bytes2native(r, p_signature);
    ecc_bytes2native(s, p_signature + VLI_BYTES);
    if (vli_isZero(r) || vli_isZero(s)) {
        return 0;
    }
    return vli_cmp(r, curve_n) < 0 && vli_cmp(s, curve_n) < 0;
}

// p_sum := G + p_point, affine. A point with the X of G is not treated apart: it gives zero.
static void EccPoint_addBase(EccPoint* p_sum, const EccPoint* p_point)
{
    EccPoint l_base = curve_G;
    uint64_t z[VLI_DIGITS];

    *p_sum = *p_point;
    vli_modSub_fast(z, p_sum->x, l_base.x);
    XYcZ_add(l_base.x, l_base.y, p_sum->x, p_sum->y);
    vli_modInv(z, z, curve_p);
    apply_z(p_sum->x, p_sum->y, z);
}

// Adds the affine p_point to the Jacobian point (X, Y, Z).
static inline void EccPoint_addAffine(uint64_t* X, uint64_t* Y, uint64_t* Z,
                                      const EccPoint* p_point)
{
    EccPoint l_copy = *p_point;
    uint64_t t[VLI_DIGITS];

    apply_z(l_copy.x, l_copy.y, Z);
    vli_modSub_fast(t, X, l_copy.x);
    XYcZ_add(l_copy.x, l_copy.y, X, Y);
    vli_modMult_fast(Z, Z, t);
}

// Which entry of Shamir's table the scalars' bits at p_bit choose.
static inline uint shamir_index(const uint64_t* u1, const uint64_t* u2, uint p_bit)
{
    return (vli_testBit(u1, p_bit) != 0 ? 1U : 0U) + (vli_testBit(u2, p_bit) != 0 ? 2U : 0U);
}

// p_result := u1 G + u2 p_point by Shamir's trick: both scalars are walked together, from a table
// of the four sums that a pair of bits can ask for. Two scalars of zero give the zero point.
static void EccPoint_multTwo(EccPoint* p_result, const uint64_t* u1, const uint64_t* u2,
                             const EccPoint* p_point)
{
    *p_result = {};
    const uint l_numBits = umax(vli_numBits(u1), vli_numBits(u2));
    if (l_numBits == 0) {
        return;
    }

    EccPoint l_table[4] = {{}, curve_G, *p_point, {}}; // no point, G, Q, G + Q
    EccPoint_addBase(&l_table[3], p_point);

    *p_result = l_table[shamir_index(u1, u2, l_numBits - 1)];
    uint64_t z[VLI_DIGITS] = {1};
    // Signed: it starts below zero for scalars of one bit.
    for (int i = static_cast<int>(l_numBits) - 2; i >= 0; --i) {
        EccPoint_double_jacobian(p_result->x, p_result->y, z);
        const uint l_index = shamir_index(u1, u2, static_cast<uint>(i));
        if (l_index != 0) {
            EccPoint_addAffine(p_result->x, p_result->y, z, &l_table[l_index]);
        }
    }

    vli_modInv(z, z, curve_p);
    apply_z(p_result->x, p_result->y, z);
}

// FIPS 186-4, section 6.4: with w = 1/s, the x of (e w) G + (r w) Q must be r modulo n.
int ecdsa_verify(const uint8_t* p_publicKey, const uint8_t* p_hash, const uint8_t* p_signature)
{
    EccPoint l_public;
    uint64_t r[VLI_DIGITS];
    uint64_t s[VLI_DIGITS];
    ecc_point_decompress(&l_public, p_publicKey);
    if (!ecdsa_readSignature(r, s, p_signature)) {
        return 0;
    }

    uint64_t w[VLI_DIGITS];
    uint64_t u1[VLI_DIGITS];
    uint64_t u2[VLI_DIGITS];
    vli_modInv(w, s, curve_n);
    ecc_bytes2native(u1, p_hash);
    vli_modMult(u1, u1, w, curve_n);
    vli_modMult(u2, r, w, curve_n);

    EccPoint l_point;
    EccPoint_multTwo(&l_point, u1, u2, &l_public);
    vli_subtractOrderOnce(l_point.x);
    return vli_cmp(l_point.x, r) == 0;
}
