#!/usr/bin/env python3
"""A program of times: in which order it calls the roles of a case, and what it writes.

    rounds_test.py ROOT PROGRAM
"""
import os
import subprocess
import sys
import tempfile
import unittest

PROGRAM = os.path.abspath(sys.argv.pop())
ROOT = os.path.abspath(sys.argv.pop())
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(ROOT, "bench"))
import judging  # noqa: E402
import run  # noqa: E402


class Rounds(unittest.TestCase):
    def measure(self, *arguments):
        """(cases, numbers, steps) of a run that goes on until two turns are clean, or for no time at all."""
        with tempfile.TemporaryDirectory() as directory:
            command = [PROGRAM, "--out", "times.json", *arguments]
            subprocess.run(command, cwd=directory, check=True)
            with open(os.path.join(directory, "times.json")) as out:
                cases, numbers = run.read_times(out.read())
            steps = os.path.join(directory, "steps.txt")
            if not os.path.exists(steps):
                return cases, numbers, []
            with open(steps) as lines:
                return cases, numbers, lines.read().split("\n")[:-1]

    def test_a_turn_runs_each_role_forwards_and_the_next_one_backwards(self):
        cases, _, steps = self.measure("--turns", "2", "--seconds", "0.001", "order")
        self.assertGreaterEqual(len(cases["order"]["turns"]), 1)
        rounds = [step.split()[0] for step in steps if step.endswith("run")]
        forwards = ["a", "b"]
        for turn, at in enumerate(range(2, len(rounds), 2)):  # the first one is a warm-up
            self.assertEqual(forwards if turn % 2 == 0 else forwards[::-1], rounds[at:at + 2])
        self.assertEqual(len(rounds), 2 + 2 * len(cases["order"]["turns"]))

    def test_a_round_is_prepared_before_and_finished_behind(self):
        _, _, steps = self.measure("--turns", "1", "--seconds", "0", "order")
        self.assertEqual(["a prepare", "a run", "a finish", "b prepare", "b run", "b finish"], steps[:6])

    def test_the_numbers_of_a_round_stand_under_the_name_of_its_role(self):
        cases, numbers, _ = self.measure("--turns", "1", "--seconds", "0", "order")
        turn = judging.turns_of(cases["order"])[0]
        self.assertEqual(["a", "b"], sorted(turn))
        self.assertGreater(turn["a"]["ns"], 0)
        self.assertGreater(turn["b"]["tsc"], 0)
        self.assertEqual((7, {"order/answer": 42}), (cases["order"]["times"], numbers))

    def test_switches_of_other_processes_that_take_part_count(self):
        cases, _, _ = self.measure("--turns", "1", "--seconds", "0", "elsewhere")
        self.assertGreaterEqual(judging.turns_of(cases["elsewhere"])[0]["a"]["switches"], 1)
        self.assertEqual([], judging.clean(judging.turns_of(cases["elsewhere"])))

    def test_a_case_that_the_machine_cannot_measure_is_not_started(self):
        cases, _, steps = self.measure("cannot")
        self.assertEqual(({"case": "cannot", "cannot": "needs a reason"}, []), (cases["cannot"], steps))

    def test_only_the_cases_that_are_asked_for_run(self):
        cases, _, _ = self.measure("--turns", "1", "--seconds", "0", "elsewhere", "cannot")
        self.assertEqual(["cannot", "elsewhere"], sorted(cases))

    def test_what_a_case_writes_can_be_judged(self):
        cases, _, _ = self.measure("--turns", "1", "--seconds", "0", "order")
        row = {"kind": "ratio", "measure": "ns", "case": "order", "ours": "a", "floor": "b", "better": "lower",
               "goal": 1, "limit": 2}
        self.assertIn("of 1 turns without a context switch", judging.judge(row, cases)["verdict"])


if __name__ == "__main__":
    unittest.main()
