"""Executes functions as g++ understands them, with unknowns for operands, for proofs by z3.

g++ writes down a function's last form before it becomes machine code (-fdump-tree-optimized): loops
unrolled, calls put in place, every value assigned once. What the engine's functions need of that
language is little; anything else is an error here, never skipped.

Digits are executed in one of two domains:

  Bits       bit-vectors of 64 bits
  Integers   integers from 0 to 2^64 - 1. A sum is left + right - 2^64 wrap, with a new unknown for
             the wrap; a shift or mask takes a number apart into two unknowns. So everything stays
             linear. A product of two numbers below 2^32 is an unknown too, of which nothing is known
             but its bounds. Where the code derives a carry by comparing, it is tried whether the carry
             is the wrap, and if z3 proves that it is, the wrap takes its place.
"""

import re
import subprocess
from itertools import count
from pathlib import Path

from z3 import (And, BitVec, BitVecVal, BoolRef, BoolVal, If, Int, IntVal, LShR, Not, Or, Solver, Sum, UGT, ULE, ULT,
                Z3_OP_UNINTERPRETED, ZeroExt, is_const, is_expr, is_int_value, is_mul, sat, simplify, unsat)

DIGIT = 2**64


# ---- Proving -----------------------------------------------------------------------------------------

def prove(known, claim, what="", timeout=60):
    """Fails for a counterexample, and if there is no answer: a false claim can take forever."""
    result, model = refute(known, claim, timeout)
    if result != unsat:
        raise AssertionError("%s: %s" % (what, model if result == sat else result))


def refute(known, claim, timeout):
    solver = Solver()
    solver.set("timeout", int(1000 * timeout))
    solver.add(*known)
    solver.add(Not(claim))
    result = solver.check()
    return result, solver.model() if result == sat else None


# ---- Reading -----------------------------------------------------------------------------------------

class Function:
    def __init__(self, parameters):
        self.parameters = parameters
        self.blocks = {}  # number: lines; a line of several is joined
        self.first = None

    def successors(self, block):
        last = self.blocks[block][-1]
        if last.startswith("if "):
            return [int(number) for number in re.findall(r"goto <bb (\d+)>", last)]
        if last.startswith("goto "):
            return [int(re.search(r"<bb (\d+)>", last).group(1))]
        return [] if last.startswith("return") else [block_after(self, block)]


def block_after(function, block):
    return min(number for number in function.blocks if number > block)


def compile_functions(source, include, prefix, options=()):
    """The functions in a C++ source whose names have this prefix, as g++ optimises them."""
    text = subprocess.run(
        ["g++", "-std=c++17", "-O1", "-fno-tree-vectorize", "-I", include, *options, "-S", "-o", "/dev/null",
         "-fdump-tree-optimized=/dev/stdout", source], check=True, capture_output=True, text=True).stdout
    functions = {}
    for head, body in re.findall(r"^;; Function (?:\S+) \((%s\w+).*?^\w[^\n]*?(\(.*?^\})" % prefix, text,
                                 re.S | re.M):
        parameters, _, code = body.partition("\n{\n")
        functions[head] = read_function(re.findall(r"(\w+)(?=[,)])", parameters), code)
    return functions


def read_function(parameters, code):
    function = Function(parameters)
    code = re.sub(r"(\n *if [^\n]*)\n *(goto [^\n]*)\n *else\n *(goto)", r"\1 \2 else \3", code)  # on one line
    block = None
    for line in code.split("\n"):
        line = line.strip()
        start = re.match(r"<bb (\d+)>", line)
        if start:
            block = int(start.group(1))
            function.blocks[block] = []
            function.first = function.first or block
        elif block is not None and line and line != "}":
            function.blocks[block].append(line)
    for block, lines in function.blocks.items():
        if not lines or not lines[-1].startswith(("if ", "goto ", "return")):
            lines.append("goto <bb %d>;" % block_after(function, block))
    return function


# ---- Domains -----------------------------------------------------------------------------------------

class Bits:
    """Digits as bit-vectors."""

    def __init__(self):
        self.known = []

    def unknown(self, name, bits=64):
        return BitVec(name, bits)

    def constant(self, value):
        return BitVecVal(value, 64)

    def negative(self, value):
        return -value

    def binary(self, operation, left, right):
        if isinstance(left, int) and isinstance(right, int):
            left, right = BitVecVal(left, 64), BitVecVal(right, 64)
        size = left.size() if is_expr(left) else right.size()
        left, right = (BitVecVal(x, size) if isinstance(x, int) else x for x in (left, right))
        if operation in ("<<", ">>") and right.size() < size:  # a shift's count is a 32-bit number
            right = If(ULT(right, BitVecVal(size, right.size())), ZeroExt(size - right.size(), right),
                       BitVecVal(size, size))
        operations = {
            "+": lambda: left + right, "-": lambda: left - right, "&": lambda: left & right,
            "|": lambda: left | right, "<<": lambda: left << right, ">>": lambda: LShR(left, right),
            "<": lambda: ULT(left, right), ">": lambda: UGT(left, right), "<=": lambda: ULE(left, right),
            ">=": lambda: ULE(right, left), "==": lambda: left == right, "!=": lambda: left != right}
        return operations[operation]()

    def from_bool(self, value):
        return If(value, BitVecVal(1, 64), BitVecVal(0, 64))

    def choose(self, condition, value, other):
        value, other = (self.constant(x) if isinstance(x, int) else x for x in (value, other))
        return If(condition, value, other)

    def carry(self, value):
        return value


class Integers:
    """Digits as integers; values of type int are integers as well, and told apart by Counter."""

    def __init__(self):
        self.known = []
        self.numbers = count()
        self.bounds = {}   # what is known of an unknown's size: it is below this
        self.aligned = {}  # and a multiple of this
        self.parts = {}
        self.shifted = {}  # by unknown: what it is shifted left, and how far
        self.wraps = []    # what sums and differences lost or gained, in units of 2^64, latest last
        self.facts = {}    # by unknown: what was said of it where it was made
        self.definitions = {}  # by unknown: what it is, in terms of older ones

    def unknown(self, name=None, bound=DIGIT, aligned=1):
        value = Int(name or "u%d" % next(self.numbers))
        self.bounds[str(value)], self.aligned[str(value)] = bound, aligned
        self.facts[str(value)] = []
        self.learn(value, value >= 0, value < bound)
        return value

    def learn(self, unknown, *facts):
        self.known += facts
        self.facts[str(unknown)] += facts

    def define(self, unknown, expression):
        self.definitions[str(unknown)] = expression
        self.learn(unknown, unknown == expression)

    def with_definitions(self, expression):
        """A linear expression with all definitions put in: an equation may then be seen at once."""
        forms = {}

        def form(part):
            if isinstance(part, int):
                return {None: part}
            name = str(part) if is_unknown(part) else None
            if name in forms:
                return forms[name]
            if name:
                forms[name] = form(self.definitions[name]) if name in self.definitions else {name: 1}
                return forms[name]
            parts = part.children()
            if is_int_value(part):
                return {None: part.as_long()}
            if is_mul(part):
                factor, other = sorted(parts, key=lambda p: not is_int_value(p))
                return scaled(form(other), factor.as_long())
            signs = [-1] if part.decl().name() == "-" and len(parts) == 1 else \
                [1] + [-1 if part.decl().name() == "-" else 1] * (len(parts) - 1)
            total = {}
            for sign, summand in zip(signs, parts):
                for key, value in form(summand).items():
                    total[key] = total.get(key, 0) + sign * value
            return total

        return Sum([IntVal(0)] + [value * (Int(name) if name else 1)
                                  for name, value in form(expression).items() if value != 0])

    def bound(self, value):
        return value + 1 if isinstance(value, int) else self.bounds.get(str(value), DIGIT)

    def alignment(self, value):
        if isinstance(value, int):
            return value & -value if value else DIGIT
        return self.aligned.get(str(value), 1)

    def constant(self, value):
        return value

    def named(self, expression, bound, aligned=1):
        """An unknown that stands for an expression: short names keep later formulas small."""
        if isinstance(expression, int):
            return expression
        value = self.unknown(None, bound, aligned)
        if linear(expression):
            self.define(value, expression)
        else:
            self.learn(value, value == expression)
        return value

    def split(self, value, bits):
        """The low bits and what is above them."""
        if isinstance(value, int):
            return value % 2**bits, value >> bits
        if self.bound(value) <= 2**bits:
            return value, 0
        if str(value) in self.shifted and self.shifted[str(value)][1] <= bits:
            unshifted, shift = self.shifted[str(value)]
            low, high = self.split(unshifted, bits - shift)
            return self.named(low * 2**shift, 2**bits, 2**shift), high
        key = (str(value), bits)
        if key not in self.parts and bits < 32 and (str(value), 32) in self.parts:
            word, above = self.parts[str(value), 32]  # so that parts of parts are the same unknowns
            low, high = self.split(word, bits)
            self.parts[key] = low, self.named(high + 2**(32 - bits) * above, 2**(64 - bits))
        if key not in self.parts:
            low = self.unknown(None, min(2**bits, self.bound(value)))
            high = self.unknown(None, max(1, -(-self.bound(value) // 2**bits)))
            self.define(low, value - 2**bits * high)
            self.facts[str(high)].append(low + 2**bits * high == value)
            self.parts[key] = low, high
        return self.parts[key]

    def sum(self, left, right, sign):
        if isinstance(left, int) and isinstance(right, int):
            return (left + sign * right) % DIGIT
        wrap = self.unknown(None, 2)
        result = self.unknown()
        self.define(result, left + sign * right - sign * DIGIT * wrap)
        self.wraps.append((-sign, wrap))
        return result

    def product(self, left, right):
        if isinstance(left, int) or isinstance(right, int):
            raise AssertionError("a product by a constant")
        if self.bound(left) > 2**32 or self.bound(right) > 2**32:
            raise AssertionError("a product of numbers above 32 bits")
        name = "*".join(sorted((str(left), str(right))))
        if name not in self.bounds:
            self.unknown(name, (2**32 - 1)**2 + 1)
        return Int(name)

    def mask(self, value, mask):
        low_bits = mask.bit_length()
        if mask == 2**low_bits - 1:
            return self.split(value, low_bits)[0]
        zeros = (mask & -mask).bit_length() - 1
        if mask == DIGIT - 2**zeros:
            low, _ = self.split(value, zeros)
            return self.named(value - low, DIGIT, 2**zeros)
        raise AssertionError("mask %x" % mask)

    def disjoint(self, left, right):
        for high, low in ((left, right), (right, left)):
            if self.bound(low) <= self.alignment(high):
                return self.named(high + low, DIGIT, min(self.alignment(low), self.alignment(high)))
        raise AssertionError("an or of numbers that may have bits in common")

    def negative(self, value):
        return -value

    def binary(self, operation, left, right):
        if operation in ("<", ">", "<=", ">=", "==", "!="):
            left, right = (x.value if isinstance(x, Counter) else x for x in (left, right))
            return {"<": left < right, ">": left > right, "<=": left <= right, ">=": left >= right,
                    "==": left == right, "!=": left != right}[operation]
        if isinstance(left, Counter) or isinstance(right, Counter):
            return Counter.of(left) + Counter.of(right) if operation == "+" else \
                Counter.of(left) - Counter.of(right)
        if operation in ("+", "-"):
            return self.sum(left, right, 1 if operation == "+" else -1)
        if operation == "*":
            return self.product(left, right)
        if operation == "&":
            return self.mask(left, right)
        if operation == "|":
            return self.disjoint(left, right)
        if operation == ">>":
            return self.split(left, right)[1]
        if operation == "<<":
            low, _ = self.split(left, 64 - right)
            result = self.named(low * 2**right, DIGIT, 2**right)
            self.shifted[str(result)] = low, right
            return result
        raise AssertionError("no such operation on integers: " + operation)

    def from_bool(self, value):
        return self.carry(If(value, 1, 0))

    def choose(self, condition, value, other):
        if isinstance(value, Counter) or isinstance(other, Counter):
            value, other = Counter.of(value), Counter.of(other)
            return Counter(If(condition, value.value, other.value))
        bound = max(self.bound(value), self.bound(other))
        if is_expr(value) or is_expr(other) or value != other:
            return self.named(If(condition, value, other), bound)
        return value

    def carry(self, value):
        """A carry out of a comparison is, if that can be proved, what the last sums lost."""
        if not self.wraps:
            return self.named(value, 2)
        for candidate in self.candidates():
            if refute(self.nearby(value == candidate), value == candidate, 5)[0] == unsat:
                carry = self.unknown(None, 2)
                self.define(carry, candidate)
                return carry
        return self.named(value, 2)

    def candidates(self):
        """What a carry may be: wraps are 0 or 1, with a sign; a borrow may have been added as 2^64 - x."""
        for signs in (self.wraps[-2:], self.wraps[-1:]):
            low, high = sum(min(sign, 0) for sign, _ in signs), sum(max(sign, 0) for sign, _ in signs)
            for base, factor in ((0, 1), (0, -1), (1, 1), (1, -1)):
                least, most = sorted((base + factor * low, base + factor * high))
                if least <= 0 and most >= 1:
                    yield base + factor * sum(sign * wrap for sign, wrap in signs)

    def nearby(self, claim):
        """What was said of the unknowns in a claim where they were made, four steps back."""
        facts, names = [], set()
        new = unknowns_of(claim)
        for _ in range(4):
            names |= new
            found = [fact for name in new for fact in self.facts.get(name, [])]
            facts += found
            new = set().union(*(unknowns_of(fact) for fact in found)) - names if found else set()
        return facts + [fact for name in new for fact in self.facts.get(name, [])[:2]]  # bounds


class Counter:
    """A value of type int."""

    def __init__(self, value):
        self.value = value

    @staticmethod
    def of(value):
        return value if isinstance(value, Counter) else Counter(value)

    def __add__(self, other):
        return Counter(self.value + other.value)

    def __sub__(self, other):
        return Counter(self.value - other.value)

    def __neg__(self):
        return Counter(-self.value)


def is_unknown(expression):
    return is_const(expression) and expression.decl().kind() == Z3_OP_UNINTERPRETED


def unknowns_of(expression):
    names, todo = set(), [expression]
    while todo:
        part = todo.pop()
        if is_unknown(part):
            names.add(str(part))
        todo += part.children()
    return names


def linear(expression):
    return is_unknown(expression) or is_int_value(expression) or (
        expression.decl().name() in "+-*" and all(linear(part) for part in expression.children()))


def scaled(form, factor):
    return {name: factor * value for name, value in form.items()}


# ---- Executing ---------------------------------------------------------------------------------------

OPERATORS = r"(\+|-|\*|&|\||<<|>>|<=|>=|<|>|==|!=)"


class State:
    """Memory on arrival in a block, the condition for arriving, and from where."""

    def __init__(self, condition, memory):
        self.condition = condition
        self.memory = memory


class Execution:
    """One run through a function from a block on, up to where it returns or comes to a loop's head.

    All ways are run at once: where ways join, a value is a choice by the condition of each way.
    `ends` has, for each way out, ("return", condition, memory, value) or (head of a loop, condition,
    memory, the values that the head's variables get)."""

    def __init__(self, function, domain, arguments, memory, start=None, start_values=None):
        self.function, self.domain = function, domain
        self.values = {"%s_%s" % (name, "D"): value for name, value in arguments.items()}
        self.heads = loop_heads(function)
        self.ends = []
        self.arrivals = {}  # block: list of (block before, state)
        self.start = start or function.first
        self.values.update(start_values or {})
        self.run(memory)

    def run(self, memory):
        order = self.reachable()
        for block in order:
            if block == self.start:
                condition, current = BoolVal(True), dict(memory)
            else:
                condition, current = self.join(block)
            self.execute_block(block, condition, current)

    def reachable(self):
        """The blocks from the start on, each after those before it; no further than loops' heads."""
        order, seen = [], set()

        def visit(block):
            if block in seen:
                return
            seen.add(block)
            for successor in self.function.successors(block):
                if successor not in self.heads and successor != self.start:
                    visit(successor)
            order.append(block)

        visit(self.start)
        return order[::-1]

    def join(self, block):
        arrivals = self.arrivals[block]
        condition = simplify(Or(*(state.condition for _, state in arrivals)))
        memory = {}
        for place in arrivals[0][1].memory:
            memory[place] = self.choice([(state.condition, state.memory[place]) for _, state in arrivals])
        for line in self.function.blocks[block]:
            name, sources = phi(line)
            if name:
                self.values[name] = self.choice(
                    [(state.condition, self.operand(sources[before])) for before, state in arrivals])
                self.values[name] = self.as_carry(self.values[name])
        return condition, memory

    def choice(self, ways):
        _, value = ways[-1]
        for condition, other in reversed(ways[:-1]):
            if not (other is value or (isinstance(other, int) and isinstance(value, int) and other == value)):
                value = self.domain.choose(condition, other, value)
        return value

    def as_carry(self, value):
        if isinstance(self.domain, Integers) and is_expr(value) and self.domain.bound(value) <= 2:
            return self.domain.carry(value)
        return value

    def execute_block(self, block, condition, memory):
        for line in self.function.blocks[block]:
            if line.startswith("# ") and phi(line)[0]:
                continue
            if line.startswith("if "):
                test = self.expression(re.match(r"if \((.*?)\) goto", line).group(1), memory)
                then, other = self.function.successors(block)
                self.leave(block, then, And(condition, test), memory)
                self.leave(block, other, And(condition, Not(test)), memory)
            elif line.startswith("goto "):
                self.leave(block, self.function.successors(block)[0], condition, memory)
            elif line.startswith("return"):
                value = line[len("return"):].strip(" ;")
                self.ends.append(("return", condition, memory, self.operand(value) if value else None))
            else:
                self.assign(line, memory)

    def leave(self, block, successor, condition, memory):
        condition = simplify(condition)
        if successor in self.heads or successor == self.start:
            values = {}
            for line in self.function.blocks[successor]:
                name, sources = phi(line)
                if name:
                    values[name] = self.operand(sources[block])
            self.ends.append((successor, condition, dict(memory), values))
        else:
            self.arrivals.setdefault(successor, []).append((block, State(condition, dict(memory))))

    def assign(self, line, memory):
        found = re.fullmatch(r"(.*?) = (.*);", line)
        if not found:
            raise AssertionError("not understood: " + line)
        target, value = found.groups()
        place = self.place(target)
        if place:
            value = self.operand(value)
            memory[place] = self.domain.constant(value) if isinstance(value, int) else value
        else:
            self.values[target] = self.expression(value, memory)

    def place(self, text):
        """The array and the byte that a piece of memory stands for; none for anything else."""
        match = re.fullmatch(r"(?:MEM\[\(.*?\)|\*)([\w.$()]+?)(?: \+ (\d+)B)?\]?", text)
        if not match:
            return None
        array, offset = self.operand(match.group(1))
        return array, offset + int(match.group(2) or 0)

    def operand(self, text):
        if re.fullmatch(r"-?\d+", text):
            return int(text)
        return self.values[re.sub(r"_\d+\(D\)$", "_D", text)]

    def expression(self, text, memory):
        place = self.place(text)
        if place:
            return memory[place]
        cast = re.fullmatch(r"\((.*?)\) (\S+)", text)
        if cast:
            return self.cast(cast.group(1), self.operand(cast.group(2)))
        binary = re.fullmatch(r"(\S+) %s (\S+)" % OPERATORS, text)
        if binary:
            left, operator, right = binary.groups()
            return self.domain.binary(operator, self.operand(left), self.operand(right))
        if text.startswith("-") and not text[1:].isdigit():
            return self.domain.negative(self.operand(text[1:]))
        return self.operand(text)

    def cast(self, kind, value):
        if isinstance(value, BoolRef):
            return self.domain.from_bool(value)
        if kind.endswith("int") and "long" not in kind and isinstance(self.domain, Integers):
            if self.domain.bound(value) > 2**31:
                raise AssertionError("a digit made an int")
            return Counter(value)
        return value


def phi(line):
    match = re.fullmatch(r"# (\S+) = PHI <(.*)>", line)
    if not match:
        return None, None
    sources = re.findall(r"([\w.$-]+(?:\(D\))?)\((\d+)\)", match.group(2))
    return match.group(1), {int(block): value for value, block in sources}


def loop_heads(function):
    """Blocks that a way comes back to."""
    heads, done, open_blocks = set(), set(), set()

    def visit(block):
        open_blocks.add(block)
        for successor in function.successors(block):
            if successor in open_blocks:
                heads.add(successor)
            elif successor not in done:
                visit(successor)
        open_blocks.discard(block)
        done.add(block)

    visit(function.first)
    return heads
