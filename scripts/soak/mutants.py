"""The small mistakes that a mutation campaign makes in C++ sources, found by the text that clang-format leaves.

Nothing inside a comment, a preprocessor line, an attribute or a static_assert is changed, and no string.
"""
import random
import re
from dataclasses import dataclass

OPERATORS = {
    "<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"], "==": ["!="], "!=": ["=="],
    "&&": ["||"], "||": ["&&"], "+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["/"], "&": ["|"], "|": ["&"],
    "^": ["&"], "<<": [">>"], ">>": ["<<"], "+=": ["-="], "-=": ["+="], "|=": ["&="], "&=": ["|="],
}
OPERATOR = re.compile(r"(?<= )(%s)(?= )" % "|".join(re.escape(o) for o in sorted(OPERATORS, key=len, reverse=True)))
NUMBER = re.compile(r"(?<![\w.'])(0[xX][0-9a-fA-F']+|[0-9][0-9']*)([uUlL]*)(?![\w.'])")
CHARACTER = re.compile(r"'(\\.|[^'\\])'")
BOOLEAN = re.compile(r"\b(true|false)\b")
NEGATION = re.compile(r"!(?=[\w(:*])")
STEP = re.compile(r"\+\+|--")
CONDITION = re.compile(r"\b(if|while) (\()")
CALL = re.compile(r"\b(\w+)(\()")
UNCHANGED = re.compile(
    r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"|^[ \t]*#(?:[^\n]*\\\n)*[^\n]*|\[\[.*?\]\]|__attribute__\(\(.*?\)\)\)?"
    r"|\bstatic_assert\(.*?\);|\bR\"\(.*?\)\"", re.S | re.M)
NOT_CALLS = {"if", "while", "for", "switch", "return", "sizeof", "catch", "alignas", "decltype", "defined"}
# A parameter, or the declaration of a variable or member.
PARAMETER = re.compile(r"^\s*(?:[\w:]+\s+)*[\w:]+(?:<[^()]*>)?(?:\s+const)?(?:\s*[*&]+\s*(?:const\s+)?|\s+)\w+"
                       r"(?:\[[^]]*\])?(?:\s*=.*|\{.*\})?$", re.S)
PROTOTYPE = re.compile(r"^\s*(?:~?[A-Z]\w*|(?:[\w:]+(?:<[^()]*>)?[ *&]+)+~?\w+)\([^()]*\)(?: const| noexcept)*"
                       r"(?: override| = (?:default|delete|0))?$")


@dataclass(frozen=True)
class Mutant:
    path: str
    line: int
    kind: str
    begin: int
    end: int
    text: str

    def apply(self, source):
        return source[:self.begin] + self.text + source[self.end:]

    def lines(self, source):
        """The line before and after, each without the blanks around it."""
        first = source.rfind("\n", 0, self.begin) + 1
        last = source.find("\n", max(self.end - 1, self.begin))
        before = source[first:last]
        after = source[first:self.begin] + self.text + source[self.end:last]
        return " ".join(before.split()), " ".join(after.split())


def masked(source):
    """The source with blanks for what stays unchanged; every character keeps its place. Strings become underscores."""
    def blank(match):
        text = match.group()
        fill = "_" if text[0] in "\"R" else " "
        return "".join(c if c == "\n" else fill for c in text)

    # Characters first, so that '"' opens no string.
    source = re.sub(r"'(\\.|[^'\\\n])'", lambda m: "'" + "c" * (len(m.group()) - 2) + "'", source)
    return UNCHANGED.sub(blank, source)


def closing(text, opening):
    depth = 0
    for at in range(opening, len(text)):
        if text[at] in "([{":
            depth += 1
        elif text[at] in ")]}":
            depth -= 1
            if depth == 0:
                return at
    return -1


def arguments(text, opening, end):
    """Begin and end of each argument between two brackets."""
    parts, depth, begin = [], 0, opening + 1
    for at in range(opening + 1, end):
        if text[at] in "([{":
            depth += 1
        elif text[at] in ")]}":
            depth -= 1
        elif text[at] == "," and depth == 0:
            parts.append((begin, at))
            begin = at + 1
    parts.append((begin, end))
    return [(b + len(text[b:e]) - len(text[b:e].lstrip()), e) for b, e in parts]


def statements(text):
    """Begin and end of each simple statement inside a function: what a dropped line would lose."""
    begin = 0
    for match in re.finditer(r"[;{}]|\b(?:public|private|protected|case [^:;{}\n?]+|default):(?!:)", text):
        if match.group() == ";":
            statement = text[begin:match.start()]
            first = begin + len(statement) - len(statement.lstrip())
            words = statement.split()
            indent = first - (text.rfind("\n", 0, first) + 1)
            balanced = all(statement.count(o) == statement.count(c) for o, c in ("()", "[]"))
            declares = re.match(r"(?:return\b.|using\b|extern\b|template\b|class\b|struct\b|enum\b|typedef\b|friend\b)",
                                statement.strip() + " ")
            inside = text.count("(", 0, first) > text.count(")", 0, first)
            declares = declares or PARAMETER.match(statement) or (PROTOTYPE.match(statement) and "return" not in words)
            if words and indent > 0 and balanced and not inside and (not declares or statement.strip() == "return"):
                yield first, match.end()
        begin = match.end()


def next_number(digits):
    plain = digits.replace("'", "")
    value = int(plain, 16 if plain[:2].lower() == "0x" else 8 if len(plain) > 1 and plain[0] == "0" else 10)
    changed = {0: 1, 1: 0}.get(value, value + 1)
    if plain[:2].lower() == "0x":
        return hex(changed)
    return str(changed) if plain[0] != "0" or plain == "0" else "0%o" % changed


def mutants(path, source):
    text = masked(source)
    found = []

    def add(kind, begin, end, replacement):
        found.append(Mutant(path, source.count("\n", 0, begin) + 1, kind, begin, end, replacement))

    for match in OPERATOR.finditer(text):
        for other in OPERATORS[match.group()]:
            add("operator", match.start(), match.end(), other)
    for match in NUMBER.finditer(text):
        add("constant", match.start(1), match.end(1), next_number(match.group(1)))
    for match in CHARACTER.finditer(text):
        character = source[match.start():match.end()]
        add("constant", match.start(), match.end(), "'#'" if character != "'#'" else "'.'")
    for match in BOOLEAN.finditer(text):
        add("constant", match.start(), match.end(), "false" if match.group() == "true" else "true")
    for match in NEGATION.finditer(text):
        add("condition", match.start(), match.end(), "")
    for match in STEP.finditer(text):
        add("operator", match.start(), match.end(), "--" if match.group() == "++" else "++")
    for match in CONDITION.finditer(text):
        end = closing(text, match.start(2))
        if end > 0 and ";" not in text[match.start(2):end]:
            add("condition", match.start(2), end + 1, "(!" + source[match.start(2):end + 1] + ")")
    for match in CALL.finditer(text):
        end = closing(text, match.start(2))
        if end < 0 or match.group(1) in NOT_CALLS:
            continue
        parts = arguments(text, match.start(2), end)
        if any(PARAMETER.match(text[b:e]) for b, e in parts):
            continue
        for (b1, e1), (b2, e2) in zip(parts, parts[1:]):
            if source[b1:e1] != source[b2:e2]:
                add("arguments", b1, e2, source[b2:e2] + source[e1:b2] + source[b1:e1])
    for begin, end in statements(text):
        add("statement", begin, end, ";")
    return found


def choose(sources, count, seed):
    """At most @p count mutants of @p sources (path to text), shared out by lines of code, in a random order for each
    room; a room is the folder of a source. Takes more of a room than it needs, because not all of them compile."""
    rooms = {}
    for path, source in sorted(sources.items()):
        by_line = {}
        for mutant in mutants(path, source):
            by_line.setdefault(mutant.line, []).append(mutant)
        rooms.setdefault(path.split("/")[-2], []).extend(by_line.values())
    lines = sum(len(room) for room in rooms.values())
    chosen = {}
    for name, room in sorted(rooms.items()):
        pick = random.Random(f"{seed} {name}")
        order = []
        pool = [list(line) for line in room]
        while pool:
            pick.shuffle(pool)
            for line in pool:
                order.append(line.pop(pick.randrange(len(line))))
            pool = [line for line in pool if line]
        chosen[name] = (max(1, round(count * len(room) / lines)), order)
    return chosen
