"""Finds the mutations of a C++ source: each replaces the text at one place."""

import re
from dataclasses import dataclass

TOKEN = re.compile(
    r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*)
  | (?P<string>"(?:\\.|[^"\\])*")
  | (?P<char>'(?:\\.[0-9A-Fa-f]*|[^'\\])')
  | (?P<number>\b(?:0[xX][0-9A-Fa-f]+|\d+)[uUlL]*\b)
  | (?P<word>[A-Za-z_]\w*)
  | (?P<operator>==|!=|<=|>=|&&|\|\||<<|>>|->|::|\+\+|--|[-+*/%&|^]=|.)
  | (?P<space>\s+)
    """,
    re.VERBOSE | re.DOTALL | re.MULTILINE,
)

FLIPPED = {
    "==": ["!="],
    "!=": ["=="],
    "<": ["<=", ">="],
    "<=": ["<", ">"],
    ">": [">=", "<="],
    ">=": [">", "<"],
    "&&": ["||"],
    "||": ["&&"],
    "!": [""],
}
ASSIGNMENTS = {"=", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^="}
LOCKS = {"LeafLocker", "QMutexLocker"}
TYPES = {"const", "static", "int", "bool", "unsigned", "typedef", "using"}


@dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int
    end: int


@dataclass(frozen=True)
class Mutant:
    """`path` with the characters from `start` to `end` replaced by `text`."""

    path: str
    kind: str
    start: int
    end: int
    text: str
    line: int
    function: str
    description: str

    def applied(self, source):
        return source[: self.start] + self.text + source[self.end :]


QT4_BRANCH_BEGINS = re.compile(r"\s*#\s*if\s+QT_VERSION\s*<")


def tokens_of(source):
    """The tokens that the compiler sees, without directives and without what only Qt 4 compiles."""
    found = []
    open_ifs = []  # of each #if: does it ask for Qt's version, and is this the branch of Qt 4?
    for match in TOKEN.finditer(source):
        if match.lastgroup == "directive":
            follow_directive(match.group(), open_ifs)
        if any(asks and is_qt4 for asks, is_qt4 in open_ifs):
            continue
        if match.lastgroup in ("comment", "directive", "space") or match.group().isspace():
            continue
        found.append(Token(match.lastgroup, match.group(), match.start(), match.end()))
    return without_assertions(found)


def follow_directive(text, open_ifs):
    """The tests are built with Qt 5, so that a mutant in a branch of Qt 4 would always survive."""
    word = text.replace("#", " ").split()[:1]
    if word and word[0] in ("if", "ifdef", "ifndef"):
        open_ifs.append(("QT_VERSION" in text, bool(QT4_BRANCH_BEGINS.match(text))))
    elif word == ["else"] and open_ifs:
        asks, is_qt4 = open_ifs[-1]
        open_ifs[-1] = (asks, not is_qt4)
    elif word == ["endif"] and open_ifs:
        open_ifs.pop()


def without_assertions(tokens):
    """Leaves out the tokens of each static_assert: with a changed one nothing compiles."""
    kept = []
    inside = False
    for token in tokens:
        inside = inside or token.text == "static_assert"
        if not inside:
            kept.append(token)
        inside = inside and token.text != ";"
    return kept


# ---- Tokens ------------------------------------------------------------------------------------


def is_spaced(source, token):
    """clang-format writes comparisons with spaces and template brackets without."""
    return source[token.start - 1].isspace() and source[token.end].isspace()


def flipped(source, token):
    if token.text in ("<", ">") and not is_spaced(source, token):
        return []
    return FLIPPED.get(token.text, [])


def changed_number(text):
    digits = text.rstrip("uUlL")
    suffix = text[len(digits) :]
    is_hex = digits.lower().startswith("0x")
    value = int(digits, 16 if is_hex else 10)
    neighbours = [value + 1] + ([value - 1] if value > 0 else [])
    width = len(digits) - 2
    return [(f"0x{n:0{width}X}" if is_hex else str(n)) + suffix for n in neighbours]


def changed_string(text):
    """One character in the middle: another digit in a text of numbers, else a letter."""
    if len(text) <= 2:
        return ['"x"']
    at = len(text) // 2
    if text[at] == " ":
        at += 1
    other = "1" if text[at] == "0" else "0" if text[at] in "123456789ABCDEF" else "x"
    return [text[:at] + other + text[at + 1 :]] if other != text[at] else []


def changed_constant(token):
    if token.kind == "number":
        return changed_number(token.text)
    if token.kind == "string":
        return changed_string(token.text)
    if token.kind == "char":
        return ["'\\x7E'"]
    return {"true": ["false"], "false": ["true"]}.get(token.text, [])


# ---- Statements --------------------------------------------------------------------------------


@dataclass(frozen=True)
class Statement:
    start: int
    end: int
    block: int
    words: tuple
    before: str
    ends_function: bool


def opens_code(previous, inside_code):
    """True if a brace after `previous` opens the body of a function or a block in it."""
    if previous is None:
        return False
    if previous.text == ")":
        return True
    return inside_code and previous.text in ("else", "do", "{", "}", ";", ":")


class StatementFinder:
    """Walks the tokens and collects each statement that ends with a semicolon."""

    def __init__(self, tokens):
        self.tokens = tokens
        self.statements = []
        self.blocks = [(0, False)]
        self.next_block = 1
        self.parentheses = 0
        self.begin = 0
        self.heads = []

    def find(self):
        for i, token in enumerate(self.tokens):
            if token.kind == "operator":
                self.step(i, token.text)
            elif token.text in ("else", "do") and self.parentheses == 0:
                self.begin = i + 1
        return self.statements

    def step(self, i, text):
        if text == "(":
            self.heads.append(self.tokens[i - 1].text)
            self.parentheses += 1
        elif text == ")":
            self.parentheses -= 1
            if self.heads.pop() in ("if", "for", "while", "switch") and self.parentheses == 0:
                self.begin = i + 1
        elif text == "{":
            self.open(i)
        elif text == "}":
            self.blocks.pop()
            self.begin = i + 1
        elif text == ":" and self.parentheses == 0:
            if self.tokens[self.begin].text in ("case", "default"):
                self.begin = i + 1
        elif text == ";" and self.parentheses == 0:
            self.close(i)

    def open(self, i):
        inside_code = self.blocks[-1][1]
        previous = self.tokens[i - 1] if i else None
        self.blocks.append((self.next_block, opens_code(previous, inside_code)))
        self.next_block += 1
        self.begin = i + 1

    def close(self, i):
        block, is_code = self.blocks[-1]
        if is_code and self.begin < i:
            self.statements.append(self.statement(i, block))
        self.begin = i + 1

    def statement(self, i, block):
        depth = sum(is_code for _, is_code in self.blocks)
        following = [token.text for token in self.tokens[i + 1 : i + 1 + depth]]
        return Statement(
            self.tokens[self.begin].start,
            self.tokens[i].end,
            block,
            tuple(token.text for token in self.tokens[self.begin : i]),
            self.tokens[self.begin - 1].text if self.begin else "",
            following == ["}"] * depth,
        )


def is_declaration(statement):
    """A declaration is used, so that the program without it does not compile. Locks are the exception."""
    words = statement.words
    declares = words[0] in TYPES or (len(words) > 1 and is_word(words[0]) and is_word(words[1]))
    return declares and words[0] not in LOCKS | {"return", "delete"}


def is_word(text):
    return text[0].isalpha() or text[0] == "_"


def is_removable(statement):
    # A function that ends without a result has no defined behaviour to test.
    last_result = statement.words[0] == "return" and statement.ends_function
    return not last_result and not is_declaration(statement)


def assigned(statement):
    """The left side of an assignment without a call, else None."""
    words = statement.words
    calls = any(b == "(" and is_word(a) for a, b in zip(words, words[1:]))
    at = next((i for i, word in enumerate(words) if word in ASSIGNMENTS), None)
    return None if calls or at is None else words[:at]


def are_independent(first, second):
    """True for two assignments if neither mentions the left side of the other."""
    one, other = assigned(first), assigned(second)
    if not one or not other:
        return False
    return one[0] not in second.words and other[0] not in first.words or (
        " ".join(one) not in " ".join(second.words)
        and " ".join(other) not in " ".join(first.words)
    )


def bound_name(statement):
    """The name of a reference that is bound without a call, else None."""
    words = statement.words
    if "&" not in words or "=" not in words or "(" in words:
        return None
    equals = words.index("=")
    is_binding = equals >= 2 and words[equals - 2] == "&" and is_word(words[equals - 1])
    return words[equals - 1] if is_binding else None


def merely_binds(first, second):
    """True if one only names an object and the other does not use the name: their order does not matter."""
    one, other = bound_name(first), bound_name(second)
    return bool(one and one not in second.words or other and other not in first.words)


def are_neighbours(first, second, source):
    return (
        first.block == second.block
        and second.before == ";"
        and source[first.end : second.start].isspace()
        and first.words != second.words
        and not are_independent(first, second)
        and not merely_binds(first, second)
        and not {"return", "break", "continue"} & {first.words[0], second.words[0]}
    )


# ---- Mutants -----------------------------------------------------------------------------------


def joined(text):
    return " ".join(text.split())


class MutantFinder:
    def __init__(self, path, source):
        self.path = path
        self.source = source

    def all(self):
        tokens = tokens_of(self.source)
        found = [m for token in tokens for m in self.of_token(token)]
        statements = StatementFinder(tokens).find()
        for before, statement in zip([None] + statements, statements):
            if is_removable(statement):
                found.append(self.removal(statement, before))
        for first, second in zip(statements, statements[1:]):
            if are_neighbours(first, second, self.source):
                found.append(self.swap(first, second))
        return found

    def of_token(self, token):
        made = [("comparison", text) for text in flipped(self.source, token)]
        made += [("constant", text) for text in changed_constant(token)]
        for kind, text in made:
            before = self.line_text(self.source, token.start)
            after = self.line_text(self.replaced(token.start, token.end, text), token.start)
            yield self.mutant(kind, token.start, token.end, text, f"{before} => {after}")

    def removal(self, statement, before):
        is_lock = statement.words[0] in LOCKS
        kind = "lock" if is_lock else "removal"
        # The description of a lone "break" includes the statement before it.
        told = before if before and len(statement.words) == 1 else statement
        what = joined(self.source[told.start : statement.end])
        rest = joined(self.source[told.start : statement.start] + ";")
        return self.mutant(kind, statement.start, statement.end, ";", f"{what} => {rest}")

    def swap(self, first, second):
        one = self.source[first.start : first.end]
        other = self.source[second.start : second.end]
        between = self.source[first.end : second.start]
        description = f"{joined(one)} {joined(other)} => {joined(other)} {joined(one)}"
        text = other + between + one
        return self.mutant("swap", first.start, second.end, text, description)

    def mutant(self, kind, start, end, text, description):
        line = self.source.count("\n", 0, start) + 1
        function = self.function_around(start)
        return Mutant(self.path, kind, start, end, text, line, function, description)

    def function_around(self, at):
        """The name of the last function, or what looks like one, that begins before `at`; "" for none."""
        heads = re.findall(r"^[A-Za-z_][^\n;=]*?(\w+)\([^\n;]*$", self.source[:at], re.MULTILINE)
        return heads[-1] if heads else ""

    def replaced(self, start, end, text):
        return self.source[:start] + text + self.source[end:]

    @staticmethod
    def line_text(source, at):
        begin = source.rfind("\n", 0, at) + 1
        end = source.find("\n", at)
        return joined(source[begin : end if end >= 0 else len(source)])


def mutants_of(path, source):
    """Every mutant of the source, in the order of kinds and places."""
    return MutantFinder(path, source).all()
