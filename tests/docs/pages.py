#!/usr/bin/env python3
"""Checks what the pages say of the tree.

    pages.py walks ROOT   each step of a walk in docs/architecture.md names a file and a function that is in it, and the
                          heading counts the files; no walk visits more of them than its limit
    pages.py texts ROOT   the files in docs/quirks.md and in the typos of CONTRIBUTING.md hold what is said to be in them
    pages.py paths ROOT   every file and folder that a page names is there
    pages.py tests ROOT   every test that CONTRIBUTING.md names as a guard is there
    pages.py keys ROOT    examples/zce.ini has every key that the configuration reads, and no other

One line for each mistake; exit status 1 if there is any.
"""
import glob
import os
import re
import sys

# What a reader of each walk may have to open at most.
LIMITS = {"packet": 4, "ini key": 5, "contract map": 5, "hosted write": 9, "tap": 9}

HEADING = re.compile(r"^### Walk: ([^,]+), .*: (\d+) files$")
STEP = re.compile(r"^\d+\. `([^`]+)` → `([^`]+)`: \S")
ROOMS = "bench|capture|cmake|docs|examples|include|interface|packaging|scripts|sim|src|tests|tools"
PATH = re.compile(r"`((?:%s)(?:/[\w.+-]+)*/?)`|\]\(([\w./+-]+)(?:#[\w-]+)?\)" % ROOMS)


def read(root, path):
    with open(os.path.join(root, path), encoding="utf-8") as page:
        return page.read()


def walks(page):
    """The walks of the page: name -> (files that the heading counts, [(file, function)])."""
    found, steps = {}, None
    for line in page.splitlines():
        heading = HEADING.match(line)
        if heading:
            steps = []
            found[heading.group(1)] = (int(heading.group(2)), steps)
        elif line.startswith("#"):
            steps = None
        elif steps is not None and re.match(r"^\d+\. ", line):
            step = STEP.match(line)
            steps.append(step.groups() if step else (line, None))
    return found


def has_function(text, name):
    """Whether a source defines or declares a function (or a constant), with its class if the name has one."""
    scope, _, plain = name.rpartition("::")
    if re.match(r"k[A-Z]\w*$", plain):  # a constant
        return re.search(r"\b%s\b" % plain, text) is not None
    function = re.escape(plain) + r"(?:<[^<>]*>)?\s*\("
    if not scope:
        return re.search(r"(?<![\w.>])" + function, text) is not None
    inside = re.search(r"\b(?:class|struct|namespace) (?:\w+::)*%s\b" % re.escape(scope), text)
    return (re.search(r"\b%s::%s" % (re.escape(scope), function), text) is not None
            or (inside is not None and re.search(r"(?<![\w.>])" + function, text[inside.start():]) is not None))


def check_walks(root):
    found = walks(read(root, "docs/architecture.md"))
    for name in sorted(LIMITS.keys() - found.keys()):
        yield f"docs/architecture.md: there is no walk '{name}'"
    for name, (counted, steps) in found.items():
        files = {file for file, function in steps if function}
        if name not in LIMITS:
            yield f"walk '{name}': it has no limit"
        elif len(files) > LIMITS[name]:
            yield f"walk '{name}': {len(files)} files, more than {LIMITS[name]}"
        if counted != len(files):
            yield f"walk '{name}': its heading says {counted} files, its steps visit {len(files)}"
        for file, function in steps:
            if function is None:
                yield f"walk '{name}': not `file` → `function`: {file}"
            elif not os.path.isfile(os.path.join(root, file)):
                yield f"walk '{name}': there is no file {file}"
            elif not has_function(read(root, file), function):
                yield f"walk '{name}': {file} has no {function}"


def rows(page):
    """Cells of the lines of all tables."""
    for line in page.splitlines():
        if line.startswith("| `"):
            yield [cell.strip(" ") for cell in re.split(r"(?<!\\)\|", line)[1:-1]], line


def joined_literals(text):
    """A source with the pieces of each text that is spread over lines put together."""
    return re.sub(r'"\s*\n\s*"', "", text)


def check_texts(root):
    for page in ("docs/quirks.md", "CONTRIBUTING.md"):
        count = 0
        for cells, line in rows(read(root, page)):
            first = re.findall(r"`([^`]+)`", cells[0])
            if page == "docs/quirks.md":
                wanted = first[1:]
            elif len(cells) == 3 and cells[1].startswith("`"):
                wanted = re.findall(r"`([^`]+)`", line)[1:2]
            else:
                continue
            count += 1
            if not wanted:
                yield f"{page}: nothing is looked for in {first[0]}"
            if not os.path.isfile(os.path.join(root, first[0])):
                yield f"{page}: there is no file {first[0]}"
                continue
            text = joined_literals(read(root, first[0]))
            for piece in wanted:
                if piece not in text:
                    yield f"{page}: {first[0]} has no {piece}"
        if count < 20:
            yield f"{page}: only {count} rows were found"


def check_paths(root):
    pages = [path for pattern in ("*.md", "docs/*.md", "docs/zh/*.md", "bench/*.md", "sim/scenarios/*.md")
             for path in sorted(glob.glob(os.path.join(root, pattern)))]
    count = 0
    for page in pages:
        name = os.path.relpath(page, root)
        if name == "CHANGELOG.md":  # tells of files that are gone, too
            continue
        for match in PATH.finditer(read(root, name)):
            count += 1
            at = os.path.join(root, match.group(1)) if match.group(1) else os.path.join(os.path.dirname(page),
                                                                                        match.group(2))
            if not os.path.exists(at):
                yield f"{name}: there is no {match.group(1) or match.group(2)}"
    if count < 20:
        yield f"only {count} paths were found"


def check_tests(root):
    sources = "".join(read(root, os.path.relpath(path, root)) for pattern in ("*.cpp", "CMakeLists.txt")
                      for path in glob.glob(os.path.join(root, "tests/**", pattern), recursive=True))
    names = re.findall(r"\(`([A-Z]\w+)(?:\.(\w+))?`\)", read(root, "CONTRIBUTING.md"))
    for suite, test in names:
        found = re.search(r"TEST(?:_[FP])?\(%s, %s" % (suite, test), sources)
        if not found and not (suite == "Docs" and test in sources):
            yield f"CONTRIBUTING.md: there is no test {suite}.{test or '*'}"
    if len(names) < 5:
        yield f"only {len(names)} tests were found"


def check_keys(root):
    reads, has = set(), set()
    for source in sorted(glob.glob(os.path.join(root, "src/config/*.cpp"))):
        text = read(root, os.path.relpath(source, root))
        reads.update(key.lower() for key in re.findall(r'"((?:config|version):[\w.]+)"', text))
        reads.update("channel:" + key for key in re.findall(r'channelKey\(\w+, "(\w+)"\)', text))
    section = ""
    for entry in read(root, "examples/zce.ini").splitlines():
        begins = re.match(r"\[(config|version|channel)\d*\]$", entry)
        section = begins.group(1) if begins else section
        key = re.match(r";?([\w.]+)\s*=", entry)  # a key that is switched off is shown, too
        if key:
            has.add(f"{section}:{key.group(1).lower()}")
    for key in sorted(reads - has):
        yield f"examples/zce.ini does not tell of {key}"
    for key in sorted(has - reads):
        yield f"examples/zce.ini tells of {key}, which nothing reads"
    if len(reads) < 20:
        yield f"only {len(reads)} keys were found in src/config"


CHECKS = {"walks": check_walks, "texts": check_texts, "paths": check_paths, "tests": check_tests,
          "keys": check_keys}


def main():
    if len(sys.argv) != 3 or sys.argv[1] not in CHECKS:
        sys.exit(__doc__)
    mistakes = list(CHECKS[sys.argv[1]](sys.argv[2]))
    for mistake in mistakes:
        print(mistake)
    sys.exit(1 if mistakes else 0)


if __name__ == "__main__":
    main()
