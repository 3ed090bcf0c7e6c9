#!/usr/bin/env python3
"""Runs the benchmarks, prints the table of figures and writes its numbers.

    run.py --build DIR [--quick] [--figure N]... [--out RESULTS.json]

The exit code is 1 when a limit does not hold or a figure was not measured.
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

import count
import machine
import rows

HERE = os.path.dirname(os.path.abspath(__file__))
# What Google Benchmark appends to the name that the source gave.
SUFFIX = re.compile(r"/(iterations|repeats|min_time|min_warmup_time|threads):[^/]*|/(manual_time|real_time|process_time)")
UNITS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def run_times(program, figures, quick):
    """case -> {"times": [ns of each repetition], "counters": {name: [...]}} of one program, repetitions interleaved."""
    directory = tempfile.mkdtemp(prefix="vexo-bench-")
    chosen = "|".join(str(figure) for figure in figures) or "[0-9]+"
    repetitions, seconds = (7, 0.02) if quick else (21, 0.05)
    command = [program, f"--benchmark_filter=^fig({chosen})/", f"--benchmark_repetitions={repetitions}",
               f"--benchmark_min_time={seconds}", "--benchmark_enable_random_interleaving=true",
               "--benchmark_out=times.json", "--benchmark_out_format=json"]
    try:
        with open(os.path.join(directory, "stdout"), "wb") as stdout:
            done = subprocess.run(command, cwd=directory, stdout=stdout, stderr=subprocess.PIPE, text=True)
        if done.returncode != 0:
            sys.exit(f"{' '.join(command)} failed:\n{done.stderr}")
        with open(os.path.join(directory, "times.json")) as out:
            text = out.read()
        return cases(json.loads(text)["benchmarks"] if text.strip() else [])
    finally:
        shutil.rmtree(directory)


def cases(benchmarks):
    found = {}
    for one in benchmarks:
        if one["run_type"] != "iteration":
            continue
        if one.get("error_occurred"):
            sys.exit(f"{one['name']}: {one['error_message']}")
        case = found.setdefault(SUFFIX.sub("", one["run_name"]), {"times": [], "counters": {}})
        case["times"].append(one["real_time"] * UNITS[one["time_unit"]])
        for name, value in one.items():
            if isinstance(value, float) and name not in ("real_time", "cpu_time"):
                case["counters"].setdefault(name, []).append(value)
    return found


def growth_rows(times):
    """One row for each axis of each operation of figure 10, by the names of its cases."""
    axes = {}
    for name in times:
        found = re.fullmatch(r"(fig10/ours/.+)/(\d+)", name)
        if found:
            axes.setdefault(found[1], []).append(int(found[2]))
    return [{"figure": 10, "what": f"growth, 1 is linear: {axis.split('/', 2)[2]} {min(sizes)} to {max(sizes)}",
             "kind": "growth", "better": "lower", "goal": 1.0, "limit": 1.15,
             "cases": [f"{axis}/{size}" for size in sorted(sizes)]}
            for axis, sizes in sorted(axes.items())]


def worst_cases(cases_by_name):
    print("\nOne poll with a packet ready, cycles of the time-stamp counter (medians of the repetitions):")
    for role in ("ours", "floor"):
        case = cases_by_name.get(f"fig1/{role}/cycles")
        if case:
            numbers = {name: rows.quartiles(values)[1] for name, values in case["counters"].items()}
            print(f"  {role:6}" + "".join(f"  {name} {numbers[name]:.0f}" for name in ("median", "p99.9", "max")))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--figure", type=int, action="append", default=[])
    parser.add_argument("--out", default="bench-results.json")
    options = parser.parse_args()

    programs = os.path.join(os.path.abspath(options.build), "bench")
    cases_by_name, numbers = {}, {}
    for program in sorted(glob.glob(os.path.join(programs, "time_*"))):
        if os.access(program, os.X_OK):
            cases_by_name.update(run_times(program, options.figure, options.quick))
    for program in sorted(glob.glob(os.path.join(programs, "count_*"))):
        if os.access(program, os.X_OK):
            numbers.update(count.run(program))

    times = {name: case["times"] for name, case in cases_by_name.items()}
    with open(os.path.join(HERE, "figures.json")) as table:
        wanted = json.load(table) + growth_rows(times)
    judged = [rows.judge(row, times, numbers) for row in wanted if not options.figure or row["figure"] in options.figure]

    described = machine.describe(options.build)
    print("".join(f"{name}: {value}\n" for name, value in described.items()))
    rows.print_table(judged)
    worst_cases(cases_by_name)
    for case in cases_by_name.values():
        case["quartiles"] = rows.quartiles(case["times"])
    with open(options.out, "w") as out:
        json.dump({"machine": described, "quick": options.quick, "rows": judged, "cases": cases_by_name,
                   "counts": numbers}, out, indent=1)
    missing = [row for row in judged if not row["holds"]]
    print(f"\nNumbers: {options.out}\n" + (f"{len(missing)} limits do not hold." if missing else "All limits hold."))
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
