#!/usr/bin/env python3
"""The measurement of many machines: one run over a real server accounts for each packet, and the tables show what it is
given.

    many_test.py BUILD ROOT
"""
import os
import shutil
import sys
import unittest

ROOT = os.path.abspath(sys.argv.pop())
BUILD = os.path.abspath(sys.argv.pop())
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(ROOT, "bench"))
import many  # noqa: E402
import many_page  # noqa: E402

RUN = {"rate": 1000, "packets": 5000, "readers": 3, "rest_us": 50, "batch_time_us": 100, "arrived_per_second": 1000,
       "lost": [0, 7, 0], "uncounted": [], "wrong": 0, "most_waiting": 4321,
       "cpu_per_million": {"polls": 0.1, "sends": 0.2, "server": 0.3, "takes": 0.01, "reads": 0.02},
       "median_us": 123.4, "p999_us": 9999.4, "longest_us": 12345}
FINE = dict(RUN, lost=[0, 0, 0])


class Tables(unittest.TestCase):
    def test_the_loss_is_that_of_the_worst_receiver(self):
        self.assertIn("| 3 | 100 | 0.20 | 0.30 | 0.03 | 0.69 | 123 us | 9,999 us | 7 |", many_page.subscribers([RUN]))

    def test_what_a_ring_would_have_to_hold_is_shown(self):
        self.assertIn("| 1,000 | 1,000 | 7 | 4,321 | 0.10 | 0.20 | 0.30 | 0.01 | 0.02 | 0.69 |", many_page.rates([RUN]))

    def test_only_a_rate_that_arrives_without_loss_is_carried(self):
        runs = [FINE, dict(FINE, rate=2000, arrived_per_second=1900), dict(RUN, rate=3000, arrived_per_second=3000)]
        self.assertIn("At 1,000 packets", many_page.carried(runs))
        self.assertIn("pile up at every rate", many_page.carried(runs[1:]))

    def test_times_have_the_unit_that_fits(self):
        self.assertIn("| rest 50 us | 1,000 | 100 | 123 us | 9,999 us | 12 ms | 7 |", many_page.latencies([RUN]))

    def test_the_page_has_a_place_for_them(self):
        with open(os.path.join(ROOT, "docs", "many-machines.md"), encoding="utf-8") as file:
            page = file.read()
        self.assertEqual([1, 1], [page.count(many_page.BEGIN), page.count(many_page.END)])
        self.assertLess(page.index(many_page.BEGIN), page.index(many_page.END))


class Measurement(unittest.TestCase):
    def test_accounts_for_each_packet_of_each_reader(self):
        run = many.measure(BUILD, 10_000, 5000, readers=2)
        self.assertEqual([[], 0, [0, 0]], [run["uncounted"], run["wrong"], run["lost"]])
        self.assertGreater(run["messages"], 1)
        self.assertLess(0, run["median_us"])
        self.assertLessEqual(run["median_us"], run["p999_us"])
        for part, seconds in run["cpu_per_million"].items():
            self.assertGreater(seconds, 0, part)


if __name__ == "__main__":
    if shutil.which("nats-server", path=os.environ.get("PATH", "") + ":/usr/sbin") is None:
        print("skipped: nats-server is not installed")
        sys.exit(77)
    unittest.main()
