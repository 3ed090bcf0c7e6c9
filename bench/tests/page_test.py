#!/usr/bin/env python3
"""The table of figures: what it shows, how it gets into its page, and that the page has the figures of today.

    page_test.py ROOT
"""
import json
import os
import sys
import unittest

ROOT = os.path.abspath(sys.argv.pop())
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(ROOT, "bench"))
import page  # noqa: E402
import rows  # noqa: E402


def read(path):
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        return file.read()


FIGURES = json.loads(read("bench/figures.json"))
PAGE = read("docs/performance.md")
COUNT = {"what": "a count", "rival": "bare", "kind": "instructions-more", "ours": "a/ours", "floor": "a/floor",
         "better": "lower", "goal": 29, "limit": 31}


class Cells(unittest.TestCase):
    def test_a_time_shows_its_interval(self):
        self.assertEqual("1.07 (1.06 to 1.1)", rows.measured({"value": 1.0712, "low": 1.06, "high": 1.1}))

    def test_ticks_are_named(self):
        row = {"value": 10.44, "low": 10, "high": 11.26, "measured_by": "tsc"}
        self.assertEqual("TSC 10.4 (10 to 11.3)", rows.measured(row))

    def test_what_was_not_measured_shows_nothing(self):
        self.assertEqual("-", rows.measured({"value": None}))


class Counts(unittest.TestCase):
    def verdict(self, ours, floor=100):
        return rows.judge(COUNT, {}, {"a/ours": ours, "a/floor": floor})["verdict"]

    def test_are_exact(self):
        self.assertEqual(["holds, goal reached", "holds", "DOES NOT HOLD"],
                         [self.verdict(129), self.verdict(131), self.verdict(131.25)])

    def test_that_are_missing_are_an_error(self):
        self.assertEqual("NOT MEASURED", rows.judge(COUNT, {}, {"a/ours": 1})["verdict"])


class Page(unittest.TestCase):
    def test_only_what_lies_between_the_comments_is_replaced(self):
        before = f"above\n{page.BEGIN}\nold\n{page.END}\nbelow\n"
        self.assertEqual(f"above\n{page.BEGIN}\n\nnew\n\n{page.END}\nbelow\n", page.replaced(before, "new"))

    def test_single_polls_have_a_line_for_each_reader(self):
        numbers = {f"packet/each/{reader}/{name}": 1234
                   for reader in ("ours", "hand", "empty") for name in ("median", "p99.9", "max")}
        calm = page.polls(numbers, {"packet/each": {"doubt": None}})
        self.assertEqual(5, len(calm.splitlines()))
        self.assertIn("| `VexoRecv`, warm caches | 1,234 | 1,234 | 1,234 |", calm)
        busy = page.polls(numbers, {"packet/each": {"doubt": "others used 30% of the machine"}})
        self.assertEqual(calm + "\n\nThese polls are those of a busy machine: others used 30% of the machine.", busy)

    def test_has_every_figure_with_its_goal_and_limit(self):
        shown = PAGE[PAGE.index(page.BEGIN):PAGE.index(page.END)]
        found = []
        for line in shown.splitlines():
            cells = [cell.strip() for cell in line.split("|")[1:-1]]
            if len(cells) == len(rows.HEAD):
                found.append(tuple(cells[:2] + cells[3:5]))
        for row in FIGURES:
            cells = rows.cells(dict(row, value=None, verdict=""))
            self.assertIn(cells[:2] + cells[3:5], found)
        self.assertEqual(len(FIGURES), len([row for row in found if row[0] not in ("figure", "---")]))


if __name__ == "__main__":
    unittest.main()
