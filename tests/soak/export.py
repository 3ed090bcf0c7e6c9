#!/usr/bin/env python3
"""Compares vexo export with tshark, field by field, and measures both.

    export.py VEXO DISSECTOR CAPTURE

The last line has the figures. The exit status is 1 for a field that differs, and for a rate that is too low.
"""
import csv
import itertools
import os
import subprocess
import sys

RATE = 500_000  # rows a second of CPU time
TIMES = 5       # of tshark's rate
FIELDS = ["sequence", "id", "row", "table", "level", "date", "time", "millis", "last", "upper_limit", "lower_limit",
          "turnover", "volume", "open_interest", "bid_price", "ask_price", "bid_volume", "ask_volume"]
DECIMALS = {"last", "upper_limit", "lower_limit", "turnover", "bid_price", "ask_price"}


def run(command, **options):
    """Seconds of CPU time, which other programs of the machine do not change much."""
    process = subprocess.Popen(command, **options)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode != 0:
        sys.exit(f"{command[0]} ended with {process.returncode}")
    return usage.ru_utime + usage.ru_stime


def best(command, output):
    """The best of three runs."""
    times = []
    for _ in range(3):
        if os.path.exists(output):
            os.remove(output)
        times.append(run(command + ["--output", output]))
    return min(times)


def tshark_rows(dissector, capture):
    command = ["tshark", "-X", "lua_script:" + dissector, "-r", capture, "-Y", "vexo.layout", "-T", "fields",
               "-E", "separator=;", "-e", "frame.time_epoch", "-e", "vexo.type"]
    for field in FIELDS:
        command += ["-e", "vexo.quote." + field]
    with open("tshark.txt", "wb") as out:
        return run(command, stdout=out, stderr=subprocess.DEVNULL)


def places(names):
    """Of each field of tshark, the columns that hold its values."""
    found = [[names.index("time")], [names.index("type")]]
    for field in FIELDS:
        own = "quote_time" if field == "time" else field
        found.append([i for i, name in enumerate(names)
                      if name == own or (name.startswith(own + "_") and name[len(own) + 1:].isdigit())])
    used = {i for list_ in found for i in list_} | {names.index("channel")}
    assert used == set(range(len(names))), "columns that are not compared"
    return found


def compare(csv_file, tshark_file):
    with open(csv_file, newline="", encoding="ascii") as ours, open(tshark_file, encoding="ascii") as theirs:
        rows = csv.reader(ours)
        names = next(rows)
        columns = places(names)
        kinds = [False, False] + [field in DECIMALS for field in FIELDS]
        count = 0
        for row, line in itertools.zip_longest(rows, theirs):
            if row is None or line is None:
                sys.exit(f"one of the two ends after {count} rows")
            for places_, isDecimal, value in zip(columns, kinds, line.rstrip("\n").split(";")):
                mine = [row[i] for i in places_ if row[i] != ""]
                shown = ",".join(f"{float(one):.15g}" if isDecimal else one for one in mine)
                if shown != value:
                    sys.exit(f"row {count}: {names[places_[0]]} is {shown}, in tshark {value}")
            count += 1
    return count


def main():
    vexo, dissector, capture = sys.argv[1:]
    command = [vexo, "export", capture]
    seconds = {ending: best(command, "out." + ending) for ending in ("csv", "jsonl", "npy")}
    tshark = tshark_rows(dissector, capture)
    rows = compare("out.csv", "tshark.txt")
    rates = ", ".join(f"{ending} {rows / seconds[ending]:,.0f}" for ending in seconds)
    is_slow = rows / seconds["csv"] < RATE or seconds["csv"] * TIMES > tshark
    print(f"{rows:,} quotes, every field as in tshark; rows a second of CPU time: {rates}; tshark {rows / tshark:,.0f}"
          + ("; TOO SLOW" if is_slow else ""))
    return int(is_slow)


if __name__ == "__main__":
    sys.exit(main())
