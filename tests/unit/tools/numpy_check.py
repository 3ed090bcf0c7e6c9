#!/usr/bin/env python3
"""Compares an array of vexo export with the CSV of the same rows.

    numpy_check.py FILE.csv FILE.npy
"""
import csv
import math
import sys

import numpy


def nanoseconds(text):
    seconds, _, places = text.partition(".")
    return int(seconds) * 10**9 + int(places)


def agrees(value, text):
    if isinstance(value, numpy.datetime64):
        return numpy.isnat(value) if text == "" else int(value.astype("int64")) == nanoseconds(text)
    if isinstance(value, numpy.bytes_):
        return value.decode() == text
    if isinstance(value, numpy.floating):
        return math.isnan(value) if text == "" else float(value) == float(text)
    return int(value) in (0, -1) if text == "" else int(value) == int(text)


def main():
    with open(sys.argv[1], newline="", encoding="ascii") as file:
        table = csv.DictReader(file)
        rows = list(table)
        names = table.fieldnames
    array = numpy.load(sys.argv[2], mmap_mode="r")
    assert isinstance(array, numpy.memmap), type(array)
    assert list(array.dtype.names) == names, array.dtype.names
    assert array.shape == (len(rows),), array.shape
    for number, row in enumerate(rows):
        for name, text in row.items():
            assert agrees(array[number][name], text), (number, name, array[number][name], text)
    print(len(rows), "rows agree")


if __name__ == "__main__":
    main()
