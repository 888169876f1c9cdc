"""Proves, with the SMT solver z3, that the engine's tuned primitives give their portable forms' values.

The assembly is proved as it stands in ecc/ecc_tuned.h: it is executed here with integers for words,
every step adding what is known of its result to the solver's assumptions. A sum's word and carry, for
example, are two unknowns with word + 2^32 carry = left + right. Products of two words are unknowns
too, of which nothing is needed but their bounds; so all of it stays linear, and z3 decides it fast.

    /usr/bin/python3 tests/ecc_tuned_proofs.py      (Debian's own Python, with the package python3-z3)
"""

import re
import subprocess
import unittest
from pathlib import Path

from z3 import (And, BitVec, BitVecVal, Concat, Extract, If, Implies, Int, LShR, Not, Or, Solver,
                Sum, ULT, ZeroExt, sat, unsat)

ROOT = Path(__file__).resolve().parent.parent
WORD = 2**32
P = 2**256 - 2**224 + 2**192 + 2**96 - 1
REGISTERS = ["r%d" % i for i in range(13)] + ["sp", "lr", "pc"]


# ---- The assembly ------------------------------------------------------------------------------------

def assembly_functions():
    """The name and the lines of each function, out of the preprocessed header."""
    text = subprocess.run(
        ["g++", "-E", "-P", "-undef", "-D__ARM_ARCH_7A__", "-x", "c++",
         ROOT / "ecc" / "ecc_tuned.h"], check=True, capture_output=True, text=True).stdout
    functions = {}
    for name, body in re.findall(r"(\w+)\([^()]*\)\s*\{\s*__asm__\((.*?)\);\s*\}", text, re.S):
        code = "".join(re.findall(r'"((?:[^"\\]|\\.)*)"', body)).replace("\\n", "\n")
        functions[name] = [line.strip() for line in code.split("\n") if line.strip()]
    return functions


def register_list(text):
    names = []
    for part in text.strip("{}").split(","):
        first, _, last = part.strip().partition("-")
        begin = REGISTERS.index(first)
        names += REGISTERS[begin:REGISTERS.index(last or first) + 1]
    return names


class Way:
    """One way through a function: registers, memory, flags, and what is known of the unknowns.

    A register holds an integer, an expression or a pointer: the name of an array and a word's index.
    """

    def __init__(self, memory):
        self.registers = {}
        self.memory = memory
        self.carry = self.carry_digit = self.zero = self.negative = None
        self.known = []
        self.products = {}
        self.count = 0
        self.place = 0
        self.stores = 0
        self.counter = self.found = self.above = None
        self.taken = 0  # multiples of p that are taken off the result

    def copy(self):
        other = Way(dict(self.memory))
        for name in ("carry", "carry_digit", "zero", "negative", "count", "place", "stores", "taken", "counter",
                     "found", "above"):
            setattr(other, name, getattr(self, name))
        other.registers = dict(self.registers)
        other.known = list(self.known)
        other.products = dict(self.products)
        return other

    def unknown(self, limit):
        self.count += 1
        value = Int("u%d" % self.count)
        self.known += [value >= 0, value < limit]
        return value

    def product(self, x, y):
        for factor, other in ((x, y), (y, x)):
            if isinstance(factor, int):
                return factor * other
        key = tuple(sorted((str(x), str(y))))
        if key not in self.products:
            product = Int("%s*%s" % key)
            self.products[key] = product
            # Of a product of two words, no more is used than these.
            self.known += [product >= 0, product <= (WORD - 1) * x, product <= (WORD - 1) * y]
        return self.products[key]

    def split(self, value, limit=WORD):
        """Low word and what is above it, both unknown, of a sum below 2^32 limit."""
        low, high = self.unknown(WORD), self.unknown(limit)
        self.known.append(low + WORD * high == value)
        return low, high


CONDITIONS = {"bcs": ("carry", True), "bcc": ("carry", False), "beq": ("zero", True),
              "bne": ("zero", False), "bmi": ("negative", True)}


def execute(lines, arguments, memory, signed_counter=range(-4, 8)):
    """All ways through a function that returns; yields them where they end.

    Where a sign is taken of a counter (`asr` of lr), each value that the counter may have becomes a
    way of its own; that it has no other is proved on the spot."""
    start = Way(dict(memory))
    for name in REGISTERS:
        start.registers[name] = (name, 0)  # the caller's values: restored, never looked at
    for name, value in arguments.items():
        start.registers[name] = value
    start.known = [c for v in memory.values() for c in (v >= 0, v < WORD)]
    todo, ended = [start], []
    while todo:
        path = todo.pop()
        while True:
            line = lines[path.place]
            path.place += 1
            if line.endswith(":"):
                continue
            operation, _, rest = line.partition(" ")
            if operation in ("b", *CONDITIONS):
                taken = target(lines, path.place, rest)
                if operation == "b":
                    path.place = taken
                    continue
                flag, wanted = CONDITIONS[operation]
                condition = getattr(path, flag)
                if isinstance(condition, bool):
                    path.place = taken if condition == wanted else path.place
                    continue
                other = path.copy()
                other.place = taken
                other.known.append(condition if wanted else Not(condition))
                todo.append(other)
                path.known.append(Not(condition) if wanted else condition)
                continue
            operands = re.findall(r"\{[^}]*\}|\[[^\]]*\]|[^,\s]+!?", rest)
            if operation == "asr":
                todo += by_counter(path, operands, signed_counter)
                break
            if operation == "adcs" and isinstance(path.registers[operands[1]], int):
                todo += by_carry(path, operands)
                break
            step(path, operation, operands)
            # The one instruction that only SUBTRACT_P has, and the one that only ADD_P has.
            path.taken += {"sbcs r10, r10, #1": 1, "adcs r10, r10, #1": -1}.get(line, 0)
            if operation == "pop" and "pc" in operands[0]:
                ended.append(path)
                break
    return ended


def target(lines, place, label):
    number, direction = label.strip()[:-1], label.strip()[-1]
    if direction == "f":
        return lines.index(number + ":", place)
    return max(i for i in range(place) if lines[i] == number + ":")


def by_counter(path, operands, values):
    """Taking the sign: of the counter itself, then of its negative, which is known by then."""
    destination, source = operands[:2]
    value = path.registers[source]
    if isinstance(value, int):
        path.registers[destination] = -1 if value < 0 else 0
        return [path]
    prove(path.known, And(value >= values[0], value <= values[-1]), "the counter's range")
    ways = []
    for number in values:
        way = path.copy()
        way.known.append(value == number)
        way.taken = way.counter = number
        way.registers[source] = number
        way.registers[destination] = -1 if number < 0 else 0
        ways.append(way)
    return ways


def by_carry(path, operands):
    """A number and a carry: a way for each carry, after which the flags are known."""
    ways = []
    for carry in (0, 1):
        way = path.copy()
        value = way.registers[operands[1]] + int(operands[2][1:]) + carry
        way.known.append(way.carry_digit == carry)
        way.registers[operands[0]] = value
        way.zero, way.negative = value == 0, value < 0
        way.above = value
        way.found = weighted([way.registers["r%d" % i] for i in range(4, 12)])
        ways.append(way)
    return ways


def step(path, operation, operands):
    r = path.registers

    def value(operand):
        return int(operand[1:]) if operand.startswith("#") else r[operand]

    def set_flags(word, carry):
        path.carry, path.carry_digit = carry == 1, carry
        path.zero, path.negative = word == 0, word >= WORD // 2

    def add(destination, left, right, carry_in, flags):
        if not flags:
            r[destination] = left + right + carry_in
            return
        as_word = lambda x: x % WORD if isinstance(x, int) else x
        word, carry = path.split(as_word(left) + as_word(right) + carry_in, 2)
        r[destination] = word
        set_flags(word, carry)

    def subtract(destination, left, right, borrow_in, flags):
        if not flags:
            r[destination] = left - right - borrow_in
            return
        word, borrow = path.unknown(WORD), path.unknown(2)
        path.known.append(word - WORD * borrow == left - right - borrow_in)
        r[destination] = word
        set_flags(word, 1 - borrow)

    if operation in ("ldm", "ldmib", "ldmdb", "ldmda", "stm", "push", "pop", "ldr", "str"):
        transfer(path, operation, operands)
    elif operation == "mov":
        r[operands[0]] = value(operands[1])
    elif operation in ("adds", "adcs", "adc", "subs", "sbcs", "sbc"):
        destination, left, right = operands
        same = left == right  # a register less itself
        left, right = value(left), value(right)
        if same and operation == "sbc":
            left = right = 0
        starts, flags = operation in ("adds", "subs"), operation.endswith("s")
        if operation.startswith("ad"):
            add(destination, left, right, 0 if starts else path.carry_digit, flags)
        else:
            subtract(destination, left, right, 0 if starts else 1 - path.carry_digit, flags)
    elif operation in ("add", "sub", "rsb"):
        destination, left, right = operands
        left, right = value(left), value(right)
        if operation == "rsb":
            left, right = right, left
        if isinstance(left, tuple):
            offset, rest = divmod(right, 4)
            assert rest == 0
            r[destination] = (left[0], left[1] + (offset if operation == "add" else -offset))
        else:
            r[destination] = left + right if operation == "add" else left - right
    elif operation in ("umull", "umlal", "umaal"):
        low, high, x, y = operands
        product = path.product(r[x], r[y])
        if operation == "umull":
            total = product
        elif operation == "umaal":
            total = r[low] + r[high] + product
        else:
            total = r[low] + WORD * r[high] + product
            # Fits unless the sum is meant modulo 2^64: the top is then lost, as it is here.
            low_word, high_word, top = path.unknown(WORD), path.unknown(WORD), path.unknown(2)
            path.known.append(low_word + WORD * high_word + WORD**2 * top == total)
            r[low], r[high] = low_word, high_word
            return
        r[low], r[high] = path.split(total)
    elif operation in ("cmn", "cmncc"):
        left, right = value(operands[0]), value(operands[1])
        if len(operands) > 2:
            assert operands[2:] == ["lsl", "#1"]
            right, _ = path.split(2 * right, 2)
        carry = left + right >= WORD
        path.carry = carry if operation == "cmn" else Or(path.carry, carry)
        path.carry_digit = None  # asked for by conditions only
        path.zero = left + right == WORD
    else:
        raise AssertionError("unknown instruction " + operation)


def transfer(path, operation, operands):
    r = path.registers
    if operation in ("push", "pop"):
        operation, operands = {"push": ("stmdb", ["sp!", *operands]),
                               "pop": ("ldm", ["sp!", *operands])}[operation]
    if operation == "ldr":
        base, _, offset = operands[1].strip("[]").partition(",")
        array, index = r[base]
        r[operands[0]] = path.memory[array, index + int(offset.strip(" #") or 0) // 4]
        return
    base, names = operands[0].rstrip("!"), register_list(operands[1])
    array, index = r[base]
    mode = operation[3:] or "ia"
    first = {"ia": index, "ib": index + 1, "db": index - len(names),
             "da": index - len(names) + 1}[mode]
    if operands[0].endswith("!"):
        moved = len(names) if mode[0] == "i" else -len(names)
        r[base] = (array, index + moved)
    for i, name in enumerate(names):
        if operation.startswith("ldm"):
            r[name] = path.memory[array, first + i]
        else:
            path.memory[array, first + i] = r[name]
            path.stores += array == "result"


# ---- Proving -----------------------------------------------------------------------------------------

def prove(known, claim, what=""):
    """Fails for a counterexample, and if there is no answer: a false claim can take forever."""
    solver = Solver()
    solver.set("timeout", 60000)
    solver.add(*known)
    solver.add(Not(claim))
    result = solver.check()
    if result != unsat:
        raise AssertionError("%s: %s" % (what, solver.model() if result == sat else result))


def possible(known):
    solver = Solver()
    solver.add(*known)
    return solver.check() != unsat


def words(array, count):
    return {(array, i): Int("%s%d" % (array, i)) for i in range(count)}


def weighted(values):
    return Sum([value * WORD**i for i, value in enumerate(values)])


def number(memory, array, count):
    return weighted([memory[array, i] for i in range(count)])


FUNCTIONS = assembly_functions()
UNARY = {"r0": ("result", 0), "r1": ("left", 0)}
BINARY = {"r0": ("result", 0), "r1": ("left", 0), "r2": ("right", 0)}


def sum_of_terms(product):
    """t + 2 s1 + 2 s2 + s3 + s4 - d1 - d2 - d3 - d4, by the tables of the portable form."""
    source = (ROOT / "ecc" / "ecc.cpp").read_text()
    total = weighted(product[:8])
    for name, factor in (("s1", 2), ("s2", 2), ("s3", 1), ("s4", 1),
                         ("d1", -1), ("d2", -1), ("d3", -1), ("d4", -1)):
        table = re.search(r"ReductionTerm %s = \{(.*?)\}" % name, source).group(1)
        chosen = [0 if word == "NONE" else product[int(word)] for word in table.split(", ")]
        total = total + factor * weighted(chosen)
    return total


def binary(name):
    """The operands and each possible way through a function of two numbers."""
    memory = {**words("left", 8), **words("right", 8)}
    ways = [way for way in execute(FUNCTIONS[name], BINARY, memory) if possible(way.known)]
    return number(memory, "left", 8), number(memory, "right", 8), ways


class Assembly(unittest.TestCase):
    def test_add_gives_the_sum_and_its_carry(self):
        left, right, ways = binary("vli_add")
        for way in ways:
            result = number(way.memory, "result", 8)
            prove(way.known, result + 2**256 * way.registers["r0"] == left + right)
            prove(way.known, And(result >= 0, result < 2**256))

    def test_sub_gives_the_difference_and_its_borrow(self):
        left, right, ways = binary("vli_sub")
        for way in ways:
            result = number(way.memory, "result", 8)
            prove(way.known, result - 2**256 * way.registers["r0"] == left - right)
            prove(way.known, And(result >= 0, result < 2**256))

    def test_mod_add_subtracts_p_from_a_sum_that_is_not_below_it(self):
        left, right, ways = binary("vli_modAdd_fast")
        self.assertGreater(len(ways), 3)
        for way in ways:
            result = number(way.memory, "result", 8)
            total = left + right
            reduced = If(total >= P, total - P, total)
            # Operands that are not below p may leave more than 256 bits, which are dropped.
            prove(way.known, Or(result == reduced, result == reduced - 2**256))
            prove(way.known, And(result >= 0, result < 2**256))

    def test_mod_sub_adds_p_to_a_difference_below_0(self):
        left, right, ways = binary("vli_modSub_fast")
        self.assertEqual(len(ways), 2)
        for way in ways:
            result = number(way.memory, "result", 8)
            reduced = If(left < right, left - right + P, left - right)
            prove(way.known, Or(result == reduced, result == reduced + 2**256))
            prove(way.known, And(result >= 0, result < 2**256))

    def test_the_product_is_the_true_one(self):
        for name, right in (("true_mult", "right"), ("true_square", "left")):
            for way in self.ways_that_multiply(name):
                prove(way.known, number(way.memory, "result", 16) == self.true_product(way, right))

    def test_the_reduction_gives_the_remainder(self):
        product = words("left", 16)
        self.prove_remainders(execute(FUNCTIONS["vli_mmod_fast"], UNARY, product),
                              list(product.values()))

    def test_product_and_reduction_in_one_are_the_two_of_above(self):
        for name, product in (("true_modMult", "true_mult"), ("true_modSquare", "true_square")):
            first, second = FUNCTIONS[product], FUNCTIONS["vli_mmod_fast"]
            leave, give = first.index("bcs 9f") + 1, first.index("mov r0, #1")
            restore = second.index("pop {r0}")
            self.assertEqual(
                FUNCTIONS[name],
                ["push {r0, r4-r11, lr}", *first[1:leave], "sub sp, sp, #64", "mov r0, sp",
                 *first[leave:give], "mov r1, sp", *second[1:restore], "add sp, sp, #64",
                 *second[restore:], "9:", "mov r0, #0", "add sp, sp, #4", "pop {r4-r11, pc}"])

    def ways_that_multiply(self, name):
        memory = {**words("left", 8), **words("right", 8)}
        ways = execute(FUNCTIONS[name], BINARY, memory)
        for way in ways:
            self.assertEqual(way.registers["r0"], 1 if way.stores else 0)
        return [way for way in ways if way.stores]

    @staticmethod
    def true_product(way, right):
        return Sum([way.product(way.memory["left", i], way.memory[right, j]) * WORD**(i + j)
                    for i in range(8) for j in range(8)])

    def prove_remainders(self, ways, product):
        """Each result is below p, and differs from the sum of the terms by a known multiple of p."""
        terms = sum_of_terms(product)
        self.assertEqual(len(ways), 12 * 4)
        for way in ways:
            result = number(way.memory, "result", 8)
            prove(way.known, terms - result == way.taken * P)
            # Below p: by what the correction did to the sum that it found.
            found, above, corrections = way.found, way.above, way.taken - way.counter
            corrected = result == found + 2**256 * above - corrections * P
            prove(way.known, corrected)
            if above == 0 and corrections == 0:
                prove(way.known, found < P)
                prove([corrected, found < P], result < P)
            elif above < 0:
                prove([corrected, found < 2**256], result < P)
            else:
                prove(way.known, result < P)


class LostOverflow(unittest.TestCase):
    """Where the assembly does not leave for the portable form, no column_add loses an overflow."""

    def setUp(self):
        self.known = []
        memory = {**words("left", 8), **words("right", 8)}
        self.staying = {}
        for name in ("true_mult", "true_square"):
            self.staying[name], = [w for w in execute(FUNCTIONS[name], BINARY, memory) if w.stores]

    def products(self, way, left, i, right, j):
        """The four products of words of two digits, as mul_64_64 adds them up."""
        digit = lambda array, k: (way.memory[array, 2 * k], way.memory[array, 2 * k + 1])
        (a0, a1), (b0, b1) = digit(left, i), digit(right, j)
        return (way.product(a0, b0) + WORD * (way.product(a0, b1) + way.product(a1, b0)) +
                WORD**2 * way.product(a1, b1))

    def prove_columns(self, way, right, columns, factor):
        """Before each addition but a column's first, the sum's high half is not all ones."""
        for pairs in columns:
            low = way.unknown(WORD**2)  # what the column before leaves
            overflows = way.unknown(9)  # of four additions and two doublings at most
            total = low + WORD**2 * overflows
            for step_, (i, j) in enumerate(pairs[:-1]):
                doubled = factor if i != j else 1
                total = total + doubled * self.products(way, "left", i, right, j)
                above, high, rest = way.unknown(16), way.unknown(WORD**2), way.unknown(WORD**2)
                way.known.append(total == rest + WORD**2 * high + WORD**4 * above)
                prove(way.known, high != WORD**2 - 1, "column %s, %d" % (pairs, step_))

    def test_no_overflow_is_lost_in_a_product(self):
        columns = [[(i, k - i) for i in range(4) if 0 <= k - i <= 3] for k in range(7)]
        self.prove_columns(self.staying["true_mult"], "right", columns, 1)

    def test_no_overflow_is_lost_in_a_square(self):
        columns = [[(i, k - i) for i in range(4) if i <= k - i <= 3] for k in range(7)]
        self.prove_columns(self.staying["true_square"], "left", columns, 2)

    def test_elsewhere_the_column_sum_counts_each_overflow(self):
        # A sum of two digits each, a carry between them, as add_128_128 and column_add have it.
        low, high, add_low, add_high = (BitVec(n, 64) for n in ("l", "h", "al", "ah"))
        new_low = low + add_low
        new_high = high + add_high + If(ULT(new_low, low), BitVecVal(1, 64), BitVecVal(0, 64))
        wide = lambda h, l: ZeroExt(1, Concat(h, l))
        true_sum = wide(high, low) + wide(add_high, add_low)
        prove([], Extract(127, 0, true_sum) == Concat(new_high, new_low))
        counted = ULT(new_high, add_high)
        overflowed = Extract(128, 128, true_sum) == 1
        prove([high != BitVecVal(2**64 - 1, 64)], counted == overflowed)
        prove([], Implies(counted, overflowed))


class Digits(unittest.TestCase):
    """What the 128-bit integers and the additions with carry of x86-64 rest on."""

    def test_the_portable_carry_is_the_true_one(self):
        left, right, carry = BitVec("left", 64), BitVec("right", 64), BitVec("carry", 64)
        known = [ULT(carry, BitVecVal(2, 64))]
        total = left + right + carry
        kept = If(total != left, If(ULT(total, left), BitVecVal(1, 64), BitVecVal(0, 64)), carry)
        true_sum = ZeroExt(1, left) + ZeroExt(1, right) + ZeroExt(1, carry)
        prove(known, Concat(Extract(0, 0, kept), total) == true_sum)
        prove(known, ULT(kept, BitVecVal(2, 64)))

    def test_the_portable_borrow_is_the_true_one(self):
        left, right, borrow = BitVec("left", 64), BitVec("right", 64), BitVec("borrow", 64)
        known = [ULT(borrow, BitVecVal(2, 64))]
        rest = left - right - borrow
        kept = If(rest != left, If(ULT(left, rest), BitVecVal(1, 64), BitVecVal(0, 64)), borrow)
        true_rest = ZeroExt(1, left) - ZeroExt(1, right) - ZeroExt(1, borrow)
        prove(known, Concat(Extract(0, 0, kept), rest) == true_rest)
        prove(known, ULT(kept, BitVecVal(2, 64)))

    def test_the_portable_product_of_two_digits_is_the_true_one(self):
        m0, m1, m2, m3 = (Int("m%d" % i) for i in range(4))
        greatest = (WORD - 1)**2
        known = [c for m in (m0, m1, m2, m3) for c in (m >= 0, m <= greatest)]
        m0_low, m0_high, low, high, wrap = (Int(n) for n in ("m0l", "m0h", "low", "high", "wrap"))
        known += [m0 == m0_low + WORD * m0_high, m0_low >= 0, m0_low < WORD, m0_high >= 0]
        first = m2 + m0_high
        prove(known, first < WORD**2, "only the second addition can overflow")
        middle = first + m1 - WORD**2 * wrap
        known += [wrap >= 0, wrap <= 1, middle >= 0, middle < WORD**2,
                  middle == low + WORD * high, low >= 0, low < WORD, high >= 0]
        prove(known, (wrap == 1) == (middle < m1))
        result = m0_low + WORD * low + WORD**2 * (m3 + WORD * wrap + high)
        prove(known, result == m0 + WORD * (m1 + m2) + WORD**2 * m3)
        prove(known, m3 + WORD * wrap + high < WORD**2 + WORD)

    def test_doubling_a_product_is_a_shift_of_both_halves(self):
        low, high = BitVec("low", 64), BitVec("high", 64)
        doubled = ZeroExt(1, Concat(high, low)) << 1
        halves = Concat(high << 1 | LShR(low, 63), low << 1)
        prove([], Concat(Extract(0, 0, LShR(high, 63)), halves) == doubled)

    def test_the_words_that_take_in_the_counter_are_its_multiple(self):
        for q in range(-4, 8):
            s, n = (-1 if q < 0 else 0), (-1 if q > 0 else 0)
            pair = lambda low, high: high % WORD * WORD + low % WORD
            digits = [pair(q, s), pair(s, s - q), pair(n, n), pair(n - q, n + q)]
            multiple = sum(digit * WORD**(2 * i) for i, digit in enumerate(digits)) + s * 2**256
            self.assertEqual(multiple, q * (2**256 - P))


if __name__ == "__main__":
    unittest.main()
