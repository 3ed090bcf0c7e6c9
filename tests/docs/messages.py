#!/usr/bin/env python3
"""messages.py SOURCES [VEXO]: docs/messages.md has every message of the library, and no other.

Compares text, level, room and source name both ways. With VEXO, the program of that path, also checks that
`vexo log --explain` knows each message of the page: the table inside the program is the one of the page.
"""
import pathlib
import re
import subprocess
import sys

CALL = re.compile(r"\b(?P<name>LOG_(?P<level>ERROR|WARN|INFO)(?:_IN)?|elog_output|elog_output_from_handler|ownWarning|"
                  r"complain|standard_streams::print|standard_streams::printError)\s*\(")
LITERAL = re.compile(r'"((?:[^"\\\n]|\\.)*)"')
# Texts that are printed as an argument: each is a message of its own.
NAMED_TEXT = re.compile(r"constexpr char k\w*(?:Fault|Notice)\[\]\s*=\s*((?:\"(?:[^\"\\\n]|\\.)*\"\s*)+);")
CONVERSION = re.compile(r"%%|%[-0-9.*]*l?([a-z])")
COLUMNS = 4


def arguments(text, begin):
    """The text between the parenthesis before begin and its partner, split at its own commas."""
    parts, start, depth, i = [], begin, 1, begin
    while True:
        if text[i] == '"':
            i = LITERAL.match(text, i).end()
            continue
        if text[i] == "," and depth == 1:
            parts.append(text[start:i])
            start = i + 1
        depth += {"(": 1, "{": 1, ")": -1, "}": -1}.get(text[i], 0)
        if depth == 0:
            return parts + [text[start:i]]
        i += 1


def literal(argument):
    """The characters of adjacent string literals, with escapes other than of the quote; None for anything else."""
    if LITERAL.sub("", argument).strip():
        return None
    return "".join(LITERAL.findall(argument)).replace('\\"', '"')


def without_line_feed(text):
    return text[:-2] if text.endswith("\\n") else text


def format_of(name, args):
    if name.startswith("elog_output"):
        return args[5]
    if name == "ownWarning":
        return args[4]
    return args[1] if name.endswith("_IN") else args[0]


def level_of(call, args):
    name = call["name"]
    if call["level"]:
        return call["level"]
    if name.startswith("elog_output"):
        return args[0].strip().replace("ELOG_LVL_", "")
    return {"ownWarning": "WARN", "complain": "stderr", "standard_streams::printError": "stderr"}.get(name, "stdout")


def of_file(path):
    """(level, text) of each message in a source."""
    text = re.sub(r"^\s*(//|#).*$", "", path.read_text(encoding="utf-8"), flags=re.M)
    named = [("stdout", literal(found)) for found in NAMED_TEXT.findall(text)]
    messages = list(named)
    for call in CALL.finditer(text):
        if re.search(r"(?:^|[;{}])\s*(?:void|int|std::size_t|__attribute__.*)\s*$", text[:call.start()]):
            continue  # the function itself
        args = arguments(text, call.end())
        form = literal(format_of(call["name"], args))
        if form is None:
            sys.exit(f"{path}: {call.group()}...): its text is not a string literal, so nobody can compare it")
        if not (named and form == "%s\\n"):
            messages.append((level_of(call, args), form))
    return [(level, without_line_feed(form)) for level, form in messages]


def of_sources(root):
    """The set of (room, source name, level, text). What a source without a name prints counts for its room's name."""
    messages = set()
    for room in sorted(path for path in (root / "src").iterdir() if path.is_dir()):
        names = {}
        for path in sorted(room.glob("*.cpp")):
            names[path] = re.search(r'kLogFile\[\] = "([^"]+)"', path.read_text(encoding="utf-8"))
        usual = next((found[1] for found in names.values() if found), "")
        for path, found in names.items():
            stem = found[1] if found else usual
            messages |= {(f"src/{room.name}", stem, level, text) for level, text in of_file(path)}
    return messages


def rows(root):
    """(room, source name, cells) of each row of the page."""
    room = stem = ""
    for line in (root / "docs/messages.md").read_text(encoding="utf-8").splitlines():
        heading = re.match(r"## (src/\w+)(?:, `(\w+)`)?", line)
        if heading:
            room, stem = heading[1], heading[2] or ""
        if line.startswith("| `"):
            yield room, stem, [cell for cell in line[2:-2].split(" | ")]


def of_page(root):
    messages = set()
    for room, stem, cells in rows(root):
        if len(cells) != COLUMNS or not all(cell.strip() for cell in cells):
            sys.exit(f"docs/messages.md: this row does not have {COLUMNS} filled cells: {cells}")
        message = (room, stem, cells[1], cells[0][1:-1])
        if message in messages:
            sys.exit(f"docs/messages.md has this row twice: {message}")
        messages.add(message)
    return messages


def sample(form):
    """A line that the format could give."""
    values = {"d": "7", "u": "7", "x": "7f", "s": "text"}
    return CONVERSION.sub(lambda found: values[found[1]] if found[1] else "%", form).split("\\n")[0]


def unexplained(vexo, root):
    missing = []
    for _, _, (text, _, when, cure) in rows(root):
        line = sample(text[1:-1])
        if not re.sub(CONVERSION, "", text[1:-1]).strip():
            continue  # any line at all would match
        shown = subprocess.run([vexo, "log", "--explain", line], capture_output=True, text=True, check=False)
        told = " ".join(shown.stdout.split())
        if shown.returncode != 0 or when not in told or cure not in told:
            missing.append(f"{line}\n{shown.stdout}{shown.stderr}")
    return missing


def main():
    root = pathlib.Path(sys.argv[1])
    sources, page = of_sources(root), of_page(root)
    if len(sources) < 10:
        sys.exit(f"only {len(sources)} messages found in the sources: they have changed their form")
    faults = [f"not in docs/messages.md: {message}" for message in sorted(sources - page)]
    faults += [f"not in the sources: {message}" for message in sorted(page - sources)]
    if not faults and len(sys.argv) > 2:
        faults = [f"not explained: {line}" for line in unexplained(sys.argv[2], root)]
    if faults:
        sys.exit("\n".join(faults))
    print(f"{len(page)} messages agree")


if __name__ == "__main__":
    main()
