"""Proves, with the SMT solver z3, what the engine's portable arithmetic computes, for all operands.

The functions are executed as g++ understands them: support/gimple.py reads what the compiler makes of
ecc/ecc.cpp, so that no model stands between the proofs and the code. docs/soundness.md tells what is
proved here, and what is not.

    /usr/bin/python3 tests/ecc_proofs.py      (Debian's own Python, with the package python3-z3)
"""

import sys
import tempfile
import unittest
from itertools import product
from pathlib import Path

from z3 import And, BitVecVal, Concat, Extract, If, Int, LShR, Not, Or, UGE, UGT, ULE, ULT, ZeroExt

sys.path.insert(0, str(Path(__file__).resolve().parent / "support"))
from gimple import Bits, Counter, Execution, Integers, compile_functions, loop_heads, prove  # noqa: E402

ROOT = Path(__file__).resolve().parent.parent
HARNESS = ROOT / "tests" / "support" / "ecc_proved.cpp"
P = 2**256 - 2**224 + 2**192 + 2**96 - 1

# FIPS 186-4, appendix D.2.3: the words of each term, most significant first as printed there.
TERMS = [(1, (7, 6, 5, 4, 3, 2, 1, 0)),
         (2, (15, 14, 13, 12, 11, None, None, None)),
         (2, (None, 15, 14, 13, 12, None, None, None)),
         (1, (15, 14, None, None, None, 10, 9, 8)),
         (1, (8, 13, 15, 14, 13, 11, 10, 9)),
         (-1, (10, 8, None, None, None, 13, 12, 11)),
         (-1, (11, 9, None, None, 15, 14, 13, 12)),
         (-1, (12, None, 10, 9, 8, 15, 14, 13)),
         (-1, (13, None, 11, 10, 9, None, 15, 14))]


def functions_of(root):
    return compile_functions(HARNESS, root, "proved_", ["-DZENTRAVA_PORTABLE_ENGINE"])


def array(domain, name, digits):
    return {(name, 8 * i): domain.unknown("%s%d" % (name, i)) for i in range(digits)}


def number(memory, name, digits=4):
    return sum(memory[name, 8 * i] * 2**(64 * i) for i in range(digits))


def wide(memory, name, digits=4, bits=None):
    """A number as one bit-vector, with room above it."""
    value = Concat(*[memory[name, 8 * i] for i in reversed(range(digits))])
    return ZeroExt((bits or 64 * digits + 8) - 64 * digits, value)


def where_they_lie(result, left, right):
    """Pointers to the operands, and the name of the result's array."""
    return {"result": (result, 0), "left": (left, 0), "right": (right, 0), "mod": ("mod", 0)}


ALIASES = {"apart": ("result", "left", "right"), "in the left operand": ("left", "left", "right"),
           "in the right operand": ("right", "left", "right"), "in both": ("left", "left", "left")}


class Proofs(unittest.TestCase):
    root = ROOT

    @classmethod
    def setUpClass(cls):
        cls.functions = functions_of(cls.root)

    def run_function(self, name, domain, arguments, memory, **start):
        return Execution(self.functions["proved_" + name], domain, arguments, memory, **start).ends

    def only_return(self, name, domain, arguments, memory):
        (kind, _, after, value), = self.run_function(name, domain, arguments, memory)
        self.assertEqual(kind, "return")
        return after, value

    def of_two_numbers(self, name):
        """For each place of the result: left, right, modulus, result, value, and what is known."""
        for place, (result, left, right) in ALIASES.items():
            domain = Integers()
            before = {**array(domain, "left", 4), **array(domain, "right", 4), **array(domain, "mod", 4),
                      **{("result", 8 * i): 0 for i in range(4)}}
            after, value = self.only_return(name, domain, where_they_lie(result, left, right), before)
            yield (number(before, left), number(before, right), number(before, "mod"),
                   number(after, result), value, domain.known, place)

    # ---- Numbers

    def test_add_gives_the_sum_and_its_carry(self):
        for left, right, _, result, carry, known, place in self.of_two_numbers("add"):
            prove(known, result + 2**256 * carry == left + right, place)
            prove(known, And(result >= 0, result < 2**256, carry >= 0, carry <= 1), place)

    def test_sub_gives_the_difference_and_its_borrow(self):
        for left, right, _, result, borrow, known, place in self.of_two_numbers("sub"):
            prove(known, result - 2**256 * borrow == left - right, place)
            prove(known, And(result >= 0, result < 2**256, borrow >= 0, borrow <= 1), place)

    def test_cmp_compares(self):
        domain = Bits()
        memory = {**array(domain, "left", 4), **array(domain, "right", 4)}
        _, value = self.only_return("cmp", domain, where_they_lie("result", "left", "right"), memory)
        left, right = wide(memory, "left"), wide(memory, "right")
        expected = If(UGT(left, right), BitVecVal(1, 64),
                      If(ULT(left, right), BitVecVal(-1, 64), BitVecVal(0, 64)))
        prove([], value == expected)

    def test_lshift_shifts_and_gives_the_bits_shifted_out(self):
        for source, shift in product(("left", "result"), range(1, 64)):
            domain = Bits()
            memory = {**array(domain, "left", 4), **array(domain, "result", 4)}
            arguments = {"result": ("result", 0), "in": (source, 0), "shift": BitVecVal(shift, 32)}
            after, value = self.only_return("lshift", domain, arguments, memory)
            shifted = wide(memory, source, 4, 320) << shift
            prove([], Concat(value, wide(after, "result", 4, 256)) == shifted, shift)

    def test_rshift1_halves(self):
        domain = Bits()
        memory = array(domain, "result", 4)
        after, _ = self.only_return("rshift1", domain, {"result": ("result", 0)}, memory)
        prove([], wide(after, "result") == LShR(wide(memory, "result"), 1))

    # ---- Products

    def test_mul_64_64_gives_the_product(self):
        domain = Integers()
        left, right = domain.unknown("left"), domain.unknown("right")
        after, _ = self.only_return(
            "mul_64_64", domain, {"result": ("result", 0), "left": left, "right": right},
            {("result", 0): 0, ("result", 8): 0})
        (a0, a1), (b0, b1) = domain.split(left, 32), domain.split(right, 32)
        true_product = (domain.product(a0, b0) + 2**64 * domain.product(a1, b1) +
                        2**32 * (domain.product(a0, b1) + domain.product(a1, b0)))
        result = number(after, "result", 2)
        prove(domain.known, result == true_product)
        prove(domain.known, And(result >= 0, result < 2**128))

    def of_bits(self, name):
        domain = Bits()
        before = {**array(domain, "left", 3), **array(domain, "right", 2), **array(domain, "result", 3)}
        after, value = self.only_return(name, domain, where_they_lie("result", "left", "right"), before)
        return before, after, value

    def test_add_128_128_gives_the_sum_modulo_2_to_the_128(self):
        before, after, _ = self.of_bits("add_128_128")
        prove([], wide(after, "result", 2, 128) == wide(before, "left", 2, 128) + wide(before, "right", 2, 128))

    def test_a_column_loses_an_overflow_exactly_below_a_high_half_of_all_ones(self):
        before, after, _ = self.of_bits("column_add")
        true_sum = wide(before, "left", 3, 256) + wide(before, "right", 2, 256)
        result = wide(after, "result", 3, 256)
        ones = before["left", 8] == BitVecVal(-1, 64)
        carry = Extract(64, 64, ZeroExt(1, before["left", 0]) + ZeroExt(1, before["right", 0])) == 1
        room = ULT(before["left", 16], BitVecVal(-1, 64))
        lost = And(ones, carry)
        prove([room, Not(lost)], result == true_sum)
        prove([room, lost], result == true_sum - (BitVecVal(1, 256) << 128))

    def test_the_overflow_word_never_overflows(self):
        # Each step adds at most 1 to it, so that the eight steps that a column has at most (four
        # products, each doubled) leave it at 8 or below; the next column starts at 0.
        for name in ("column_add", "column_double"):
            before, after, _ = self.of_bits(name)
            prove([ULT(before["left", 16], BitVecVal(8, 64))],
                  And(UGE(after["result", 16], before["left", 16]),
                      ULE(after["result", 16] - before["left", 16], BitVecVal(1, 64))), name)
        _, after, _ = self.of_bits("column_next")
        prove([], after["result", 16] == 0)

    def test_a_doubled_product_and_its_top_bit_are_twice_the_product(self):
        before, after, _ = self.of_bits("column_double")
        top = after["result", 16] - before["left", 16]
        prove([], Concat(top, wide(after, "result", 2, 128)) == wide(before, "right", 2, 192) << 1)

    def test_a_column_hands_on_all_but_its_lowest_digit(self):
        before, after, digit = self.of_bits("column_next")
        prove([], Concat(wide(after, "result", 3, 192), digit) == wide(before, "left", 3, 256))

    # ---- Modulo

    def test_mod_add_gives_the_sum_modulo_any_modulus(self):
        for left, right, mod, result, _, known, place in self.of_two_numbers("modAdd"):
            total = left + right
            prove(known + [left < mod, right < mod],
                  And(result == If(total >= mod, total - mod, total), result < mod), place)

    def test_mod_sub_gives_the_difference_modulo_any_modulus(self):
        for left, right, mod, result, _, known, place in self.of_two_numbers("modSub"):
            prove(known + [left < mod, right < mod],
                  And(result == If(left < right, left - right + mod, left - right), result < mod,
                      result >= 0), place)

    # ---- The fast reduction

    def test_before_its_correction_the_reduction_has_the_sum_of_the_terms(self):
        domain = Integers()
        memory = {**array(domain, "left", 8), **{("result", 8 * i): 0 for i in range(4)}}
        words = [word for i in range(8) for word in domain.split(memory["left", 8 * i], 32)]
        ends = self.run_function("mmod_fast", domain, {"result": ("result", 0), "left": ("left", 0)}, memory)
        self.assertEqual(len(ends), 2)  # into one loop or the other
        factors = term_factors()
        total = sum(factor * word for factor, word in zip(factors, words))
        for _, _, after, values in ends:
            counter, = values.values()
            value = number(after, "result") + 2**256 * counter.value
            prove([], domain.with_definitions(value - total) == 0)
            in_bounds = And(counter.value >= -4, counter.value <= 5)
            prove(domain.nearby(in_bounds), in_bounds)
        below_0, = (condition for head, condition, _, _ in ends if head == self.correction_heads()[0])
        prove([], below_0 == (counter.value < 0))

    def test_the_sum_of_the_terms_is_the_product_modulo_p(self):
        for word, factor in enumerate(term_factors()):
            self.assertEqual((factor - 2**(32 * word)) % P, 0, word)

    def test_the_sum_of_the_terms_lies_between_4_p_below_0_and_7_p(self):
        words = [Int("c%d" % i) for i in range(16)]
        known = [bound for word in words for bound in (word >= 0, word < 2**32)]
        total = sum(factor * word for factor, word in zip(term_factors(), words))
        prove(known, And(total >= -4 * P, total < 7 * P))

    def correction_heads(self):
        """The heads of the loops: of that which adds p, and of that which subtracts it."""
        return sorted(loop_heads(self.functions["proved_mmod_fast"]))

    def one_round(self, loop, counter):
        """From a loop's head: what is left, and how. Any digits, and the counter given."""
        domain = Integers()
        memory = array(domain, "result", 4)
        domain.known += [counter > -1000, counter < 1000]
        head = self.correction_heads()[loop]
        variable, = self.head_variables(head)
        ends = self.run_function("mmod_fast", domain, {"result": ("result", 0), "left": ("left", 0)}, memory,
                                 start=head, start_values={variable: Counter(counter)})
        self.assertEqual({end[0] for end in ends}, {"return", head})
        value = number(memory, "result") + 2**256 * counter
        return head, ends, value, domain.known

    def head_variables(self, head):
        return [line.split()[1] for line in self.functions["proved_mmod_fast"].blocks[head]
                if line.startswith("# ") and " PHI " in line]

    def test_below_0_each_round_adds_p_until_the_value_is_from_0_to_p(self):
        head, ends, value, known = self.one_round(0, Int("counter"))
        known += [Int("counter") < 0]
        for kind, condition, after, values in ends:
            result = number(after, "result")
            if kind == head:
                counter, = values.values()
                prove(known + [condition], And(counter.value < 0, value + P < 0,
                                               result + 2**256 * counter.value == value + P))
            else:
                prove(known + [condition], And(result == value + P, result >= 0, result < P))
        prove(known, Or(*(condition for _, condition, _, _ in ends)))

    def test_otherwise_each_round_subtracts_p_until_the_value_is_below_p(self):
        head, ends, value, known = self.one_round(1, Int("counter"))
        known += [Int("counter") >= 0]
        for kind, condition, after, values in ends:
            result = number(after, "result")
            if kind == head:
                counter, = values.values()
                prove(known + [condition], And(counter.value >= 0, value - P >= 0,
                                               result + 2**256 * counter.value == value - P))
            else:
                prove(known + [condition], And(result == value, result >= 0, result < P))
        prove(known, Or(*(condition for _, condition, _, _ in ends)))


def term_factors():
    """The factor of each word of the product in the sum of the terms."""
    factors = [0] * 16
    for factor, words in TERMS:
        for place, word in enumerate(reversed(words)):
            if word is not None:
                factors[word] += factor * 2**(32 * place)
    return factors


# What would make the engine wrong, and the proof that would then fail.
WRONG = [
    ("add_gives_the_sum_and_its_carry", "if (l_sum != p_left[i]) {", "{"),
    ("sub_gives_the_difference_and_its_borrow", "l_borrow = l_diff > p_left[i];", "l_borrow = l_diff >= p_right[i];"),
    ("cmp_compares", "if (p_left[i] < p_right[i]) {", "if (p_left[i] <= p_right[i]) {"),
    ("lshift_shifts_and_gives_the_bits_shifted_out", "l_carry = l_digit >> (DIGIT_BITS - p_shift);",
     "l_carry = l_digit >> (63 - p_shift);"),
    ("rshift1_halves", "l_carry = l_digit << (DIGIT_BITS - 1);", "l_carry |= l_digit << (DIGIT_BITS - 1);"),
    ("mul_64_64_gives_the_product", "if (m2 < m1) {", "if (m2 <= m1) {"),
    ("add_128_128_gives_the_sum_modulo_2_to_the_128", "(l_low < a.m_low)", "(l_low <= a.m_low)"),
    ("a_column_loses_an_overflow_exactly_below_a_high_half_of_all_ones",
     "p_sum->r01.m_high < p_product.m_high", "p_sum->r01.m_high <= p_product.m_high"),
    ("the_overflow_word_never_overflows", "p_sum->r2 += p_product.m_high >> 63;",
     "p_sum->r2 += p_product.m_high >> 62;"),
    ("a_doubled_product_and_its_top_bit_are_twice_the_product", "| (p_product.m_low >> 63)", ""),
    ("a_column_hands_on_all_but_its_lowest_digit", "{p_sum->r01.m_high, p_sum->r2};", "{p_sum->r01.m_high, 0};"),
    ("mod_add_gives_the_sum_modulo_any_modulus", "vli_cmp(p_result, p_mod) >= 0", "vli_cmp(p_result, p_mod) > 0"),
    ("mod_sub_gives_the_difference_modulo_any_modulus", "if (l_borrow != 0) {", "if (l_borrow == 0) {"),
    ("before_its_correction_the_reduction_has_the_sum_of_the_terms", "s3 = {8, 9, 10,", "s3 = {8, 9, 11,"),
    ("below_0_each_round_adds_p_until_the_value_is_from_0_to_p", "} while (p_carry < 0);",
     "} while (p_carry < -1);"),
    ("otherwise_each_round_subtracts_p_until_the_value_is_below_p", "vli_cmp(curve_p, p_result) != 1",
     "vli_cmp(curve_p, p_result) == -1"),
]


class AWrongEngine(unittest.TestCase):
    def test_is_not_proved(self):
        source = (ROOT / "ecc" / "ecc.cpp").read_text()
        for proof, right, wrong in WRONG:
            with self.subTest(proof), tempfile.TemporaryDirectory() as root:
                self.assertEqual(source.count(right), 1, right)
                (Path(root) / "ecc").mkdir()
                for name in ("ecc.h", "ecc_tuned.h"):
                    (Path(root) / "ecc" / name).symlink_to(ROOT / "ecc" / name)
                (Path(root) / "ecc" / "ecc.cpp").write_text(source.replace(right, wrong))
                proofs = type("WrongProofs", (Proofs,), {"root": Path(root)})
                proofs.setUpClass()
                with self.assertRaises(AssertionError):
                    getattr(proofs(), "test_" + proof)()


if __name__ == "__main__":
    unittest.main()
