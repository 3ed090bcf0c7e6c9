#!/usr/bin/env python3
"""Changes one place of src/ at a time and runs the tests until one fails: how many mistakes would the tests notice?

    mutation.py SOURCES WORK [--count N] [--seed N] [--minutes N] [--jobs N] [--again]

SOURCES is the tree, WORK a folder for a copy of it and the build; the report is WORK.jsonl, and a run that was stopped
goes on where it was. A mutant is killed when a test fails, crashes or hangs. A mutant that survives is equivalent when
the optimizing compiler makes the same machine code of it, or when equivalent_mutants.txt explains it. The score is the
share of killed mutants among those that are not equivalent. --again asks those once more that no test has killed yet,
with the tests as they are now, and takes no new ones.
"""
import argparse
import collections
import json
import sys
import threading
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).parent))
import mutants  # noqa: E402
from mutation_tests import Reach, Runner  # noqa: E402
from mutation_tree import Build, Tree  # noqa: E402

ROOMS = ["util", "log", "driver", "config", "card", "instruments", "dayfile", "channel", "api"]
# Who else notices a mistake of a room, in the order in which they are asked.
CALLERS = {
    "util": ["dayfile", "config", "log", "card", "channel", "api"], "log": ["channel", "api", "config"],
    "driver": ["api", "config", "channel"], "config": ["channel", "api"],
    "card": ["instruments", "channel", "api"], "instruments": ["channel", "card", "api"],
    "dayfile": ["channel", "api"], "channel": ["api"], "api": ["channel"],
}
PROGRAMS = {f"vexo_{room}_tests": "*" for room in ROOMS}
PROGRAMS["vexo_equivalence_tests"] = "*"
PROGRAMS["vexo_integration_tests"] = "StartUpGolden.*:Channel*:ResetWindow*:Rehearsal*"
TARGET_PERCENT = 95.0


class Judge:
    def __init__(self, tree, runner, reach, work):
        self.tree, self.runner, self.reach, self.work = tree, runner, reach, work

    def __call__(self, mutant, source, others):
        """(verdict, detail) of one mutant, by the tests of its room or by the others."""
        room = mutant.path.split("/")[-2]
        scratch = self.work / f"scratch-{threading.get_ident()}"
        build = Build(self.tree, mutant, source, scratch)
        names = [f"vexo_{one}_tests" for one in (CALLERS[room] if others else [room])]
        if others:
            names += ["vexo_equivalence_tests", "vexo_integration_tests"]
        for name in names:
            stages = list(self.reach.stages(mutant, name))
            if not stages or not build.changes(name):
                continue
            environment, program = build.link(name)
            if environment is None:
                return "uncompiled", next((line for line in program.splitlines() if "error:" in line), "")
            happened = self.ask(mutant, name, program, environment, stages)
            program.unlink()
            if happened:
                return "killed", happened
        if not others and self.tree.same_code(mutant, source, scratch):
            return "equivalent", "the same machine code"
        return ("survived", "") if others else ("pending", "its room's tests pass")

    def ask(self, mutant, name, program, environment, stages):
        for tests, seconds in stages:
            happened, _ = self.runner.run(program, tests, seconds, environment)
            if happened and happened.endswith(" hangs"):  # or the machine was too busy
                happened, _ = self.runner.run(program, tests, seconds, environment)
            if happened:
                self.reach.noticed(mutant, name, happened.split()[0])
                return happened
        return None


class Report:
    """One line of JSON a mutant, so that a run that was stopped goes on where it was."""

    def __init__(self, path, explained):
        self.path, self.explained, self.verdicts, self.lock = path, explained, {}, threading.Lock()
        if path.exists():
            for line in path.read_text().splitlines():
                entry = json.loads(line)
                self.verdicts[entry["file"], entry["line"], entry["before"], entry["after"]] = entry

    def add(self, mutant, source, verdict, detail):
        before, after = mutant.lines(source)
        entry = {"file": mutant.path, "line": mutant.line, "kind": mutant.kind, "before": before, "after": after,
                 "verdict": verdict, "detail": detail}
        with self.lock:
            self.verdicts[mutant.path, mutant.line, before, after] = entry
            with self.path.open("a") as out:
                out.write(json.dumps(entry) + "\n")
            print(f"{verdict:10} {mutant.path}:{mutant.line}: {before}  =>  {after}  {detail}", flush=True)
        return verdict

    def verdict(self, mutant, source):
        change = mutant.lines(source)
        known = self.verdicts.get((mutant.path, mutant.line, *change), {}).get("verdict")
        return "explained" if known in ("pending", "survived") and (mutant.path, *change) in self.explained else known


def explanations(path):
    """Lines "file: before => after", and the reason on the line above, behind a #."""
    known, reason = {}, ""
    for line in path.read_text().splitlines():
        if line.startswith("#"):
            reason = line[1:].strip()
        elif line.strip():
            file, _, change = line.partition(": ")
            before, _, after = change.partition(" => ")
            known[file, before.strip(), after.strip()] = reason
    return known


class Choice:
    """Hands out mutants, always of the room of which the smallest share is done: a run cut short is a sample of all."""

    def __init__(self, sources, options, report):
        chosen = mutants.choose(sources, options.count, options.seed)
        self.sources, self.report, self.again = sources, report, options.again
        self.counts = {room: count for room, (count, _) in chosen.items()}
        self.queues = {room: iter(order) for room, (_, order) in chosen.items()}
        self.done = dict.fromkeys(chosen, 0)
        self.taken, self.lock = [], threading.Lock()
        self.end = time.monotonic() + options.minutes * 60 if options.minutes else float("inf")

    def next(self):
        """A mutant without a verdict, or None."""
        with self.lock:
            while self.queues and time.monotonic() < self.end:
                room = min(self.queues, key=lambda r: (self.done[r] / self.counts[r], r))
                mutant = next(self.queues[room], None) if self.done[room] < self.counts[room] else None
                if mutant is None:
                    del self.queues[room]
                    continue
                verdict = self.report.verdict(mutant, self.sources[mutant.path])
                if verdict is not None:
                    self.taken.append(mutant)
                self.done[room] += verdict != "uncompiled"
                if verdict is None and not self.again:
                    self.taken.append(mutant)
                    return mutant
            return None

    def was_no_mutant(self, mutant):
        with self.lock:
            room = mutant.path.split("/")[-2]
            self.done[room] -= 1


def campaign(options, judge, report):
    """First each mutant with the tests of its room, then those that are left with the others."""
    sources = {str(p.relative_to(options.sources)): p.read_text() for p in (options.sources / "src").rglob("*")
               if p.suffix in (".cpp", ".h")}
    choice = Choice(sources, options, report)

    def decide(mutant, others):
        source = sources[mutant.path]
        return report.add(mutant, source, *judge(mutant, source, others))

    def work():
        while (mutant := choice.next()) is not None:
            if decide(mutant, others=False) == "uncompiled":
                choice.was_no_mutant(mutant)

    def ask_again(mutant):
        source = sources[mutant.path]
        if options.again and report.verdict(mutant, source) in ("pending", "survived"):
            decide(mutant, others=False)
        if report.verdict(mutant, source) == "pending":
            decide(mutant, others=True)

    with ThreadPoolExecutor(options.jobs) as pool:
        for done in [pool.submit(work) for _ in range(options.jobs)]:
            done.result()
        list(pool.map(ask_again, choice.taken))
    return collections.Counter(report.verdict(mutant, sources[mutant.path]) for mutant in choice.taken)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("sources", type=lambda p: Path(p).resolve())
    parser.add_argument("work", type=lambda p: Path(p).resolve())
    parser.add_argument("--count", type=int, default=510)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--minutes", type=float, default=0)
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("--again", action="store_true")
    options = parser.parse_args()
    options.work.mkdir(parents=True, exist_ok=True)
    tree = Tree(options.sources, options.work, list(PROGRAMS))
    tree.prepare()
    runner = Runner(tree)
    reach = Reach(tree, runner, PROGRAMS)
    reach.measure()
    print("the tests run", "in namespaces of their own" if runner.apart else "without namespaces", flush=True)
    report = Report(options.work.with_suffix(".jsonl"), explanations(Path(__file__).with_name("equivalent_mutants.txt")))
    counts = campaign(options, Judge(tree, runner, reach, options.work), report)
    killed, equivalent = counts["killed"], counts["equivalent"] + counts["explained"]
    survived = counts["survived"] + counts["pending"]
    made = killed + equivalent + survived
    percent = 100.0 * killed / (killed + survived) if killed else 0.0
    print(f"{made} mutants, {equivalent} of them equivalent ({counts['equivalent']} have the same machine code, "
          f"{counts['explained']} are explained), {killed} killed: a score of {percent:.1f} %; {survived} survive "
          "unexplained")
    return 0 if percent >= TARGET_PERCENT and survived == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
