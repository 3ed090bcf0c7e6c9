#!/usr/bin/env python3
"""quoted_lines.py SOURCES: every log line that docs/troubleshooting.md, docs/guide.md, their Chinese twins or
`vexo check --after` quote is in the sources.

A quoted line is a code span in the first column of a table, or one that holds a blank elsewhere and ends as a line does.
Its parts between "..." must be in one string of the library, the simulated card or a tool, in this order.
"""
import pathlib
import re
import sys

sources = pathlib.Path(sys.argv[1])
pages = [(sources / "docs" / page).read_text(encoding="utf-8") for page in
         ("troubleshooting.md", "guide.md", "zh/troubleshooting.md", "zh/guide.md")]
table = sources / "tools/vexo/check/StartLines.cpp"  # quotes lines, as the page does
code = [re.sub(r'"\s*\n?\s*"', "", path.read_text()) for room in ("src", "sim", "tools") for path in
        sorted((sources / room).rglob("*.cpp")) if path != table]
strings = [s.replace('\\"', '"').replace("\\n", "") for text in code for s in re.findall(r'"((?:[^"\\\n]|\\.)*)"', text)]

CONVERSION = r"%[-0-9.l]*[a-zA-Z]"


def plain(format_string):
    return re.sub(CONVERSION, "\x00", format_string)


def matches(quoted):
    pattern = ".*".join(re.escape(part) for part in quoted.split("..."))
    return any(re.search(pattern, plain(string), re.S) for string in strings)


quotes = []
for line in "\n".join(pages).splitlines():
    if line.startswith("| ") and not line.startswith("|---"):
        quotes += [span for span in re.findall(r"`([^`]+)`", line.split(" | ")[0]) if " " in span]
rows = re.findall(r'\{"((?:[^"\\\n]|\\.)*)"', table.read_text())
if len(rows) < 20:
    sys.exit(f"only {len(rows)} lines found in {table.name}: the table has changed its form")
quotes += rows
missing = [quoted for quoted in quotes if not matches(quoted)]
if len(quotes) < 20:
    sys.exit(f"only {len(quotes)} quoted lines found: the page has changed its form")
if missing:
    sys.exit("not in the sources:\n  " + "\n  ".join(missing))
print(f"{len(quotes)} quoted lines are in the sources")
