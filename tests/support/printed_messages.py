"""What the library prints, gathered from its sources: the string literals of every printf, puts and
fputs, and the expressions of every assert."""

import re

LITERAL = r'"(?:[^"\\]|\\.)*"'
CODE = re.compile(rf"{LITERAL}|'(?:[^'\\]|\\.)*'|[()]")
FUNCTION = re.compile(r"^[A-Za-z][^;{}]*?\b(\w+)\([^;{}]*\)\n\{", re.M)


def calls(source, names):
    """Each call of one of the functions: where it begins, and the text of its arguments."""
    for match in re.finditer(rf"\b(?:{'|'.join(names)})\(", source):
        depth, end = 1, match.end()
        while depth > 0:
            token = CODE.search(source, end)
            depth += {"(": 1, ")": -1}.get(token.group(), 0)
            end = token.end()
        if not source.startswith("\n{", end):  # what is followed by a body is the definition
            yield match.start(), source[match.end():end - 1]


def literals(text):
    """The string literals in a text, those that follow each other joined."""
    for run in re.findall(rf"{LITERAL}(?:\s*{LITERAL})*", text):
        joined = "".join(piece[1:-1] for piece in re.findall(LITERAL, run))
        yield joined.replace('\\"', '"').removesuffix("\\n")


def function_around(source, position):
    return [match.group(1) for match in FUNCTION.finditer(source, 0, position)][-1]


def names_given_to(source, function):
    """The names that a function is given to print: literals in its calls, or else what the caller
    was given itself."""
    names = set()
    for position, arguments in calls(source, [function]):
        given = set(literals(arguments))
        names |= given or names_given_to(source, function_around(source, position))
    return {name for name in names if re.fullmatch(r"[a-z0-9_.]+", name)}


def messages_of(source):
    """The lines that a source prints, with the names put in where the program puts them in."""
    for position, arguments in calls(source, ["printf", "puts", "fputs"]):
        for literal in literals(arguments):
            place = re.match(r"\[(%s)\]|  ! (%s)\(\)", literal)
            if not place:
                yield literal
                continue
            for name in names_given_to(source, function_around(source, position)):
                yield literal.replace("%s", name, 1)


def assertions_of(source):
    for _, expression in calls(source, ["assert"]):
        yield " ".join(expression.split())
