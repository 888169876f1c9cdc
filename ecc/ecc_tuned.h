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

#if defined(ZENTRAVA_PORTABLE_ENGINE)
#define ECC_PORTABLE
#elif defined(__ARM_ARCH_7A__) && !defined(__clang__)
#define ECC_ARM
#elif defined(__x86_64__) && defined(__LP64__)
#define ECC_X86_64
#else
#define ECC_PORTABLE
#endif

#if defined(ECC_ARM)

namespace tuned {

// A function that is all assembly: its arguments are in r0 to r2, its result is in r0, and saving
// and restoring is its own affair. It needs no frame, so that the frame pointer of an unoptimised
// build is not in its way; it refers to nothing by address, so that it runs wherever it is loaded;
// it is ARM code whatever the unit is compiled to, and returns to either instruction set. `noipa`
// keeps the compiler from concluding, from a body that it cannot read, that r3 or r12 survive.
#define ASSEMBLY_FUNCTION __attribute__((naked, noipa, unused, target("arm")))

// clang-format off

#define STORE_AND_RETURN                                                                           \
    "stm r0, {r4-r11} \n"                                                                          \
    "pop {r4-r11, pc} \n"

#define STORE_AND_REPORT                                                                           \
    "stm r0, {r4-r11} \n"                                                                          \
    "mov r0, #1 \n"                                                                                \
    "pop {r4-r11, pc} \n"

// A 256-bit number is eight registers, r4 to r11 here, and a sum is one chain of carries. The
// processor's carry after a subtraction is the absence of a borrow.
#define ADD_OPERANDS                                                                               \
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

ASSEMBLY_FUNCTION static uint64_t vli_add(uint64_t* /*r0*/,
                                          const uint64_t* /*r1*/,
                                          const uint64_t* /*r2*/)
{
    __asm__(
        "push {r4-r11, lr} \n"
        ADD_OPERANDS
        "stm r0, {r4-r11} \n"
        "mov r1, #0 \n"
        "adc r0, r1, #0 \n"
        "pop {r4-r11, pc} \n");
}

ASSEMBLY_FUNCTION static uint64_t vli_sub(uint64_t* /*r0*/,
                                          const uint64_t* /*r1*/,
                                          const uint64_t* /*r2*/)
{
    __asm__(
        "push {r4-r11, lr} \n"
        SUBTRACT_OPERANDS
        "stm r0, {r4-r11} \n"
        "sbc r0, r0, r0 \n"                  // 0, or -1 for a borrow
        "rsb r0, r0, #0 \n"
        "mov r1, #0 \n"
        "pop {r4-r11, pc} \n");
}

// r4 to r11 -= p. To subtract the word 2^32 - 1 with borrow is to add 0 with carry.
#define SUBTRACT_P                                                                                 \
    "adds r4, r4, #1 \n"                                                                           \
    "adcs r5, r5, #0 \n"                                                                           \
    "adcs r6, r6, #0 \n"                                                                           \
    "sbcs r7, r7, #0 \n"                                                                           \
    "sbcs r8, r8, #0 \n"                                                                           \
    "sbcs r9, r9, #0 \n"                                                                           \
    "sbcs r10, r10, #1 \n"                                                                         \
    "adcs r11, r11, #0 \n"

// r4 to r11 += p. To add 2^32 - 1 with carry is to subtract 0 with borrow.
#define ADD_P                                                                                      \
    "subs r4, r4, #1 \n"                                                                           \
    "sbcs r5, r5, #0 \n"                                                                           \
    "sbcs r6, r6, #0 \n"                                                                           \
    "adcs r7, r7, #0 \n"                                                                           \
    "adcs r8, r8, #0 \n"                                                                           \
    "adcs r9, r9, #0 \n"                                                                           \
    "adcs r10, r10, #1 \n"                                                                         \
    "sbcs r11, r11, #0 \n"

// A sum without a carry whose top word is not all ones is below p: the comparison of all words is
// left for one sum in 2^32.
ASSEMBLY_FUNCTION static void vli_modAdd_fast(uint64_t* /*r0*/,
                                              const uint64_t* /*r1*/,
                                              const uint64_t* /*r2*/)
{
    __asm__(
        "push {r4-r11, lr} \n"
        ADD_OPERANDS
        "bcs 2f \n"
        "cmn r11, #1 \n"
        "beq 3f \n"
        "1: \n"
        STORE_AND_RETURN
        "2: \n"
        SUBTRACT_P
        STORE_AND_RETURN
        "3: \n"
        SUBTRACT_P
        "bcs 1b \n"
        ADD_P
        "b 1b \n");
}

ASSEMBLY_FUNCTION static void vli_modSub_fast(uint64_t* /*r0*/,
                                              const uint64_t* /*r1*/,
                                              const uint64_t* /*r2*/)
{
    __asm__(
        "push {r4-r11, lr} \n"
        SUBTRACT_OPERANDS
        "bcc 1f \n"
        STORE_AND_RETURN
        "1: \n"
        ADD_P
        STORE_AND_RETURN);
}

// The true product of two numbers of eight words. `umaal low, high, x, y` makes high:low the sum
// low + high + x y, which just fits: a word of the running sum and the carry from the word below go
// in, the new word and the next carry come out. Four words of the left operand stay in r3 to r6
// while the words of the right one go by. The four words of the sum that they reach are a window of
// registers that moves up one word per row: each row finishes the window's lowest word, and the
// row's last carry becomes the highest. Two rows take the same steps as the two before, with the
// registers moved round.
#define ROW(w0, w1, w2, w3, carry, word)                                                           \
    "umaal " w0 ", " carry ", r3, " word " \n"                                                     \
    "umaal " w1 ", " carry ", r4, " word " \n"                                                     \
    "umaal " w2 ", " carry ", r5, " word " \n"                                                     \
    "umaal " w3 ", " carry ", r6, " word " \n"

// r0: the product, 16 words; r1, r2: the operands. All other registers change.
#define MULTIPLY                                                                                   \
    /* The lower half of the left operand; the window starts at 0. */                              \
    "ldm r1!, {r3-r6} \n"                                                                          \
    "ldm r2!, {r12, lr} \n"                                                                        \
    "umull r7, r8, r3, r12 \n"                                                                     \
    "mov r9, #0 \n"                                                                                \
    "umlal r8, r9, r4, r12 \n"                                                                     \
    "mov r10, #0 \n"                                                                               \
    "umlal r9, r10, r5, r12 \n"                                                                    \
    "mov r11, #0 \n"                                                                               \
    "umlal r10, r11, r6, r12 \n"                                                                   \
    "mov r12, #0 \n"                                                                               \
    ROW("r8", "r9", "r10", "r11", "r12", "lr")                                                     \
    "stm r0!, {r7, r8} \n"                                                                         \
    "ldm r2!, {r8, lr} \n"                                                                         \
    "mov r7, #0 \n"                                                                                \
    ROW("r9", "r10", "r11", "r12", "r7", "r8")                                                     \
    "mov r8, #0 \n"                                                                                \
    ROW("r10", "r11", "r12", "r7", "r8", "lr")                                                     \
    "stm r0!, {r9, r10} \n"                                                                        \
    "ldm r2!, {r10, lr} \n"                                                                        \
    "mov r9, #0 \n"                                                                                \
    ROW("r11", "r12", "r7", "r8", "r9", "r10")                                                     \
    "mov r10, #0 \n"                                                                               \
    ROW("r12", "r7", "r8", "r9", "r10", "lr")                                                      \
    "stm r0!, {r11, r12} \n"                                                                       \
    "ldm r2!, {r12, lr} \n"                                                                        \
    "mov r11, #0 \n"                                                                               \
    ROW("r7", "r8", "r9", "r10", "r11", "r12")                                                     \
    "mov r12, #0 \n"                                                                               \
    ROW("r8", "r9", "r10", "r11", "r12", "lr")                                                     \
    "stm r0, {r7-r12} \n"                                                                          \
    /* The upper half, four words higher up. What the lower half left there comes in as the */     \
    /* window's start, and as the carries that the last four rows begin with. */                   \
    "ldm r1, {r3-r6} \n"                                                                           \
    "sub r2, r2, #32 \n"                                                                           \
    "sub r0, r0, #8 \n"                                                                            \
    "ldm r0, {r7-r10} \n"                                                                          \
    "ldm r2!, {r12, lr} \n"                                                                        \
    "mov r11, #0 \n"                                                                               \
    ROW("r7", "r8", "r9", "r10", "r11", "r12")                                                     \
    "mov r12, #0 \n"                                                                               \
    ROW("r8", "r9", "r10", "r11", "r12", "lr")                                                     \
    "stm r0!, {r7, r8} \n"                                                                         \
    "ldm r2!, {r8, lr} \n"                                                                         \
    "mov r7, #0 \n"                                                                                \
    ROW("r9", "r10", "r11", "r12", "r7", "r8")                                                     \
    "mov r8, #0 \n"                                                                                \
    ROW("r10", "r11", "r12", "r7", "r8", "lr")                                                     \
    "stm r0!, {r9, r10} \n"                                                                        \
    "ldm r2!, {r10, lr} \n"                                                                        \
    "ldr r9, [r0] \n"                                                                              \
    ROW("r11", "r12", "r7", "r8", "r9", "r10")                                                     \
    "ldr r10, [r0, #4] \n"                                                                         \
    ROW("r12", "r7", "r8", "r9", "r10", "lr")                                                      \
    "stm r0!, {r11, r12} \n"                                                                       \
    "ldm r2!, {r12, lr} \n"                                                                        \
    "ldr r11, [r0] \n"                                                                             \
    ROW("r7", "r8", "r9", "r10", "r11", "r12")                                                     \
    "ldr r12, [r0, #4] \n"                                                                         \
    ROW("r8", "r9", "r10", "r11", "r12", "lr")                                                     \
    "stm r0, {r7-r12} \n"

// The product of vli_mult differs from the true one where column_add loses an overflow: where the
// column's sum has a high half of all ones and a carry comes in from below. Where that cannot be,
// the true product will do. A column's sum starts small, so that after one product its high half is
// all ones only if both of that product's digits are next to 2^64: digit 0 on the left is one of
// them in the columns 1 to 3, digit 3 on the right in the columns 4 and 5. After two or three
// products, the sum of the products of the digits' upper words alone tells, modulo 2^64: what it
// leaves out is below 2^34 + 2^33 + 16 times its lowest bit, so that with a high half of all ones
// its upper word is short of all ones by 7 at most.
//
// `cmn x, #8` sets the carry when x is within 8 of 2^32, and `cmncc` asks only if none was set yet.
// Random operands leave in vain less than once in 2^26 products.
#define LEAVE_IF_OVERFLOW_MAY_BE_LOST                                                              \
    "ldr r3, [r1, #4] \n"                    /* left 0 */                                          \
    "ldr r4, [r1, #12] \n"                   /* left 1 */                                          \
    "ldr r5, [r1, #20] \n"                   /* left 2 */                                          \
    "ldr r6, [r2, #12] \n"                   /* right 1 */                                         \
    "ldr r7, [r2, #20] \n"                   /* right 2 */                                         \
    "ldr r8, [r2, #28] \n"                   /* right 3 */                                         \
    "umull r12, r9, r3, r7 \n"                                                                     \
    "umlal r12, r9, r4, r6 \n"               /* column 2: left 0 right 2 + left 1 right 1 */       \
    "umull r12, r10, r3, r8 \n"                                                                    \
    "umlal r12, r10, r4, r7 \n"              /* column 3: left 0 right 3 + left 1 right 2 */       \
    "mov r11, r10 \n"                                                                              \
    "umlal r12, r11, r5, r6 \n"              /* and + left 2 right 1 */                            \
    "umull r12, lr, r4, r8 \n"                                                                     \
    "umlal r12, lr, r5, r7 \n"               /* column 4: left 1 right 3 + left 2 right 2 */       \
    "cmn r3, #1 \n"                                                                                \
    "cmncc r8, #1 \n"                                                                              \
    "cmncc r9, #8 \n"                                                                              \
    "cmncc r10, #8 \n"                                                                             \
    "cmncc r11, #8 \n"                                                                             \
    "cmncc lr, #8 \n"                                                                              \
    "bcs 9f \n"

// The same for a square, whose columns 2, 3 and 4 are two products, the first of them doubled.
#define LEAVE_IF_SQUARE_OVERFLOW_MAY_BE_LOST                                                       \
    "ldr r3, [r1, #4] \n"                                                                          \
    "ldr r4, [r1, #12] \n"                                                                         \
    "ldr r5, [r1, #20] \n"                                                                         \
    "ldr r6, [r1, #28] \n"                                                                         \
    "umull r12, r7, r3, r5 \n"               /* column 2: 0 2 */                                   \
    "umull r12, r8, r3, r6 \n"               /* column 3: 0 3 */                                   \
    "umull r12, r9, r4, r6 \n"               /* column 4: 1 3 */                                   \
    "mov r10, #8 \n"                                                                               \
    "cmn r10, r7, lsl #1 \n"                                                                       \
    "cmncc r10, r8, lsl #1 \n"                                                                     \
    "cmncc r10, r9, lsl #1 \n"                                                                     \
    "bcs 9f \n"

// The reduction. The terms that are added have, with the product's words c8 to c15 written 8 to 15
// and the least significant word first, these words in sum:
//
//   8 + 9, 9 + 10, 10 + 11, 2 11 + 2 12 + 13, 2 12 + 2 13 + 14, 2 13 + 2 14 + 15,
//   3 14 + 2 15 + 13, 3 15 + 8
//
// They are dealt out anew, to three chains: (8, 9, 10, 2 11, 2 12, 2 13, 3 14, 3 15),
// (9, 10, 11, 2 12, 2 13, 2 14, 2 15) and, from word 3, (13, 14, 15, 13, 8). Where a flag would be
// too small for the carry, `umaal` adds the multiple. The terms that are subtracted become
// (11, 12, 13, 8, 9, 10, 8, 10), (12, 13, 14, 9, 10, 11, 9, 11), (13, 14, 15, 15, 0, 0, 0, 12) and
// (14, 15, 0, 0, 0, 0, 0, 13).
//
// q counts what left the top word, from -4 to 7, and is taken back in at once: q 2^256 is congruent
// to q (2^224 - 2^192 - 2^96 + 1), in words, with the borrows between them worked in,
// (q, s, s, s - q, n, n, n - q, n + q) and s above. There s = -1 for q < 0, n = -1 for q > 0, and
// both are 0 otherwise. What then stands above the top word is rarely not 0, and one p corrects it.
//
// r1: the product. The sum is left in r4 to r11, and the flags tell what stands above it.
#define REDUCE                                                                                     \
    "ldm r1!, {r4-r11} \n"                                                                         \
    "ldm r1!, {r0, r2, r3} \n"               /* 8 to 10; r1 stays at word 11 */                    \
    "ldr r12, [r1] \n"                       /* 11 */                                              \
    /* The first two added chains, with their carries in lr and r0. */                             \
    "mov lr, #0 \n"                                                                                \
    "adds r4, r4, r0 \n"                     /* 8 */                                               \
    "adcs r5, r5, r2 \n"                     /* 9 */                                               \
    "adcs r6, r6, r3 \n"                     /* 10 */                                              \
    "adc lr, lr, #0 \n"                                                                            \
    "mov r0, #0 \n"                                                                                \
    "adds r4, r4, r2 \n"                     /* 9 */                                               \
    "adcs r5, r5, r3 \n"                     /* 10 */                                              \
    "adcs r6, r6, r12 \n"                    /* 11 */                                              \
    "adc r0, r0, #0 \n"                                                                            \
    "mov r2, #2 \n"                                                                                \
    "ldr r3, [r1, #4] \n"                    /* 12 */                                              \
    "umaal r7, lr, r12, r2 \n"               /* 2 11 */                                            \
    "umaal r7, r0, r3, r2 \n"                /* 2 12 */                                            \
    "ldr r12, [r1, #8] \n"                   /* 13 */                                              \
    "umaal r8, lr, r3, r2 \n"                /* 2 12 */                                            \
    "umaal r8, r0, r12, r2 \n"               /* 2 13 */                                            \
    "ldr r3, [r1, #12] \n"                   /* 14 */                                              \
    "umaal r9, lr, r12, r2 \n"               /* 2 13 */                                            \
    "umaal r9, r0, r3, r2 \n"                /* 2 14 */                                            \
    "ldr r12, [r1, #16] \n"                  /* 15 */                                              \
    "umaal r10, r0, r12, r2 \n"              /* 2 15 */                                            \
    "mov r2, #3 \n"                                                                                \
    "umaal r10, lr, r3, r2 \n"               /* 3 14 */                                            \
    "umaal r11, lr, r12, r2 \n"              /* 3 15 */                                            \
    "adds r11, r11, r0 \n"                                                                         \
    "adc lr, lr, #0 \n"                      /* from here on the counter q */                      \
    /* The third, from word 3. */                                                                  \
    "ldr r0, [r1, #8] \n"                                                                          \
    "adds r7, r7, r0 \n"                     /* 13 */                                              \
    "adcs r8, r8, r3 \n"                     /* 14 */                                              \
    "adcs r9, r9, r12 \n"                    /* 15 */                                              \
    "adcs r10, r10, r0 \n"                   /* 13 */                                              \
    "ldr r0, [r1, #-12] \n"                                                                        \
    "adcs r11, r11, r0 \n"                   /* 8 */                                               \
    "adc lr, lr, #0 \n"                                                                            \
    /* The four subtracted chains. */                                                              \
    "ldm r1, {r0, r2, r3} \n"                                                                      \
    "subs r4, r4, r0 \n"                     /* 11 */                                              \
    "sbcs r5, r5, r2 \n"                     /* 12 */                                              \
    "sbcs r6, r6, r3 \n"                     /* 13 */                                              \
    "ldmdb r1, {r0, r2, r3} \n"                                                                    \
    "sbcs r7, r7, r0 \n"                     /* 8 */                                               \
    "sbcs r8, r8, r2 \n"                     /* 9 */                                               \
    "sbcs r9, r9, r3 \n"                     /* 10 */                                              \
    "sbcs r10, r10, r0 \n"                   /* 8 */                                               \
    "sbcs r11, r11, r3 \n"                   /* 10 */                                              \
    "sbc lr, lr, #0 \n"                                                                            \
    "ldmib r1, {r0, r2, r3} \n"                                                                    \
    "subs r4, r4, r0 \n"                     /* 12 */                                              \
    "sbcs r5, r5, r2 \n"                     /* 13 */                                              \
    "sbcs r6, r6, r3 \n"                     /* 14 */                                              \
    "ldmda r1, {r0, r2, r3} \n"                                                                    \
    "sbcs r7, r7, r0 \n"                     /* 9 */                                               \
    "sbcs r8, r8, r2 \n"                     /* 10 */                                              \
    "sbcs r9, r9, r3 \n"                     /* 11 */                                              \
    "sbcs r10, r10, r0 \n"                   /* 9 */                                               \
    "sbcs r11, r11, r3 \n"                   /* 11 */                                              \
    "sbc lr, lr, #0 \n"                                                                            \
    "add r1, r1, #4 \n"                                                                            \
    "ldm r1, {r0, r2, r3, r12} \n"                                                                 \
    "subs r4, r4, r2 \n"                     /* 13 */                                              \
    "sbcs r5, r5, r3 \n"                     /* 14 */                                              \
    "sbcs r6, r6, r12 \n"                    /* 15 */                                              \
    "sbcs r7, r7, r12 \n"                    /* 15 */                                              \
    "sbcs r8, r8, #0 \n"                                                                           \
    "sbcs r9, r9, #0 \n"                                                                           \
    "sbcs r10, r10, #0 \n"                                                                         \
    "sbcs r11, r11, r0 \n"                   /* 12 */                                              \
    "sbc lr, lr, #0 \n"                                                                            \
    "subs r4, r4, r3 \n"                     /* 14 */                                              \
    "sbcs r5, r5, r12 \n"                    /* 15 */                                              \
    "sbcs r6, r6, #0 \n"                                                                           \
    "sbcs r7, r7, #0 \n"                                                                           \
    "sbcs r8, r8, #0 \n"                                                                           \
    "sbcs r9, r9, #0 \n"                                                                           \
    "sbcs r10, r10, #0 \n"                                                                         \
    "sbcs r11, r11, r2 \n"                   /* 13 */                                              \
    "sbc lr, lr, #0 \n"                                                                            \
    /* Take q back in. */                                                                          \
    "asr r0, lr, #31 \n"                     /* s */                                               \
    "rsb r2, lr, #0 \n"                                                                            \
    "asr r12, r2, #31 \n"                    /* n */                                               \
    "add r3, r0, r2 \n"                      /* s - q */                                           \
    "add r2, r12, r2 \n"                     /* n - q */                                           \
    "adds r4, r4, lr \n"                     /* q */                                               \
    "add lr, r12, lr \n"                     /* n + q */                                           \
    "adcs r5, r5, r0 \n"                                                                           \
    "adcs r6, r6, r0 \n"                                                                           \
    "adcs r7, r7, r3 \n"                                                                           \
    "adcs r8, r8, r12 \n"                                                                          \
    "adcs r9, r9, r12 \n"                                                                          \
    "adcs r10, r10, r2 \n"                                                                         \
    "adcs r11, r11, lr \n"                                                                         \
    "adcs r2, r0, #0 \n"                     /* what stands above: -1, 0 or 1 */

#define CORRECT_AND_RETURN                                                                         \
    "bne 2f \n"                                                                                    \
    "cmn r11, #1 \n"                         /* if not all ones: below p */                        \
    "beq 4f \n"                                                                                    \
    "1: \n"                                                                                        \
    STORE_AND_REPORT                                                                               \
    "2: \n"                                                                                        \
    "bmi 3f \n"                                                                                    \
    SUBTRACT_P                                                                                     \
    STORE_AND_REPORT                                                                               \
    "3: \n"                                                                                        \
    ADD_P                                                                                          \
    STORE_AND_REPORT                                                                               \
    "4: \n"                                                                                        \
    SUBTRACT_P                                                                                     \
    "bcs 1b \n"                                                                                    \
    ADD_P                                                                                          \
    "b 1b \n"

ASSEMBLY_FUNCTION static void vli_mmod_fast(uint64_t* /*r0*/, const uint64_t* /*r1*/)
{
    __asm__(
        "push {r0, r4-r11, lr} \n"
        REDUCE
        "pop {r0} \n"
        CORRECT_AND_RETURN);
}

// The products below return 0, having done nothing, if an overflow may be lost, else 1.
ASSEMBLY_FUNCTION static int true_mult(uint64_t* /*r0*/,
                                       const uint64_t* /*r1*/,
                                       const uint64_t* /*r2*/)
{
    __asm__(
        "push {r4-r11, lr} \n"
        LEAVE_IF_OVERFLOW_MAY_BE_LOST
        MULTIPLY
        "mov r0, #1 \n"
        "pop {r4-r11, pc} \n"
        "9: \n"
        "mov r0, #0 \n"
        "pop {r4-r11, pc} \n");
}

ASSEMBLY_FUNCTION static int true_square(uint64_t* /*r0*/, const uint64_t* /*r1*/)
{
    __asm__(
        "push {r4-r11, lr} \n"
        LEAVE_IF_SQUARE_OVERFLOW_MAY_BE_LOST
        "mov r2, r1 \n"
        MULTIPLY
        "mov r0, #1 \n"
        "pop {r4-r11, pc} \n"
        "9: \n"
        "mov r0, #0 \n"
        "pop {r4-r11, pc} \n");
}

ASSEMBLY_FUNCTION static int true_modMult(uint64_t* /*r0*/,
                                          const uint64_t* /*r1*/,
                                          const uint64_t* /*r2*/)
{
    __asm__(
        "push {r0, r4-r11, lr} \n"
        LEAVE_IF_OVERFLOW_MAY_BE_LOST
        "sub sp, sp, #64 \n"
        "mov r0, sp \n"
        MULTIPLY
        "mov r1, sp \n"
        REDUCE
        "add sp, sp, #64 \n"
        "pop {r0} \n"
        CORRECT_AND_RETURN
        "9: \n"
        "mov r0, #0 \n"
        "add sp, sp, #4 \n"
        "pop {r4-r11, pc} \n");
}

ASSEMBLY_FUNCTION static int true_modSquare(uint64_t* /*r0*/, const uint64_t* /*r1*/)
{
    __asm__(
        "push {r0, r4-r11, lr} \n"
        LEAVE_IF_SQUARE_OVERFLOW_MAY_BE_LOST
        "sub sp, sp, #64 \n"
        "mov r0, sp \n"
        "mov r2, r1 \n"
        MULTIPLY
        "mov r1, sp \n"
        REDUCE
        "add sp, sp, #64 \n"
        "pop {r0} \n"
        CORRECT_AND_RETURN
        "9: \n"
        "mov r0, #0 \n"
        "add sp, sp, #4 \n"
        "pop {r4-r11, pc} \n");
}

// clang-format on

#undef ASSEMBLY_FUNCTION
#undef STORE_AND_RETURN
#undef STORE_AND_REPORT
#undef ADD_OPERANDS
#undef SUBTRACT_OPERANDS
#undef SUBTRACT_P
#undef ADD_P
#undef ROW
#undef MULTIPLY
#undef LEAVE_IF_OVERFLOW_MAY_BE_LOST
#undef LEAVE_IF_SQUARE_OVERFLOW_MAY_BE_LOST
#undef REDUCE
#undef CORRECT_AND_RETURN

// The portable forms, for the operands that need them.
#define SELDOM __attribute__((noinline, cold)) static

SELDOM void mult_by_columns(uint64_t* p_result, const uint64_t* p_left, const uint64_t* p_right)
{
    portable::vli_mult(p_result, p_left, p_right);
}

SELDOM void square_by_columns(uint64_t* p_result, const uint64_t* p_left)
{
    portable::vli_square(p_result, p_left);
}

#undef SELDOM

static ALWAYS_INLINE void vli_mult(uint64_t* p_result, const uint64_t* p_left,
                                   const uint64_t* p_right)
{
    if (!true_mult(p_result, p_left, p_right)) {
        mult_by_columns(p_result, p_left, p_right);
    }
}

static ALWAYS_INLINE void vli_square(uint64_t* p_result, const uint64_t* p_left)
{
    if (!true_square(p_result, p_left)) {
        square_by_columns(p_result, p_left);
    }
}

static ALWAYS_INLINE void vli_modMult_fast(uint64_t* p_result, const uint64_t* p_left,
                                           const uint64_t* p_right)
{
    if (!true_modMult(p_result, p_left, p_right)) {
        portable::vli_modMult_fast(p_result, p_left, p_right);
    }
}

static ALWAYS_INLINE void vli_modSquare_fast(uint64_t* p_result, const uint64_t* p_left)
{
    if (!true_modSquare(p_result, p_left)) {
        portable::vli_modSquare_fast(p_result, p_left);
    }
}

} // namespace tuned

#elif defined(ECC_X86_64)

#include <immintrin.h>

namespace tuned {

__extension__ typedef unsigned __int128 Wide;

static ALWAYS_INLINE uint64_t upper_half(Wide p_wide)
{
    return static_cast<uint64_t>(p_wide >> DIGIT_BITS);
}

// One digit of a sum or a difference; returns the carry or borrow.
static ALWAYS_INLINE uint8_t add_digit(uint8_t p_carry, uint64_t p_left, uint64_t p_right,
                                       uint64_t* p_result)
{
    unsigned long long l_sum;
    p_carry = _addcarry_u64(p_carry, p_left, p_right, &l_sum);
    *p_result = l_sum;
    return p_carry;
}

static ALWAYS_INLINE uint8_t subtract_digit(uint8_t p_borrow, uint64_t p_left, uint64_t p_right,
                                            uint64_t* p_result)
{
    unsigned long long l_difference;
    p_borrow = _subborrow_u64(p_borrow, p_left, p_right, &l_difference);
    *p_result = l_difference;
    return p_borrow;
}

static ALWAYS_INLINE uint64_t vli_add(uint64_t* p_result, const uint64_t* p_left,
                                      const uint64_t* p_right)
{
    uint8_t l_carry = 0;
#pragma GCC unroll 4
    for (uint i = 0; i < VLI_DIGITS; ++i) {
        l_carry = add_digit(l_carry, p_left[i], p_right[i], &p_result[i]);
    }
    return l_carry;
}

static ALWAYS_INLINE uint64_t vli_sub(uint64_t* p_result, const uint64_t* p_left,
                                      const uint64_t* p_right)
{
    uint8_t l_borrow = 0;
#pragma GCC unroll 4
    for (uint i = 0; i < VLI_DIGITS; ++i) {
        l_borrow = subtract_digit(l_borrow, p_left[i], p_right[i], &p_result[i]);
    }
    return l_borrow;
}

// The number to choose, without a branch: which of the two it will be is random, and a wrong guess
// of the processor costs more than the operation.
static ALWAYS_INLINE void vli_choose(uint64_t* p_result, bool p_first, const uint64_t* p_left,
                                     const uint64_t* p_right)
{
    const uint64_t l_mask = -static_cast<uint64_t>(p_first);
#pragma GCC unroll 4
    for (uint i = 0; i < VLI_DIGITS; ++i) {
        p_result[i] = p_right[i] ^ (l_mask & (p_left[i] ^ p_right[i]));
    }
}

static ALWAYS_INLINE void vli_modAdd_fast(uint64_t* p_result, const uint64_t* p_left,
                                          const uint64_t* p_right)
{
    uint64_t l_sum[VLI_DIGITS];
    uint64_t l_less[VLI_DIGITS];
    const uint64_t l_carry = vli_add(l_sum, p_left, p_right);
    const uint64_t l_borrow = vli_sub(l_less, l_sum, curve_p);
    vli_choose(p_result, l_carry >= l_borrow, l_less, l_sum);
}

static ALWAYS_INLINE void vli_modSub_fast(uint64_t* p_result, const uint64_t* p_left,
                                          const uint64_t* p_right)
{
    const uint64_t l_none[VLI_DIGITS] = {0};
    uint64_t l_correction[VLI_DIGITS];
    const uint64_t l_borrow = vli_sub(p_result, p_left, p_right);
    vli_choose(l_correction, l_borrow != 0, curve_p, l_none);
    vli_add(p_result, p_result, l_correction);
}

// As portable::ColumnSum, with the same overflow test.
struct ColumnSum {
    Wide r01;
    uint64_t r2;
};

static ALWAYS_INLINE void column_add(ColumnSum* p_sum, Wide p_product)
{
    p_sum->r01 += p_product;
    p_sum->r2 += upper_half(p_sum->r01) < upper_half(p_product);
}

static ALWAYS_INLINE Wide column_double(ColumnSum* p_sum, Wide p_product)
{
    p_sum->r2 += upper_half(p_product) >> 63;
    return p_product << 1;
}

static ALWAYS_INLINE uint64_t column_next(ColumnSum* p_sum)
{
    const uint64_t l_digit = static_cast<uint64_t>(p_sum->r01);
    p_sum->r01 = static_cast<Wide>(p_sum->r2) << DIGIT_BITS | upper_half(p_sum->r01);
    p_sum->r2 = 0;
    return l_digit;
}

static ALWAYS_INLINE Wide mul_64_64(uint64_t p_left, uint64_t p_right)
{
    return static_cast<Wide>(p_left) * p_right;
}

static ALWAYS_INLINE void vli_mult(uint64_t* p_result, const uint64_t* p_left,
                                   const uint64_t* p_right)
{
    ColumnSum l_sum = {0, 0};
#pragma GCC unroll 8
    for (uint k = 0; k < 2 * VLI_DIGITS - 1; ++k) {
        const uint l_min = portable::column_first(k);
        const uint l_max = portable::column_last(k);
#pragma GCC unroll 4
        for (uint i = l_min; i <= l_max; ++i) {
            column_add(&l_sum, mul_64_64(p_left[i], p_right[k - i]));
        }
        p_result[k] = column_next(&l_sum);
    }
    p_result[2 * VLI_DIGITS - 1] = static_cast<uint64_t>(l_sum.r01);
}

static ALWAYS_INLINE void vli_square(uint64_t* p_result, const uint64_t* p_left)
{
    ColumnSum l_sum = {0, 0};
#pragma GCC unroll 8
    for (uint k = 0; k < 2 * VLI_DIGITS - 1; ++k) {
#pragma GCC unroll 4
        for (uint i = portable::column_first(k); 2 * i <= k; ++i) {
            Wide l_product = mul_64_64(p_left[i], p_left[k - i]);
            if (2 * i < k) {
                l_product = column_double(&l_sum, l_product);
            }
            column_add(&l_sum, l_product);
        }
        p_result[k] = column_next(&l_sum);
    }
    p_result[2 * VLI_DIGITS - 1] = static_cast<uint64_t>(l_sum.r01);
}

static ALWAYS_INLINE int add_term(uint64_t* p_result, const uint64_t* p_product,
                                  const portable::ReductionTerm& p_words)
{
    uint64_t l_term[VLI_DIGITS];
    portable::set_term(l_term, p_product, p_words);
    return static_cast<int>(vli_add(p_result, p_result, l_term));
}

static ALWAYS_INLINE int subtract_term(uint64_t* p_result, const uint64_t* p_product,
                                       const portable::ReductionTerm& p_words)
{
    uint64_t l_term[VLI_DIGITS];
    portable::set_term(l_term, p_product, p_words);
    return -static_cast<int>(vli_sub(p_result, p_result, l_term));
}

// Takes the counter q of whole 2^256, from -4 to 7, back in at once; returns what stands above the
// top digit then, which rarely is not 0. q 2^256 is congruent to q (2^224 - 2^192 - 2^96 + 1), in
// words of 32 bits, least significant first and with the borrows between them worked in,
// (q, s, s, s - q, n, n, n - q, n + q) and s above. There s = -1 for q < 0, n = -1 for q > 0, and
// both are 0 otherwise.
static ALWAYS_INLINE int take_in(uint64_t* p_result, int p_counter)
{
    const int64_t q = p_counter;
    const int64_t s = q >> 63;
    const int64_t n = -q >> 63;
    const auto pair = [](int64_t p_low, int64_t p_high) {
        return static_cast<uint64_t>(p_high) << 32 | static_cast<uint32_t>(p_low);
    };
    const uint64_t l_multiple[VLI_DIGITS] = {pair(q, s), pair(s, s - q), pair(n, n),
                                             pair(n - q, n + q)};
    return static_cast<int>(s) + static_cast<int>(vli_add(p_result, p_result, l_multiple));
}

// As the portable form, but s1 and s2 are doubled in one, and a single correction at the end seldom
// has anything left to do.
static ALWAYS_INLINE void vli_mmod_fast(uint64_t* p_result, const uint64_t* p_product)
{
    uint64_t l_sum[VLI_DIGITS];
    portable::set_term(l_sum, p_product, portable::s1);
    int l_counter = 2 * add_term(l_sum, p_product, portable::s2);
    l_counter += static_cast<int>(vli_add(l_sum, l_sum, l_sum));
    l_counter += static_cast<int>(vli_add(l_sum, l_sum, p_product)); // t
    l_counter += add_term(l_sum, p_product, portable::s3);
    l_counter += add_term(l_sum, p_product, portable::s4);
    l_counter += subtract_term(l_sum, p_product, portable::d1);
    l_counter += subtract_term(l_sum, p_product, portable::d2);
    l_counter += subtract_term(l_sum, p_product, portable::d3);
    l_counter += subtract_term(l_sum, p_product, portable::d4);
    portable::correct(l_sum, take_in(l_sum, l_counter));
    vli_set(p_result, l_sum);
}

static NEVER_INLINE void vli_modMult_fast(uint64_t* p_result, const uint64_t* p_left,
                                          const uint64_t* p_right)
{
    uint64_t l_product[2 * VLI_DIGITS];
    vli_mult(l_product, p_left, p_right);
    vli_mmod_fast(p_result, l_product);
}

static NEVER_INLINE void vli_modSquare_fast(uint64_t* p_result, const uint64_t* p_left)
{
    uint64_t l_product[2 * VLI_DIGITS];
    vli_square(l_product, p_left);
    vli_mmod_fast(p_result, l_product);
}

} // namespace tuned

#endif

// What the engine's other operations are made of.
#if defined(ECC_PORTABLE)
namespace primitives = portable;
#else
namespace primitives = tuned;
#endif

using portable::vli_modAdd;
using primitives::vli_add;
using primitives::vli_mmod_fast;
using primitives::vli_modAdd_fast;
using primitives::vli_modMult_fast;
using primitives::vli_modSquare_fast;
using primitives::vli_modSub_fast;
using primitives::vli_mult;
using primitives::vli_square;
using primitives::vli_sub;

#undef ECC_PORTABLE
#undef ECC_ARM
#undef ECC_X86_64

#endif
