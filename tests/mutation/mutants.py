"""The mutants of a C++ source: small changes, each of which a test ought to notice.

All mutants of a source go into one file, each behind a test of the number that is switched on, so that
the tests are built once for thousands of mutants:

    x = a + b;     becomes     if (MUTANT(7)) { x = a - b; } else if (MUTANT(8)) { ; } else { x = a + b; }
    if (a < b)     becomes     if (MUTANT(9) ? (a <= b) : (a < b))

The reader of C++ here is a simple one: it knows functions, statements, conditions and declarations of
values, as they are written in this library, and changes nothing else.
"""

import re
from collections import Counter, namedtuple

# `again` counts earlier mutants of the source with the same change, on a line with the same text.
Mutant = namedtuple("Mutant", "number file operator line before after again")
Token = namedtuple("Token", "text start end")

TOKEN = re.compile(r"""(?P<skip>\s+|//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:[^\n\\]|\\.|\\\n)*)
    |(?P<token>"(?:[^"\\]|\\.)*"|'(?:[^'\\]|\\.)+'|[A-Za-z_]\w*|0[xX][0-9a-fA-F]+|\d[\w.]*
     |<<=|>>=|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||\+=|-=|\*=|/=|%=|&=|\|=|\^=|::|\.\.\.|.)""",
                   re.X | re.S | re.M)

OTHER_OPERATORS = {
    "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"], "==": ["!="], "!=": ["=="],
    "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["+"], "/": ["*"], "%": ["/"], "<<": [">>"],
    ">>": ["<<"], "&": ["|"], "|": ["&"], "^": ["&"], "+=": ["-="], "-=": ["+="], "|=": ["&="],
    "&=": ["|="], "<<=": [">>="], ">>=": ["<<="], "++": ["--"], "--": ["++"]}
OTHER_NAMES = {
    "STORE_OK": "STORE_ERROR", "STORE_ERROR": "STORE_OK", "CHANGED": "REFUSED_BUT_SAVED",
    "REFUSED_BUT_SAVED": "CHANGED", "PUBLIC_KEY_FILE": "PRIVATE_KEY_FILE",
    "PRIVATE_KEY_FILE": "PUBLIC_KEY_FILE", "PUBLIC_THEN_PRIVATE": "PRIVATE_THEN_PUBLIC",
    "PRIVATE_THEN_PUBLIC": "PUBLIC_THEN_PRIVATE", "true": "false", "false": "true",
    "curve_p": "curve_n", "curve_n": "curve_p", "WIPE_WHOLE_KEY": "WIPE_REPORTED_LENGTH",
    "WIPE_REPORTED_LENGTH": "WIPE_WHOLE_KEY"}
CONTROL = {"if", "while", "for", "switch"}
NOT_CALLED = CONTROL | {"return", "sizeof", "static_cast", "reinterpret_cast"}


def tokens_of(text):
    return [Token(match.group(), match.start(), match.end())
            for match in TOKEN.finditer(text) if match.lastgroup == "token"]


class Source:
    """Reads a source and collects its mutants."""

    def __init__(self, name, text, first_number=1):
        self.name, self.text = name, text
        self.tokens = tokens_of(text)
        self.number = first_number
        self.mutants = []
        self.seen = Counter()
        self.constants = {}  # at file scope: the mutants of each
        self.edits = []  # (start, end, kind, [(number, text)])
        self.closing = self.matching_brackets()
        self.scope(0, len(self.tokens))

    def matching_brackets(self):
        closing, open_ones = {}, []
        for i, token in enumerate(self.tokens):
            if token.text in "([{":
                open_ones.append(i)
            elif token.text in ")]}":
                closing[open_ones.pop()] = i
        return closing

    def is_at(self, i, *texts):
        return i < len(self.tokens) and self.tokens[i].text in texts

    def find(self, i, end, *texts):
        """The first of these at the same depth of brackets."""
        while i < end and not self.is_at(i, *texts):
            i = self.closing.get(i, i) + 1
        return i

    # ---- What there is at file scope

    def scope(self, i, end):
        while i < end:
            stop = self.find(i, end, ";", "{")
            words = {token.text for token in self.tokens[i:stop]}
            if self.is_at(stop, "{"):
                close = self.closing[stop]
                if "namespace" in words or words <= {"extern", '"C"'}:
                    self.scope(stop + 1, close)
                elif "=" in words:
                    self.table(stop + 1, close)
                elif "(" in words and not words & {"struct", "enum"} or self.is_function(i, stop):
                    self.block(stop + 1, close)
                i = close + 1
            else:
                equals = self.find(i, stop, "=")
                if equals < stop and "static_assert" not in words and "typedef" not in words:
                    first = self.number
                    self.expression(equals + 1, stop)
                    self.constants[self.tokens[equals - 1].text] = set(range(first, self.number))
                i = stop + 1

    def is_function(self, i, stop):
        """A parameter list stands before the body."""
        return self.is_at(stop - 1, ")")

    def table(self, i, end):
        """Initialisers in braces: each constant by itself."""
        for token in self.tokens[i:end]:
            changed = self.other_constants(token)
            if changed:
                self.site(token.start, token.end, "value", [("constant", c) for c in changed])

    # ---- Statements

    def block(self, i, end):
        while i < end:
            i = self.statement(i)

    def statement(self, i):
        if self.is_at(i, "{"):
            self.block(i + 1, self.closing[i])
            return self.closing[i] + 1
        if self.is_at(i, ";"):
            return i + 1
        if self.is_at(i, "else"):
            return self.statement(i + 1)
        if self.is_at(i, "do"):
            i = self.statement(i + 1)  # to its while, which is then like any other
            self.condition(i + 2, self.closing[i + 1])
            return self.closing[i + 1] + 2
        if self.is_at(i, *CONTROL):
            self.control(i)
            return self.statement(self.closing[i + 1] + 1)
        end = self.find(i, len(self.tokens), ";")
        self.simple_statement(i, end)
        return end + 1

    def control(self, i):
        begin, end = i + 2, self.closing[i + 1]
        if not self.is_at(i, "for"):
            self.condition(begin, end)
            return
        first = self.find(begin, end, ";")
        if first == end:
            self.expression(self.find(begin, end, ":") + 1, end)
            return
        second = self.find(first + 1, end, ";")
        self.expression(self.find(begin, first, "=") + 1, first)
        self.condition(first + 1, second)
        self.expression(second + 1, end)

    def condition(self, i, end):
        equals = self.find(i, end, "=")
        if equals < end:  # a declaration in a condition
            self.expression(equals + 1, end)
            return
        self.expression(i, end, negate=True)

    def simple_statement(self, i, end):
        start, stop = self.tokens[i].start, self.tokens[end - 1].end
        if self.is_at(i, "return"):
            self.site(start, stop, "statement",
                      [(operator, "return " + text) for operator, text in self.changes(i + 1, end)])
        elif self.is_at(i, "continue", "break"):
            self.site(start, stop, "statement", [("drop", "")])
        elif self.is_declaration(i, end):
            equals = self.find(i, end, "=")
            if self.is_at(equals + 1, "{"):
                self.table(equals + 2, self.closing[equals + 1])
            elif equals < end:
                self.expression(equals + 1, end)
        else:
            self.site(start, stop, "statement", [("drop", "")] + self.changes(i, end))

    def is_declaration(self, i, end):
        if self.is_at(i, "const", "static", "struct"):
            return True
        words = [token.text for token in self.tokens[i:end]]
        while words and words[0] in ("unsigned", "long"):
            words = words[1:]
        name = re.compile(r"[A-Za-z_]\w*$")
        rest = words[1:]
        while rest and rest[0] in ("*", "&"):
            rest = rest[1:]
        return bool(words and name.match(words[0]) and rest and name.match(rest[0]))

    # ---- Changes

    def expression(self, i, end, negate=False):
        if i >= end or self.is_at(i, "{"):
            return
        changes = self.changes(i, end)
        start, stop = self.tokens[i].start, self.tokens[end - 1].end
        words = {token.text for token in self.tokens[i:end]}
        # A comparison or a negation by itself has its opposite among its changes already.
        if negate and (words & {"&&", "||"} or not words & {"<", ">", "<=", ">=", "==", "!=", "!"}):
            changes.append(("negate", "!(%s)" % self.text[start:stop]))
        self.site(start, stop, "value", changes)

    def changes(self, i, end):
        """Every change of one token, and every exchange of two arguments, between two tokens."""
        if i >= end:
            return []
        begin, stop = self.tokens[i].start, self.tokens[end - 1].end
        found = []

        def change(operator, start, finish, text):
            found.append((operator, self.text[begin:start] + text + self.text[finish:stop]))

        k = i
        while k < end:
            token = self.tokens[k]
            if token.text in ("static_cast", "reinterpret_cast"):
                k = self.find(k, end, "(")
                continue
            for other in self.other_constants(token):
                change("constant", token.start, token.end, other)
            if token.text in OTHER_OPERATORS and (token.text not in "+-*&" or self.is_binary(k, i)):
                for other in OTHER_OPERATORS[token.text]:
                    change("operator", token.start, token.end, other)
            if token.text == "!":
                change("negate", token.start, token.end, "")
            if token.text == "(" and k > i and re.match(r"[A-Za-z_]\w*$", self.tokens[k - 1].text) and \
                    self.tokens[k - 1].text not in NOT_CALLED:
                for text, span in self.exchanged_arguments(k):
                    change("arguments", *span, text)
            k += 1
        return found

    def is_binary(self, k, i):
        return k > i and (re.match(r"\w", self.tokens[k - 1].text) or self.is_at(k - 1, ")", "]")) and \
            not self.is_at(k - 1, "return") and not self.is_at(k + 1, ")", ">")

    def exchanged_arguments(self, k):
        arguments, i, close = [], k + 1, self.closing[k]
        while i < close:
            stop = self.find(i, close, ",")
            arguments.append((self.tokens[i].start, self.tokens[stop - 1].end))
            i = stop + 1
        for (s1, e1), (s2, e2) in zip(arguments, arguments[1:]):
            first, second = self.text[s1:e1], self.text[s2:e2]
            if first != second and not first.startswith('"'):
                yield second + self.text[e1:s2] + first, (s1, e2)

    @staticmethod
    def other_constants(token):
        text = token.text
        if text in OTHER_NAMES:
            return [OTHER_NAMES[text]]
        if re.match(r"KeyLibrary_[A-Z]", text):
            return ["KeyLibrary_CRYPTO" if text == "KeyLibrary_ERROR" else "KeyLibrary_ERROR"]
        if re.match(r"\d", text):
            digits = text.rstrip("uUlL")
            value = int(digits, 8 if re.match(r"0\d", digits) else 0)
            others = [value ^ 1, value ^ 2] if value >= 2**32 else [value + 1, value - 1][:2 if value else 1]
            return [hex(other) + text[len(digits):] for other in others]
        if text.startswith('"'):
            return ['"X' + text[1:]]
        if text.startswith("'"):
            return ["'X'" if text[1] == "\\" else "'%s'" % chr(ord(text[1]) + 1)]
        return []

    def site(self, start, end, kind, changes):
        alternatives = []
        for operator, text in changes:
            if text == self.text[start:end]:
                continue
            line, before, after = self.changed_line(start, end, text)
            self.mutants.append(Mutant(self.number, self.name, operator, line, before, after,
                                       self.seen[before, after]))
            self.seen[before, after] += 1
            alternatives.append((self.number, text))
            self.number += 1
        if alternatives:
            self.edits.append((start, end, kind, alternatives))

    def changed_line(self, start, end, text):
        """The number of the first line that a change is seen on, the line as it is, and as it becomes."""
        old, new = self.text[start:end], text
        same = next((k for k, (a, b) in enumerate(zip(old, new)) if a != b), min(len(old), len(new)))
        begin = self.text.rfind("\n", 0, start + same) + 1
        changed = self.text[:start] + new + self.text[end:]
        line_at = lambda source: source[begin:source.find("\n", max(begin, start + same))].strip()
        return self.text.count("\n", 0, begin) + 1, line_at(self.text), line_at(changed)

    # ---- The source with all mutants in it

    def with_mutants(self, left_out):
        """The text, and for each of its lines that a mutant stands on, the mutant's number."""
        pieces, at = [], 0
        for start, end, kind, alternatives in sorted(self.edits):
            used = [(n, text) for n, text in alternatives if n not in left_out]
            pieces += [self.text[at:start], alternatives_of(kind, used, self.text[start:end])]
            at = end
        text = "".join(pieces + [self.text[at:]])
        text = text.replace("static constexpr", "static const")  # a mutant is chosen when the program runs
        lines = {}
        for number, line in enumerate(text.split("\n"), 1):
            found = re.search(r"MUTANT\((\d+)\)", line)
            if found:
                lines[number] = int(found.group(1))
        return text, lines


def one_line(text):
    return re.sub(r"\s*\n\s*", " ", text)


def alternatives_of(kind, used, original):
    """Each mutant on a line of its own, so that the compiler's errors tell which does not compile."""
    if not used:
        return original
    if kind == "value":
        return "(" + "".join("\nMUTANT(%d) ? (%s) :" % (n, one_line(text)) for n, text in used) + \
            "\n(%s))" % original
    return "{" + "".join("\nif (MUTANT(%d)) { %s; } else" % (n, one_line(text)) for n, text in used) + \
        "\n{ %s; } }" % original
