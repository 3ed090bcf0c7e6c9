#!/usr/bin/env python3
"""Runs the benchmarks, prints the table of figures and writes its numbers.

    run.py --build DIR [--quick] [--figure NAME]... [--out RESULTS.json] [--write-page PAGE.md]

The exit code is 1 when a limit does not hold or a figure was not measured. Figures that the machine was too busy to
judge are no error.
"""
import argparse
import glob
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True
import count
import judging
import machine
import page
import rows

HERE = os.path.dirname(os.path.abspath(__file__))
TURNS, SECONDS = 31, 40
QUICK_TURNS, QUICK_SECONDS = 21, 5


def run_times(program, figures, quick):
    """(case -> its rounds, name -> number) of one program, run in a directory of its own."""
    directory = tempfile.mkdtemp(prefix="vexo-bench-")
    turns, seconds = (QUICK_TURNS, QUICK_SECONDS) if quick else (TURNS, SECONDS)
    command = [program, "--out", "times.json", "--turns", str(turns), "--seconds", str(seconds), *figures]
    try:
        with open(os.path.join(directory, "stdout"), "wb") as stdout:
            done = subprocess.run(command, cwd=directory, stdout=stdout, stderr=subprocess.PIPE, text=True)
        if done.returncode != 0:
            sys.exit(f"{' '.join(command)} failed:\n{done.stderr}")
        with open(os.path.join(directory, "times.json")) as out:
            return read_times(out.read())
    finally:
        shutil.rmtree(directory)


def read_times(text):
    """A program writes one JSON object behind the other: cases, and numbers that a case tells by itself."""
    cases, numbers, decoder = {}, {}, json.JSONDecoder()
    text = text.strip()
    while text:
        found, end = decoder.raw_decode(text)
        if "number" in found:
            numbers[found["number"]] = found["value"]
        else:
            cases[found["case"]] = found
        text = text[end:].lstrip()
    return cases, numbers


def summary(case):
    """Nanoseconds of a round: quartiles of each role, from the clean turns when there are any."""
    if "turns" not in case:
        return case
    turns = judging.turns_of(case)
    seen = judging.clean(turns) or turns
    quartiles = {}
    for role in case["roles"]:
        times = [turn[role]["ns"] for turn in seen]
        quartiles[role] = statistics.quantiles(times, n=4, method="inclusive") if len(times) > 1 else times * 3
    return {"times": case["times"], "turns": len(turns), "clean": len(judging.clean(turns)),
            "doubt": judging.doubt(case, turns, judging.clean(turns)), "quartiles": quartiles}


def print_results(judged, numbers, described):
    print("".join(f"{name}: {value}\n" for name, value in described.items()))
    rows.print_table([row for row in judged if "limit" in row])
    print("\nFor information:")
    rows.print_table([row for row in judged if "limit" not in row])
    for name, value in numbers.items():
        if name.endswith(("/median", "/p99.9", "/max")):
            print(f"  {name}: {value:,.0f} ticks of the time-stamp counter")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--figure", action="append", default=[])
    parser.add_argument("--out", default="bench-results.json")
    parser.add_argument("--write-page", metavar="PAGE")
    options = parser.parse_args()

    with open(os.path.join(HERE, "figures.json")) as table:
        wanted = [row for row in json.load(table) if not options.figure or row["figure"] in options.figure]
    programs = os.path.join(os.path.abspath(options.build), "bench")
    cases, numbers = {}, {}
    for program in sorted(glob.glob(os.path.join(programs, "time_*"))):
        if os.access(program, os.X_OK):
            found = run_times(program, options.figure, options.quick)
            cases.update(found[0])
            numbers.update(found[1])
    for program in sorted(glob.glob(os.path.join(programs, "count_*"))):
        if os.access(program, os.X_OK):
            numbers.update(count.run(program))

    judged = [rows.judge(row, cases, numbers) for row in wanted]
    described = machine.describe(options.build)
    print_results(judged, numbers, described)
    summaries = {name: summary(case) for name, case in cases.items()}
    with open(options.out, "w") as out:
        json.dump({"machine": described, "quick": options.quick, "rows": judged, "numbers": numbers,
                   "cases": summaries}, out, indent=1)
    if options.write_page:
        page.write(options.write_page, described, judged, numbers, summaries)
    wrong = [row for row in judged if judging.is_wrong(row)]
    doubtful = [row for row in judged if row["verdict"].startswith("not judged")]
    print(f"\nNumbers: {options.out}\n{len(wrong)} limits do not hold, {len(doubtful)} figures were not judged.")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
