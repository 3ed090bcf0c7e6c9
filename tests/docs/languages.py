#!/usr/bin/env python3
"""Compares the pages that there are in two languages.

    languages.py ROOT

Both have the same commands in the same order, the same files (apart from comments), the same headings and rows of
tables, the same pieces of code in the text, and lead to the same pages. One line for each difference; exit status 1 if
there is any.
"""
import difflib
import pathlib
import re
import sys

sys.dont_write_bytecode = True
import run_page  # noqa: E402

PAIRS = [("README.md", "README.zh-CN.md"), ("docs/guide.md", "docs/zh/guide.md"),
         ("docs/troubleshooting.md", "docs/zh/troubleshooting.md")]


def without_comments(lines):
    return [re.sub(r"\s*(//|;|#(?!include)).*", "", line) for line in lines]


def commands(text):
    return [run_page.bare(command) for number, kind, lines in run_page.blocks(text) if kind == "sh"
            for _, command in run_page.commands(number, lines)]


def files(text):
    return [line for _, kind, lines in run_page.blocks(text) if kind.startswith("file ")
            for line in [kind, *without_comments(lines)]]


def prose(text):
    return re.sub(r"^```.*?^```$", "", text, flags=re.M | re.S)


def code(text):
    return sorted(set(re.findall(r"`([^`\n]+)`", prose(text))))


def shape(text):
    """Headings and tables: a section or a row that is missing in one language."""
    return [re.match(r"#+|\|", line).group() for line in prose(text).splitlines() if re.match(r"#+ |\|", line)]


def targets(text):
    """The pages that a page leads to; a page of the same name in the reader's language is the same page."""
    found = re.findall(r"\]\(([^)#]+)", text)
    return sorted({pathlib.PurePath(target).name.replace(".zh-CN", "") for target in found})


CHECKS = {"command": commands, "line of a file": files, "piece of code": code, "heading or row": shape,
          "link": targets}


def differences(first, second, texts):
    for what, extract in CHECKS.items():
        for line in difflib.ndiff(*(extract(text) for text in texts)):
            if line[0] in "-+":
                here, there = (first, second) if line[0] == "-" else (second, first)
                yield f"{there} lacks a {what} of {here}: {line[2:]}"


def mistakes(root):
    for pair in PAIRS:
        texts = [(root / page).read_text(encoding="utf-8") for page in pair]
        if len(commands(texts[0])) + len(code(texts[0])) < 20:
            yield f"{pair[0]}: hardly any commands were found"
        yield from differences(*pair, texts)


def main():
    found = list(mistakes(pathlib.Path(sys.argv[1])))
    print("\n".join(found))
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
