// The engine's innermost operations, tuned to the machine. Included by ecc.cpp alone, behind the
// portable forms: those are the reference, and each form here gives the same value as its portable
// namesake for every operand. This is the only place where the engine asks which machine it is on.
//
//   32-bit ARM (ARMv7-A)   assembly
//   x86-64                 the compiler's 128-bit integer and its additions with carry
//   any other machine      the portable forms, as everywhere with ZENTRAVA_PORTABLE_ENGINE defined
//
// docs/engine.md tells how the forms were proved and what they cost.
#ifndef ZENTRAVA_ECC_ECC_TUNED_H
#define ZENTRAVA_ECC_ECC_TUNED_H

#if !defined(ZENTRAVA_PORTABLE_ENGINE) && defined(__ARM_ARCH_7A__) && defined(__GNUC__) &&         \
    !defined(__clang__)
#define ECC_TUNED_ARM
#elif !defined(ZENTRAVA_PORTABLE_ENGINE) && defined(__x86_64__) && defined(__SIZEOF_INT128__)
#define ECC_TUNED_X86_64
#endif

#if defined(ECC_TUNED_ARM)

namespace tuned {

// A function of assembly: its arguments are in r0 to r3, its result is in r0, and what it saves and
// restores is all up to it. It needs no frame, so that neither the frame pointer of an unoptimised
// build nor a sanitizer's is in its way. It is ARM code whatever the unit is compiled to, and
// returns to either instruction set. `noipa` keeps the compiler from concluding, from a body that
// it cannot read, that registers such as r3 and r12 survive a call.
#define ASSEMBLY_FUNCTION __attribute__((naked, noipa, target("arm")))

// r4 to r11 := r4 to r11 - p. Subtracting the word 2^32 - 1 with borrow is adding 0 with carry.
#define SUBTRACT_P                                                                                 \
    "adds r4, r4, #1 \n"                                                                           \
    "adcs r5, r5, #0 \n"                                                                           \
    "adcs r6, r6, #0 \n"                                                                           \
    "sbcs r7, r7, #0 \n"                                                                           \
    "sbcs r8, r8, #0 \n"                                                                           \
    "sbcs r9, r9, #0 \n"                                                                           \
    "sbcs r10, r10, #1 \n"                                                                         \
    "adcs r11, r11, #0 \n"

// r4 to r11 := r4 to r11 + p. Likewise, adding 2^32 - 1 with carry is subtracting 0 with borrow.
#define ADD_P                                                                                      \
    "subs r4, r4, #1 \n"                                                                           \
    "sbcs r5, r5, #0 \n"                                                                           \
    "sbcs r6, r6, #0 \n"                                                                           \
    "adcs r7, r7, #0 \n"                                                                           \
    "adcs r8, r8, #0 \n"                                                                           \
    "adcs r9, r9, #0 \n"                                                                           \
    "adcs r10, r10, #1 \n"                                                                         \
    "sbcs r11, r11, #0 \n"

// A 256-bit number is eight registers, r4 to r11, and its sum with another is one chain of carries.
// The left operand is taken whole, the right one in two halves.
#define ADD_OPERANDS                                                                               \
    "push {r4-r11, lr} \n"                                                                         \
    "ldm r1, {r4-r11} \n"                                                                          \
    "ldm r2!, {r1, r3, r12, lr} \n"                                                                \
    "adds r4, r4, r1 \n"                                                                           \
    "adcs r5, r5, r3 \n"                                                                           \
    "adcs r6, r6, r12 \n"                                                                          \
    "adcs r7, r7, lr \n"                                                                           \
    "ldm r2, {r1, r3, r12, lr} \n"                                                                 \
    "adcs r8, r8, r1 \n"                                                                           \
    "adcs r9, r9, r3 \n"                                                                           \
    "adcs r10, r10, r12 \n"                                                                        \
    "adcs r11, r11, lr \n"

#define SUBTRACT_OPERANDS                                                                          \
    "push {r4-r11, lr} \n"                                                                         \
    "ldm r1, {r4-r11} \n"                                                                          \
    "ldm r2!, {r1, r3, r12, lr} \n"                                                                \
    "subs r4, r4, r1 \n"                                                                           \
    "sbcs r5, r5, r3 \n"                                                                           \
    "sbcs r6, r6, r12 \n"                                                                          \
    "sbcs r7, r7, lr \n"                                                                           \
    "ldm r2, {r1, r3, r12, lr} \n"                                                                 \
    "sbcs r8, r8, r1 \n"                                                                           \
    "sbcs r9, r9, r3 \n"                                                                           \
    "sbcs r10, r10, r12 \n"                                                                        \
    "sbcs r11, r11, lr \n"

#define STORE_AND_RETURN                                                                           \
    "stm r0, {r4-r11} \n"                                                                          \
    "pop {r4-r11, pc} \n"

ASSEMBLY_FUNCTION static uint64_t vli_add(uint64_t* /*r0*/, const uint64_t* /*r1*/,
                                          const uint64_t* /*r2*/)
{
    __asm__(ADD_OPERANDS "stm r0, {r4-r11} \n"
                         "mov r1, #0 \n"
                         "adc r0, r1, #0 \n"
                         "pop {r4-r11, pc} \n");
}

// The processor's carry after a subtraction is the absence of a borrow.
ASSEMBLY_FUNCTION static uint64_t vli_sub(uint64_t* /*r0*/, const uint64_t* /*r1*/,
                                          const uint64_t* /*r2*/)
{
    __asm__(SUBTRACT_OPERANDS "stm r0, {r4-r11} \n"
                              "mov r1, #0 \n"
                              "sbc r0, r1, r1 \n"
                              "rsb r0, r0, #0 \n"
                              "pop {r4-r11, pc} \n");
}

// Without a carry, a sum whose top word is not all ones is below p: the comparison of all words is
// left for one sum in 2^32.
ASSEMBLY_FUNCTION static void vli_modAdd_fast(uint64_t* /*r0*/, const uint64_t* /*r1*/,
                                              const uint64_t* /*r2*/)
{
    __asm__(ADD_OPERANDS "bcs 2f \n"
                         "cmn r11, #1 \n"
                         "beq 3f \n"
                         "1: \n" STORE_AND_RETURN "2: \n" SUBTRACT_P STORE_AND_RETURN
                         "3: \n" SUBTRACT_P "bcs 1b \n" ADD_P "b 1b \n");
}

ASSEMBLY_FUNCTION static void vli_modSub_fast(uint64_t* /*r0*/, const uint64_t* /*r1*/,
                                              const uint64_t* /*r2*/)
{
    __asm__(SUBTRACT_OPERANDS "bcc 1f \n" STORE_AND_RETURN "1: \n" ADD_P STORE_AND_RETURN);
}

// The true product of two numbers, as 8 x 8 words. `umaal low, high, x, y` is high:low := low +
// high + x y, which just fits: a word of the running sum and the carry from the word before go in,
// the new word and the next carry come out. Four words of the left operand stay in r3 to r6 while
// the right one's words go by; the four words of the sum that they can reach lie in a window of
// registers that moves up one word per row, for each row finishes the window's lowest word, and
// its last carry becomes the highest. Two rows take the same steps as the two before, but with the
// registers moved round; after six rows they are back in place.
#define ROW(w0, w1, w2, w3, carry, word)                                                           \
    "umaal " w0 ", " carry ", r3, " word " \n"                                                     \
    "umaal " w1 ", " carry ", r4, " word " \n"                                                     \
    "umaal " w2 ", " carry ", r5, " word " \n"                                                     \
    "umaal " w3 ", " carry ", r6, " word " \n"

ASSEMBLY_FUNCTION static void true_product(uint64_t* /*r0*/, const uint64_t* /*r1*/,
                                           const uint64_t* /*r2*/)
{
    __asm__("push {r4-r11, lr} \n"
            // The left operand's lower half; the window starts at 0.
            "ldm r1!, {r3-r6} \n"
            "ldm r2!, {r12, lr} \n"
            "umull r7, r8, r3, r12 \n"
            "mov r9, #0 \n"
            "umlal r8, r9, r4, r12 \n"
            "mov r10, #0 \n"
            "umlal r9, r10, r5, r12 \n"
            "mov r11, #0 \n"
            "umlal r10, r11, r6, r12 \n"
            "mov r12, #0 \n" ROW("r8", "r9", "r10", "r11", "r12", "lr")
            "stm r0!, {r7, r8} \n"
            "ldm r2!, {r8, lr} \n"
            "mov r7, #0 \n" ROW("r9", "r10", "r11", "r12", "r7", "r8")
            "mov r8, #0 \n" ROW("r10", "r11", "r12", "r7", "r8", "lr")
            "stm r0!, {r9, r10} \n"
            "ldm r2!, {r10, lr} \n"
            "mov r9, #0 \n" ROW("r11", "r12", "r7", "r8", "r9", "r10")
            "mov r10, #0 \n" ROW("r12", "r7", "r8", "r9", "r10", "lr")
            "stm r0!, {r11, r12} \n"
            "ldm r2!, {r12, lr} \n"
            "mov r11, #0 \n" ROW("r7", "r8", "r9", "r10", "r11", "r12")
            "mov r12, #0 \n" ROW("r8", "r9", "r10", "r11", "r12", "lr")
            "stm r0, {r7-r12} \n"
            // The upper half, four words higher up: what the lower half left there comes in as the
            // window's start and as the carries that the last four rows begin with.
            "ldm r1, {r3-r6} \n"
            "sub r2, r2, #32 \n"
            "sub r0, r0, #8 \n"
            "ldm r0, {r7-r10} \n"
            "ldm r2!, {r12, lr} \n"
            "mov r11, #0 \n" ROW("r7", "r8", "r9", "r10", "r11", "r12")
            "mov r12, #0 \n" ROW("r8", "r9", "r10", "r11", "r12", "lr")
            "stm r0!, {r7, r8} \n"
            "ldm r2!, {r8, lr} \n"
            "mov r7, #0 \n" ROW("r9", "r10", "r11", "r12", "r7", "r8")
            "mov r8, #0 \n" ROW("r10", "r11", "r12", "r7", "r8", "lr")
            "stm r0!, {r9, r10} \n"
            "ldm r2!, {r10, lr} \n"
            "ldr r9, [r0] \n" ROW("r11", "r12", "r7", "r8", "r9", "r10")
            "ldr r10, [r0, #4] \n" ROW("r12", "r7", "r8", "r9", "r10", "lr")
            "stm r0!, {r11, r12} \n"
            "ldm r2!, {r12, lr} \n"
            "ldr r11, [r0] \n" ROW("r7", "r8", "r9", "r10", "r11", "r12")
            "ldr r12, [r0, #4] \n" ROW("r8", "r9", "r10", "r11", "r12", "lr")
            "stm r0, {r7-r12} \n"
            "pop {r4-r11, pc} \n");
}

// The words that are the upper halves of digits, least significant first.
static ALWAYS_INLINE uint32_t upper_word(const uint64_t* p_vli, uint p_digit)
{
    return static_cast<uint32_t>(p_vli[p_digit] >> 32);
}

// Whether a sum of products has a high half that can be all ones. p_sum adds up the products of the
// upper words alone, modulo 2^64. What it leaves out is less than 2^34 + 2^33 times the weight of
// p_sum's lowest bit (three products with two middle terms each, and carries): when the high half
// is all ones, the upper word of p_sum is short of all ones by 7 at most.
static ALWAYS_INLINE bool near_all_ones(uint64_t p_sum)
{
    return static_cast<uint32_t>(p_sum >> 32) >= 0xFFFFFFF8;
}

// Whether vli_mult could meet a lost overflow (see column_add): whether, before any of its
// additions but a column's first, the sum's high half can be all ones. A column's sum starts small,
// so that after one product this takes a product of two digits next to 2^64, the left one of digit
// 0 or the right one of digit 3. After two or three products, near_all_ones tells.
//
// The answer may be true in vain, which happens to random operands less than once in 2^26.
static ALWAYS_INLINE bool overflow_may_be_lost(const uint64_t* p_left, const uint64_t* p_right)
{
    const uint64_t l0 = upper_word(p_left, 0);
    const uint64_t l1 = upper_word(p_left, 1);
    const uint64_t l2 = upper_word(p_left, 2);
    const uint64_t r1 = upper_word(p_right, 1);
    const uint64_t r2 = upper_word(p_right, 2);
    const uint64_t r3 = upper_word(p_right, 3);
    const uint64_t l_column3 = l0 * r3 + l1 * r2;
    return l0 == 0xFFFFFFFF || r3 == 0xFFFFFFFF || near_all_ones(l0 * r2 + l1 * r1) ||
           near_all_ones(l_column3) || near_all_ones(l_column3 + l2 * r1) ||
           near_all_ones(l1 * r3 + l2 * r2);
}

__attribute__((noinline, cold)) static void mult_by_columns(uint64_t* p_result,
                                                            const uint64_t* p_left,
                                                            const uint64_t* p_right)
{
    portable::vli_mult(p_result, p_left, p_right);
}

static ALWAYS_INLINE void vli_mult(uint64_t* p_result, const uint64_t* p_left,
                                   const uint64_t* p_right)
{
    if (__builtin_expect(overflow_may_be_lost(p_left, p_right), false)) {
        mult_by_columns(p_result, p_left, p_right);
    } else {
        true_product(p_result, p_left, p_right);
    }
}

// As above for vli_square. Its columns 2, 3 and 4 add two products, of which the first is doubled.
static ALWAYS_INLINE bool square_overflow_may_be_lost(const uint64_t* p_left)
{
    const uint64_t l0 = upper_word(p_left, 0);
    const uint64_t l1 = upper_word(p_left, 1);
    const uint64_t l2 = upper_word(p_left, 2);
    const uint64_t l3 = upper_word(p_left, 3);
    return near_all_ones(l0 * l2 << 1) || near_all_ones(l0 * l3 << 1) ||
           near_all_ones(l1 * l3 << 1);
}

__attribute__((noinline, cold)) static void square_by_columns(uint64_t* p_result,
                                                              const uint64_t* p_left)
{
    portable::vli_square(p_result, p_left);
}

static ALWAYS_INLINE void vli_square(uint64_t* p_result, const uint64_t* p_left)
{
    if (__builtin_expect(square_overflow_may_be_lost(p_left), false)) {
        square_by_columns(p_result, p_left);
    } else {
        true_product(p_result, p_left, p_left);
    }
}

// The reduction. The words of all added terms together are, with c8 to c15 written 8 to 15 and the
// least significant word first,
//
//   8 + 9, 9 + 10, 10 + 11, 2 11 + 2 12 + 13, 2 12 + 2 13 + 14, 2 13 + 2 14 + 15,
//   3 14 + 2 15 + 13, 3 15 + 8
//
// and are dealt out anew, to three chains: (8, 9, 10, 2 11, 2 12, 2 13, 3 14, 3 15),
// (9, 10, 11, 2 12, 2 13, 2 14, 2 15) and, from word 3, (13, 14, 15, 13, 8). `umaal` adds a multiple
// of a word where a flag would hold too small a carry. Likewise for the words subtracted:
// (11, 12, 13, 8, 9, 10, 8, 10), (12, 13, 14, 9, 10, 11, 9, 11), (13, 14, 15, 15, 0, 0, 0, 12) and
// (14, 15, 0, 0, 0, 0, 0, 13).
//
// The counter q of what left the top word, from -4 to 7, is taken back in at once: q 2^256 is
// congruent to q (2^224 - 2^192 - 2^96 + 1), whose words, a borrow between them being worked in, are
// (q, s, s, s - q, n, n, n - q, n + q) and s above them, where s is -1 for q < 0, n is -1 for q > 0,
// and both are 0 otherwise. What is left to correct is p once, and seldom.
ASSEMBLY_FUNCTION static void vli_mmod_fast(uint64_t* /*r0*/, const uint64_t* /*r1*/)
{
    __asm__("push {r0, r4-r11, lr} \n"
            "ldm r1!, {r4-r11} \n"
            "ldm r1!, {r0, r2, r3} \n" // 8 to 10; r1 stays at word 11
            "ldr r12, [r1] \n"
            "mov lr, #0 \n"
            "adds r4, r4, r0 \n"
            "adcs r5, r5, r2 \n"
            "adcs r6, r6, r3 \n"
            "adc lr, lr, #0 \n" // lr: carry of the first chain
            "mov r0, #0 \n"
            "adds r4, r4, r2 \n"
            "adcs r5, r5, r3 \n"
            "adcs r6, r6, r12 \n"
            "adc r0, r0, #0 \n" // r0: carry of the second chain
            "mov r2, #2 \n"
            "ldr r3, [r1, #4] \n"
            "umaal r7, lr, r12, r2 \n" // 2 11
            "umaal r7, r0, r3, r2 \n"  // 2 12
            "ldr r12, [r1, #8] \n"
            "umaal r8, lr, r3, r2 \n"  // 2 12
            "umaal r8, r0, r12, r2 \n" // 2 13
            "ldr r3, [r1, #12] \n"
            "umaal r9, lr, r12, r2 \n" // 2 13
            "umaal r9, r0, r3, r2 \n"  // 2 14
            "ldr r12, [r1, #16] \n"
            "umaal r10, r0, r12, r2 \n" // 2 15
            "mov r2, #3 \n"
            "umaal r10, lr, r3, r2 \n"  // 3 14
            "umaal r11, lr, r12, r2 \n" // 3 15
            "adds r11, r11, r0 \n"
            "adc lr, lr, #0 \n" // lr: from here on the counter q
            "ldr r0, [r1, #8] \n"
            "adds r7, r7, r0 \n"   // 13
            "adcs r8, r8, r3 \n"   // 14
            "adcs r9, r9, r12 \n"  // 15
            "adcs r10, r10, r0 \n" // 13
            "ldr r0, [r1, #-12] \n"
            "adcs r11, r11, r0 \n" // 8
            "adc lr, lr, #0 \n"
            "ldm r1, {r0, r2, r3} \n" // 11 to 13
            "subs r4, r4, r0 \n"
            "sbcs r5, r5, r2 \n"
            "sbcs r6, r6, r3 \n"
            "ldmdb r1, {r0, r2, r3} \n" // 8 to 10
            "sbcs r7, r7, r0 \n"
            "sbcs r8, r8, r2 \n"
            "sbcs r9, r9, r3 \n"
            "sbcs r10, r10, r0 \n"
            "sbcs r11, r11, r3 \n"
            "sbc lr, lr, #0 \n"
            "ldmib r1, {r0, r2, r3} \n" // 12 to 14
            "subs r4, r4, r0 \n"
            "sbcs r5, r5, r2 \n"
            "sbcs r6, r6, r3 \n"
            "ldmda r1, {r0, r2, r3} \n" // 9 to 11
            "sbcs r7, r7, r0 \n"
            "sbcs r8, r8, r2 \n"
            "sbcs r9, r9, r3 \n"
            "sbcs r10, r10, r0 \n"
            "sbcs r11, r11, r3 \n"
            "sbc lr, lr, #0 \n"
            "add r1, r1, #4 \n"
            "ldm r1, {r0, r2, r3, r12} \n" // 12 to 15
            "subs r4, r4, r2 \n"
            "sbcs r5, r5, r3 \n"
            "sbcs r6, r6, r12 \n"
            "sbcs r7, r7, r12 \n"
            "sbcs r8, r8, #0 \n"
            "sbcs r9, r9, #0 \n"
            "sbcs r10, r10, #0 \n"
            "sbcs r11, r11, r0 \n"
            "sbc lr, lr, #0 \n"
            "subs r4, r4, r3 \n"
            "sbcs r5, r5, r12 \n"
            "sbcs r6, r6, #0 \n"
            "sbcs r7, r7, #0 \n"
            "sbcs r8, r8, #0 \n"
            "sbcs r9, r9, #0 \n"
            "sbcs r10, r10, #0 \n"
            "sbcs r11, r11, r2 \n"
            "sbc lr, lr, #0 \n"
            // Take in q.
            "asr r0, lr, #31 \n"   // s
            "rsb r2, lr, #0 \n"    // -q
            "asr r12, r2, #31 \n"  // n
            "add r3, r0, r2 \n"    // s - q
            "add r2, r12, r2 \n"   // n - q
            "adds r4, r4, lr \n"
            "add lr, r12, lr \n"   // n + q
            "adcs r5, r5, r0 \n"
            "adcs r6, r6, r0 \n"
            "adcs r7, r7, r3 \n"
            "adcs r8, r8, r12 \n"
            "adcs r9, r9, r12 \n"
            "adcs r10, r10, r2 \n"
            "adcs r11, r11, lr \n"
            "adcs r2, r0, #0 \n" // what stands above: -1, 0 or 1
            "pop {r0} \n"
            "bne 2f \n"
            "cmn r11, #1 \n"
            "beq 4f \n" // all ones: perhaps not below p
            "1: \n" STORE_AND_RETURN
            "2: \n"
            "bmi 3f \n" SUBTRACT_P STORE_AND_RETURN
            "3: \n" ADD_P STORE_AND_RETURN
            "4: \n" SUBTRACT_P "bcs 1b \n" ADD_P "b 1b \n");
}

#undef ASSEMBLY_FUNCTION
#undef SUBTRACT_P
#undef ADD_P
#undef ADD_OPERANDS
#undef SUBTRACT_OPERANDS
#undef STORE_AND_RETURN
#undef ROW

} // namespace tuned

#elif defined(ECC_TUNED_X86_64)

namespace tuned {
}

#endif

#if defined(ECC_TUNED_ARM) || defined(ECC_TUNED_X86_64)
namespace primitives = tuned;
#else
namespace primitives = portable;
#endif

using portable::vli_modAdd;
using primitives::vli_add;
using primitives::vli_mmod_fast;
using primitives::vli_modAdd_fast;
using primitives::vli_modSub_fast;
using primitives::vli_mult;
using primitives::vli_square;
using primitives::vli_sub;

#endif
