#!/usr/bin/env python3
"""Compares --help of every program and subcommand with its manual page and with the completion of bash and zsh.

    manuals.py PROGRAM_DIRECTORY MANUALS_DIRECTORY
"""

import os
import re
import shutil
import subprocess
import sys

PROGRAMS = ("vexo", "vexo-simcard", "vexo-cardtest")
program_directory, manuals_directory = map(os.path.abspath, sys.argv[1:])
problems = []


def output(*words):
    return subprocess.run(words, check=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True).stdout


def section(text, title):
    """The entries below a title of --help: the first words of each line that is indented by two blanks."""
    lines = re.search(rf"^{title}:\n((?:[ \t].*\n|\n)*)", text, re.M)
    return re.findall(r"^ {2}(\S.*?)(?: {2,}.*)?$", lines.group(1), re.M) if lines else []


def options_of(text):
    return {word for entry in section(text, "Options") for word in re.findall(r"(?<![\w-])--?[a-z][a-z-]*", entry)}


def walk(path):
    text = output(os.path.join(program_directory, path[0]), *path[1:], "--help")
    yield path, text
    for below in section(text, "Subcommands"):
        yield from walk(path + [below.split()[0]])


def check(what, found, wanted):
    for word in sorted(wanted - found):
        problems.append(f"{what} lacks {word}")
    for word in sorted(found - wanted):
        problems.append(f"{what} has {word}, which --help does not have")


def manual_section(page, path):
    title = "OPTIONS" if len(path) == 1 else " ".join(path).upper()
    found = re.search(rf"^{re.escape(title)}\n((?: .*\n|\n)*)", page, re.M)
    return found.group(1) if found else ""


def manual_options(text):
    return {word for line in re.findall(r"^ {7}(-\S.*)$", text, re.M)
            for word in re.findall(r"(?<![\w-])--?[a-z][a-z-]*", line)}


def statuses_of(text):
    """The table of exit statuses in a text, with its words as they are."""
    table = re.search(r"^Exit status:\n((?: {2}\S.*\n)*)", text, re.M)
    return {tuple(re.match(r" {2}(\w+) +(.*)", line).groups()) for line in table.group(1).splitlines()} if table else set()


def manual_statuses(page, path):
    """The same of the manual page: below EXIT STATUS, and there below the title of a subcommand."""
    text = re.search(r"^EXIT STATUS\n((?: .*\n|\n)*)", page, re.M).group(1)
    parts = re.split(r"^ {3}(\S.*)\n", text, flags=re.M)
    if len(path) > 1:
        name = " ".join(path)
        text = parts[parts.index(name) + 1] if name in parts else ""
    else:
        text = parts[0]
    entries = re.findall(r"^ {7}(\w+) +(\S.*(?:\n {10,}\S.*)*)", text, re.M)
    return {(status, re.sub(r"\s+", " ", words).rstrip(".")) for status, words in entries}


def completed_by_bash(path):
    """What bash offers for an empty word after these words."""
    words = " ".join(f"'{word}'" for word in path)
    script = (f"source '{manuals_directory}/bash/{path[0]}'; COMP_WORDS=({words} ''); COMP_CWORD={len(path)}; "
              f"_{path[0].replace('-', '_')}; printf '%s\\n' \"${{COMPREPLY[@]}}\"")
    return set(subprocess.run(["bash", "-c", script], check=True, stdout=subprocess.PIPE, text=True,
                              cwd=os.path.join(manuals_directory, "zsh")).stdout.split())


def zsh_function(text, path):
    name = "_" + "_".join(path).replace("-", "_")
    return re.search(rf"^{name}\(\) {{\n(.*?)^}}", text, re.M | re.S).group(1)


def check_program(program):
    page = output("env", "MANWIDTH=80", "LC_ALL=C.UTF-8", "man", "-l",
                  os.path.join(manuals_directory, "man", program + ".1")) if shutil.which("man") else None
    with open(os.path.join(manuals_directory, "zsh", "_" + program), encoding="utf-8") as file:
        zsh = file.read()
    for path, text in walk([program]):
        name = " ".join(path)
        options, commands = options_of(text), {entry.split()[0] for entry in section(text, "Subcommands")}
        takes_program = {"--"} if "-- PROGRAM" in text else set()
        if "--help" not in options:
            problems.append(f"{name} --help was not understood")
        if page is not None:
            said = manual_options(manual_section(page, path)) | ({"-h", "--help", "--version"} if len(path) > 1 else set())
            check(f"the manual page of {name}", said, options)
            check(f"EXIT STATUS of {name}", {" ".join(row) for row in manual_statuses(page, path)},
                  {" ".join(row) for row in statuses_of(text)})
            check(f"the synopsis of {name}", {name} if commands or name in page else set(), {name})
        files = set(os.listdir(os.path.join(manuals_directory, "zsh"))) if section(text, "Positionals") else set()
        check(f"bash after {name}", completed_by_bash(path) - files, options | commands | takes_program)
        function = zsh_function(zsh, path)
        check(f"zsh after {name}", set(re.findall(r"'\*?(--?[a-z][a-z-]*)\[", function)), options)
        check(f"zsh after {name}", set(re.findall(r"'([a-z]+):", function)) & commands, commands)
    for shell, file in (("bash", f"bash/{program}"), ("zsh", f"zsh/_{program}")):
        if shutil.which(shell) and subprocess.run([shell, "-n", os.path.join(manuals_directory, file)]).returncode != 0:
            problems.append(f"{file} is no script of {shell}")


for each in PROGRAMS:
    check_program(each)
print("\n".join(problems), end="\n" if problems else "")
if not shutil.which("man"):
    print("skipped: the manual pages were not looked at, because there is no man (Debian package man-db)")
sys.exit(1 if problems else 0 if shutil.which("man") else 77)
