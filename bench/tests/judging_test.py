#!/usr/bin/env python3
"""The judging of times, with made-up rounds.

    judging_test.py ROOT
"""
import os
import random
import sys
import unittest

ROOT = os.path.abspath(sys.argv.pop())
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(ROOT, "bench"))
import judging  # noqa: E402
import run  # noqa: E402

RATIO = {"what": "a ratio", "rival": "the floor", "kind": "ratio", "measure": "ns", "case": "a", "ours": "ours",
         "floor": "floor", "better": "lower", "goal": 1.1, "limit": 1.2}
CYCLES = dict(RATIO, kind="more", measure="cycles", goal=11, limit=16)
COLUMNS = ["ns", "tsc", "switches", "cycles", "instructions", "mispredicts"]


def one_round(ns, switches=0, counted=True):
    return [ns, 2 * ns, switches] + ([3 * ns, 4 * ns, 0] if counted else [None] * 3)


def made_up(turns, roles=("ours", "floor"), **changed):
    """A case of these turns, each with one round for each role, on a machine where nobody else ran."""
    case = {"case": "a", "times": 1, "roles": list(roles), "columns": COLUMNS, "turns": turns, "seconds": 10.0,
            "waited": 0.0, "stolen": 0.0, "others": 0.1, "cpus": 2}
    case.update(changed)
    return case


def steady(ratio, turns=31, noise=0.01, floor=1e6):
    """Turns whose rounds vary a little, each by itself."""
    dice = random.Random(7)

    def around(value):
        return value * (1 + noise * (2 * dice.random() - 1))
    return [[one_round(around(floor * ratio)), one_round(around(floor))] for _ in range(turns)]


def verdict(turns, row=RATIO, **changed):
    return judging.judge(row, {"a": made_up(turns, **changed)})["verdict"]


class CalmMachine(unittest.TestCase):
    def test_a_result_below_the_goal_reaches_it(self):
        self.assertEqual(judging.REACHED, verdict(steady(1.05)))

    def test_a_result_between_goal_and_limit_holds(self):
        self.assertEqual(judging.HOLDS, verdict(steady(1.15)))

    def test_a_result_beyond_the_limit_does_not_hold(self):
        self.assertEqual(judging.FAILS, verdict(steady(1.3)))

    def test_where_more_is_better_the_limit_is_the_least(self):
        faster = dict(RATIO, kind="speedup", better="higher", goal=4, limit=2.5)
        self.assertEqual(judging.REACHED, verdict(steady(1 / 4.5), faster))
        self.assertEqual(judging.HOLDS, verdict(steady(1 / 3), faster))
        self.assertEqual(judging.FAILS, verdict(steady(1 / 2), faster))

    def test_the_value_is_the_median_of_the_turns(self):
        judged = judging.judge(RATIO, {"a": made_up(steady(1.15))})
        self.assertAlmostEqual(1.15, judged["value"], delta=0.01)
        self.assertLess(judged["low"], judged["value"])
        self.assertGreater(judged["high"], judged["value"])

    def test_a_few_wild_rounds_change_nothing(self):
        turns = steady(1.05)
        turns[3][0] = one_round(9e6)
        turns[17][0] = one_round(5e6)
        self.assertEqual(judging.REACHED, verdict(turns))

    def test_a_drift_that_hits_both_sides_changes_nothing(self):
        turns = steady(1.05)
        for position, turn in enumerate(turns):
            turn[:] = [[numbers[0] * (1 + position / 10)] + numbers[1:] for numbers in turn]
        self.assertEqual(judging.REACHED, verdict(turns))


class ContextSwitches(unittest.TestCase):
    def test_turns_with_one_are_thrown_away(self):
        turns = steady(1.05, turns=20) + [[one_round(9e6, switches=1), one_round(1e6)] for _ in range(40)]
        judged = judging.judge(RATIO, {"a": made_up(turns)})
        self.assertEqual((judging.REACHED, 20, 60), (judged["verdict"], judged["clean"], judged["turns"]))

    def test_one_in_the_rival_s_round_counts_too(self):
        turns = steady(1.3, turns=20) + [[one_round(1e6), one_round(9e6, switches=1)] for _ in range(40)]
        self.assertEqual(judging.FAILS, verdict(turns))

    def test_too_few_clean_turns_are_not_judged(self):
        switched = [[one_round(1e6, switches=2), one_round(1e6)] for _ in range(40)]
        for ratio in (1.05, 1.3):
            self.assertEqual("not judged: 14 of 54 turns without a context switch, 15 are needed",
                             verdict(steady(ratio, turns=14) + switched))

    def test_none_clean_at_all_still_shows_a_value(self):
        judged = judging.judge(RATIO, {"a": made_up([[one_round(2e6, 1), one_round(1e6, 1)]] * 20)})
        self.assertEqual(2, judged["value"])
        self.assertIn("not judged: 0 of 20", judged["verdict"])


class BusyMachine(unittest.TestCase):
    def test_a_thread_that_waited_for_the_cpu_is_not_judged(self):
        for ratio in (1.05, 1.3):
            self.assertEqual("not judged: others had the CPU for 40% of the time",
                             verdict(steady(ratio), waited=4.0))

    def test_time_that_the_hypervisor_took_counts_too(self):
        self.assertIn("not judged: others had the CPU", verdict(steady(1.05), waited=0.3, stolen=0.3))

    def test_others_on_the_other_cpus_count_too(self):
        for ratio in (1.05, 1.3):
            self.assertEqual("not judged: others used 35% of the machine", verdict(steady(ratio), others=7.0))

    def test_a_little_of_it_is_allowed(self):
        self.assertEqual(judging.REACHED, verdict(steady(1.05), waited=0.2, stolen=0.2, others=1.5))

    def test_noise_around_the_limit_is_not_judged(self):
        for ratio in (1.17, 1.23):
            self.assertIn("not judged: too noisy", verdict(steady(ratio, noise=0.4)))

    def test_noise_far_from_the_limit_is(self):
        self.assertEqual(judging.FAILS, verdict(steady(3, noise=0.4)))
        self.assertEqual(judging.REACHED, verdict(steady(0.5, noise=0.4)))

    def test_a_change_in_the_middle_is_not_judged(self):
        self.assertIn("not judged", verdict(steady(1.05, turns=20) + steady(1.4, turns=20)))
        self.assertIn("not judged", verdict(steady(1.4, turns=20) + steady(1.05, turns=20)))

    def test_a_drift_across_the_limit_is_not_judged(self):
        # The interval of all turns holds, and so does the first half; most of the second half does not.
        turns = steady(1.05, turns=29) + steady(1.4, turns=11)
        self.assertLess(judging.interval([turn[0][0] / turn[1][0] for turn in turns])[1], RATIO["limit"])
        self.assertIn("not judged: it drifts", verdict(turns))

    def test_random_noise_gives_neither_a_false_alarm_nor_a_false_pass(self):
        dice = random.Random(11)
        wrong = 0
        for ratio in (1.1, 1.19, 1.21, 1.3):
            for _ in range(200):
                turns = [[one_round(1e6 * ratio * dice.lognormvariate(0, 0.3)), one_round(1e6)] for _ in range(31)]
                said = verdict(turns)
                holds = said in (judging.HOLDS, judging.REACHED)
                wrong += said == judging.FAILS if ratio < 1.2 else holds
        self.assertLess(wrong, 800 * 0.02)


class CountersOfTheProcessor(unittest.TestCase):
    def test_cycles_are_judged_by_the_counter(self):
        judged = judging.judge(CYCLES, {"a": made_up([[one_round(1e3 + 4), one_round(1e3)]] * 20)})
        self.assertEqual((12, "cycles", judging.HOLDS), (judged["value"], judged["measured_by"], judged["verdict"]))

    def test_without_one_they_are_not_judged_and_ticks_are_shown(self):
        turns = [[one_round(1e3 + 4, counted=False), one_round(1e3, counted=False)]] * 20
        judged = judging.judge(CYCLES, {"a": made_up(turns)})
        self.assertEqual((8, "tsc", "not judged: no cycle counter"),
                         (judged["value"], judged["measured_by"], judged["verdict"]))

    def test_mispredicted_branches_have_no_ticks(self):
        turns = [[one_round(1e3, counted=False), one_round(1e3, counted=False)]] * 20
        judged = judging.judge(dict(CYCLES, measure="mispredicts"), {"a": made_up(turns)})
        self.assertEqual((None, "not judged: no counter of mispredicted branches"),
                         (judged["value"], judged["verdict"]))

    def test_a_counter_that_stopped_in_one_turn_is_no_basis(self):
        turns = [[one_round(1e3 + 4), one_round(1e3)] for _ in range(20)]
        turns[9][1] = one_round(1e3, counted=False)
        self.assertIn("not judged", verdict(turns, CYCLES))


class Kinds(unittest.TestCase):
    def value(self, kind, turn, roles=("ours", "floor"), times=1, **changed):
        row = dict(RATIO, kind=kind, **changed)
        return judging.judge(row, {"a": made_up([turn] * 20, roles, times=times)})["value"]

    def test_more_is_a_difference_each_time(self):
        self.assertEqual(3, self.value("more", [one_round(7000), one_round(1000)], times=2000))

    def test_a_share_leaves_out_what_is_bare(self):
        turn = [one_round(1200), one_round(1800), one_round(1000)]
        self.assertEqual(0.25, self.value("share", turn, ("ours", "floor", "bare"), bare="bare"))

    def test_a_rival_below_the_bare_work_gives_no_share(self):
        turns = [[one_round(1200), one_round(1800), one_round(1000)]] * 20
        turns[7] = [one_round(1200), one_round(900), one_round(1000)]
        judged = judging.judge(dict(RATIO, kind="share", bare="bare"),
                               {"a": made_up(turns, ("ours", "floor", "bare"))})
        self.assertEqual((0.25, "not judged: too noisy, the rival needs less than the bare work"),
                         (judged["value"], judged["verdict"]))

    def test_a_rate_is_in_millions_a_second(self):
        self.assertAlmostEqual(8, self.value("rate", [one_round(125e6), one_round(1)], times=1000000))

    def test_growth_is_one_when_linear(self):
        self.assertEqual(1, self.value("growth", [one_round(1000), one_round(16000)], ("1000", "16000"),
                                       ours="16000", floor="1000"))


class WithoutNumbers(unittest.TestCase):
    def test_a_case_that_was_not_run_is_an_error(self):
        judged = judging.judge(RATIO, {})
        self.assertEqual(judging.MISSING, judged["verdict"])
        self.assertTrue(judging.is_wrong(judged))

    def test_a_machine_that_cannot_measure_it_is_none(self):
        judged = judging.judge(RATIO, {"a": {"case": "a", "cannot": "needs two CPUs"}})
        self.assertEqual("not judged: needs two CPUs", judged["verdict"])
        self.assertFalse(judging.is_wrong(judged))

    def test_only_a_limit_that_does_not_hold_is_wrong(self):
        self.assertTrue(judging.is_wrong(judging.judge(RATIO, {"a": made_up(steady(1.3))})))
        for case in (made_up(steady(1.15)), made_up(steady(1.3), waited=9.0)):
            self.assertFalse(judging.is_wrong(judging.judge(RATIO, {"a": case})))

    def test_a_row_without_a_limit_is_information(self):
        row = {key: value for key, value in RATIO.items() if key not in ("limit", "goal")}
        self.assertEqual(judging.INFORMATION, judging.judge(row, {"a": made_up(steady(9))})["verdict"])


class Output(unittest.TestCase):
    def test_a_program_writes_cases_and_numbers_one_behind_the_other(self):
        cases, numbers = run.read_times('{"case":"a","turns":[[[1]],\n[[2]]]}\n{"number":"n","value":3}\n'
                                        '{"case":"b","cannot":"x"}\n')
        self.assertEqual(([[[1]], [[2]]], {"case": "b", "cannot": "x"}), (cases["a"]["turns"], cases["b"]))
        self.assertEqual({"n": 3}, numbers)

    def test_the_interval_of_fifteen_values_leaves_out_two_at_each_end(self):
        self.assertEqual((3, 13), judging.interval(range(1, 16)))


if __name__ == "__main__":
    unittest.main()
