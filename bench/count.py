#!/usr/bin/env python3
"""Runs the counting programs under callgrind and prints instructions per repetition, or checks them.

    count.py [--check FIGURES.json] [--without FIGURE] [--json OUT.json] PROGRAM...

With --check the exit code is 1 when a limit of FIGURES.json does not hold, or when a row of instructions or
values has no number. Counts are exact and repeat; the machine's load does not change them.
"""
import argparse
import glob
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
import judging
import rows

SECTION = re.compile(r"^desc: Trigger: .*section (\S+) (\d+)")
VALUE = re.compile(r"^value (\S+) (\S+)$", re.MULTILINE)


def start(command, directory):
    with open(os.path.join(directory, "stdout"), "wb") as stdout:
        done = subprocess.run(command, cwd=directory, stdout=stdout, stderr=subprocess.PIPE, text=True)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} failed:\n{done.stderr}")
    return done.stderr


def run(program):
    """name -> number per repetition: the values that one program tells by itself, and its counted sections."""
    directory = tempfile.mkdtemp(prefix="vexo-count-")
    try:
        numbers = {name: float(value) for name, value in VALUE.findall(start([program], directory))}
        start(["valgrind", "--tool=callgrind", "--collect-atstart=no", "--callgrind-out-file=counts", program],
              directory)
        for path in glob.glob(os.path.join(directory, "counts.*")):
            numbers.update(section(path))
        return numbers
    finally:
        shutil.rmtree(directory)


def section(path):
    name, times = None, 0
    with open(path) as dump:
        for line in dump:
            found = SECTION.match(line)
            if found:
                name, times = found[1], int(found[2])
            elif line.startswith(("summary:", "totals:")) and name:
                return {name: int(line.split()[1]) / times}
    return {}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--check", metavar="FIGURES", help="hold the counts against the limits of this file")
    parser.add_argument("--without", metavar="FIGURE", action="append", default=[],
                        help="one whose program was not built; may be repeated")
    parser.add_argument("--json", help="write the numbers here")
    parser.add_argument("programs", nargs="+")
    options = parser.parse_args()

    numbers = {}
    for program in options.programs:
        numbers.update(run(os.path.abspath(program)))
    if options.json:
        with open(options.json, "w") as out:
            json.dump(numbers, out, indent=1)
    if not options.check:
        for name in sorted(numbers):
            print(f"{name:24} {numbers[name]:10.2f}")
        return 0
    with open(options.check) as table:
        wanted = [row for row in json.load(table) if row["kind"] in rows.EXACT and row["figure"] not in options.without]
    judged = [rows.judge_count(row, numbers) for row in wanted]
    rows.print_table(judged)
    return 1 if any(judging.is_wrong(row) for row in judged) else 0


if __name__ == "__main__":
    sys.exit(main())
