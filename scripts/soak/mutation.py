#!/usr/bin/env python3
"""Changes one place of src/ at a time and runs the tests until one fails: how many mistakes would the tests notice?

    mutation.py SOURCES WORK [--count N] [--seed N] [--minutes N] [--again] [--part I/N]

SOURCES is the tree, WORK a folder for a copy of it and the build; the report is WORK.jsonl. A mutant is killed when a
test fails, crashes or hangs; it is equivalent when the optimizing compiler makes the same machine code of it. Survivors that
equivalent_mutants.txt explains are counted as such. --again runs only those that no test has killed yet, with the tests as they are now.
"""
import argparse
import collections
import filecmp
import json
import os
import re
import resource
import selectors
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).parent))
import mutants  # noqa: E402

ROOMS = ["util", "log", "driver", "config", "card", "instruments", "dayfile", "channel", "api"]
# Who else notices a mistake of a room, in the order in which they are asked.
CALLERS = {
    "util": ["dayfile", "config", "log", "card", "channel", "api"], "log": ["channel", "api", "config"],
    "driver": ["api", "config", "channel"], "config": ["channel", "api"],
    "card": ["instruments", "channel", "api"], "instruments": ["channel", "card", "api"],
    "dayfile": ["channel", "api"], "channel": ["api"], "api": ["channel"],
}
EQUIVALENCE = {"card": "FilterEquivalence.AWhole*", "instruments": "FilterEquivalence.*",
               "channel": "ContractMapEquivalence.*", "dayfile": "DayFileEquivalence.*"}
INTEGRATION = "StartUpGolden.*:Channel*:ResetWindow*:Rehearsal*"
SLOW_MS = 250        # a test that takes longer waits until the quick ones have passed
STALL_SECONDS = 40   # without a line of output on a busy machine: the test hangs
TARGET_PERCENT = 95.0


def quiet(command, **options):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace", **options)


class Tree:
    """A copy of the sources, built once; a changed source is put back together with its object."""

    def __init__(self, sources, work):
        self.root, self.build, self.objects = work / "tree", work / "build", work / "objects"
        self.sources = sources

    def copy(self):
        """Writes only what differs, so that a file that an interrupted campaign left changed is built again."""
        names = subprocess.run(["git", "-C", self.sources, "ls-files", "-co", "--exclude-standard", "-z"],
                               check=True, capture_output=True, text=True).stdout
        for name in filter(None, names.split("\0")):
            if not (self.sources / name).is_file():
                continue
            content, copy = (self.sources / name).read_bytes(), self.root / name
            if name == "sim/CMakeLists.txt":
                # The card is not under test here. Optimized, it halves the time of the tests that use it.
                content = b"add_compile_options(-O2)\n" + content
            if not copy.is_file() or copy.read_bytes() != content:
                copy.parent.mkdir(parents=True, exist_ok=True)
                copy.write_bytes(content)
                shutil.copymode(self.sources / name, copy)

    def prepare(self):
        self.copy()
        flags = "-O0 -g0"
        done = quiet(["cmake", "-S", self.root, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                      f"-DCMAKE_C_FLAGS_DEBUG={flags}", f"-DCMAKE_CXX_FLAGS_DEBUG={flags}",
                      "-DCMAKE_C_COMPILER=clang", "-DCMAKE_CXX_COMPILER=clang++", "-DVEXO_CCACHE=OFF",
                      *self.linker(),
                      "-DCMAKE_C_COMPILER_LAUNCHER=", "-DCMAKE_CXX_COMPILER_LAUNCHER=", "-DVEXO_BUILD_TOOLS=ON",
                      "-DBUILD_TESTING=ON", "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST"])
        if done.returncode != 0:
            sys.exit(done.stdout)
        self.commands = {entry["file"]: entry for entry in json.loads((self.build / "compile_commands.json").read_text())}
        programs = [f"vexo_{name}_tests" for name in ROOMS + ["integration", "equivalence"]]
        done = self.make(programs)
        if done.returncode != 0:
            sys.exit(done.stdout)
        self.programs = {p: next((self.build / "tests").rglob(p)) for p in programs}
        shutil.rmtree(self.objects, ignore_errors=True)
        self.objects.mkdir(parents=True)
        for path in (self.root / "src").rglob("*.cpp"):
            shutil.copy2(self.object(path), self.objects / path.name)

    @staticmethod
    def linker():
        """The quickest one there is."""
        if not shutil.which("ld.lld"):
            return []
        return ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld", "-DCMAKE_SHARED_LINKER_FLAGS=-fuse-ld=lld"]

    def make(self, targets):
        return quiet(["ninja", "-C", self.build, *targets])

    def object(self, path):
        return self.build / re.search(r"-o (\S+\.o)", self.commands[str(path)]["command"]).group(1)

    def put(self, mutant, source):
        path = self.root / mutant.path
        path.write_text(mutant.apply(source))

    def restore(self, mutant):
        path = self.root / mutant.path
        shutil.copy2(self.sources / mutant.path, path)
        if path.suffix == ".cpp":
            shutil.copyfile(self.objects / path.name, self.object(path))  # newer than its source: nothing to compile
        else:
            path.touch()

    def same_code(self, mutant, source):
        """Whether the optimizing compiler makes the same object of the mutant."""
        path = self.root / mutant.path
        if path.suffix != ".cpp":
            return False
        command = self.commands[str(path)]["command"].replace("-O0", "-O2")
        made = []
        for text, name in ((source, "a.o"), (mutant.apply(source), "b.o")):
            path.write_text(text)
            made.append(self.objects / name)
            if quiet(re.sub(r"-o \S+\.o", f"-o {made[-1]}", command).split(), cwd=self.build).returncode != 0:
                return False
        return filecmp.cmp(*made, shallow=False)


class Runner:
    """Runs test programs where their mistakes stay: processes, mounts and /tmp of their own, if the system allows it."""

    def __init__(self, tree):
        self.tree = tree
        self.times = {}
        apart = ["unshare", "--fork", "--pid", "--kill-child", "--mount-proc", "--mount"]
        if os.geteuid() != 0:
            apart += ["--map-root-user"]
        self.apart = apart if quiet(apart + ["true"]).returncode == 0 else []
        in_tmp = tree.build.resolve().is_relative_to("/tmp")
        self.shell = "exec \"$@\"" if not self.apart else \
            ("" if in_tmp else "mount -t tmpfs -o size=1g tmpfs /tmp || exit 1; ") + "\"$@\"; exit $?"
        self.environment = dict(os.environ, TZ="Asia/Shanghai", VEXO_SIM_CARD="embedded")
        self.environment.pop("TMPDIR", None)

    def run(self, program, tests, seconds):
        """None when all pass, else what happened."""
        def limits():
            os.setsid()
            resource.setrlimit(resource.RLIMIT_CPU, (seconds, seconds + 2))
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            resource.setrlimit(resource.RLIMIT_AS, (1 << 33, 1 << 33))
        command = [*self.apart, "sh", "-c", self.shell, "sh", str(self.tree.programs[program]), "--gtest_fail_fast",
                   f"--gtest_filter={tests}"]
        child = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                 env=self.environment, preexec_fn=limits, cwd=self.tree.build)
        output, hung = self.listen(child, STALL_SECONDS + seconds)
        if hung:
            os.killpg(child.pid, signal.SIGKILL)
        status = child.wait()
        self.output = output
        if not hung and status == 0:
            return None
        running = re.findall(r"^\[ RUN      \] (\S+)", output, re.M)
        failed = re.findall(r"^\[  FAILED  \] ([\w/.]+)", output, re.M)
        what = "hangs" if hung else "fails" if failed else f"ends with {status}"
        return f"{(failed or running[-1:] or [program])[0]} {what}"

    @staticmethod
    def listen(child, patience):
        """Reads until the child closes its output, or until it has been silent for too long."""
        output = []
        with selectors.DefaultSelector() as selector:
            selector.register(child.stdout, selectors.EVENT_READ)
            while True:
                if not selector.select(patience):
                    return "".join(output), True
                data = os.read(child.stdout.fileno(), 65536).decode(errors="replace")
                if not data:
                    return "".join(output), False
                output.append(data)

    def measure(self, kept):
        """The usual time of each test; all have to pass. A campaign that goes on takes the times of its beginning."""
        if kept.exists():
            self.times = json.loads(kept.read_text())
            return
        for program in self.tree.programs:
            tests = INTEGRATION if "integration" in program else "*"
            happened = self.run(program, tests, 600)
            if happened:
                sys.exit(f"before any change: {happened}\n{self.output[-4000:]}")
            self.times[program] = [(name, int(ms)) for name, ms in
                                   re.findall(r"^\[       OK \] (\S+?)(?:, where .*)? \((\d+) ms\)", self.output, re.M)]
            print(f"{program}: {len(self.times[program])} tests pass unchanged", flush=True)
        kept.write_text(json.dumps(self.times))

    def own_stages(self, room):
        """Program, filter and CPU seconds that are more than enough, the quickest way to a failure first."""
        quick, slow = self.parted(f"vexo_{room}_tests")
        yield f"vexo_{room}_tests", quick, 20
        if slow:
            yield f"vexo_{room}_tests", slow, 60

    def other_stages(self, room):
        for caller in CALLERS[room]:
            yield f"vexo_{caller}_tests", self.parted(f"vexo_{caller}_tests")[0], 20
        yield "vexo_integration_tests", INTEGRATION, 100
        if room in EQUIVALENCE:
            yield "vexo_equivalence_tests", EQUIVALENCE[room], 150

    def parted(self, program):
        slow = [name for name, ms in self.times[program] if ms > SLOW_MS]
        joined = ":".join(slow)
        return "*" + ("-" + joined if slow else ""), joined


def judge(tree, runner, mutant, source, others):
    """(verdict, detail) of one mutant, by the tests of its room or by the others."""
    room = mutant.path.split("/")[-2]
    tree.put(mutant, source)
    try:
        for program, tests, seconds in runner.other_stages(room) if others else runner.own_stages(room):
            made = tree.make([program])
            if made.returncode != 0:
                return "uncompiled", next((line for line in made.stdout.splitlines() if "error:" in line), "")
            happened = runner.run(program, tests, seconds)
            if happened:
                return "killed", happened
        if not others and tree.same_code(mutant, source):
            return "equivalent", "the same machine code"
        return ("survived", "") if others else ("pending", "its room's tests pass")
    finally:
        tree.restore(mutant)


class Report:
    """One line of JSON a mutant, so that a run that was stopped goes on where it was."""

    def __init__(self, path, explained):
        self.path, self.explained, self.verdicts = path, explained, {}
        if path.exists():
            for line in path.read_text().splitlines():
                entry = json.loads(line)
                self.verdicts[entry["file"], entry["before"], entry["after"]] = entry

    def add(self, mutant, source, verdict, detail):
        before, after = mutant.lines(source)
        entry = {"file": mutant.path, "line": mutant.line, "kind": mutant.kind, "before": before, "after": after,
                 "verdict": verdict, "detail": detail}
        self.verdicts[entry["file"], before, after] = entry
        with self.path.open("a") as out:
            out.write(json.dumps(entry) + "\n")
        print(f"{verdict:10} {mutant.path}:{mutant.line}: {before}  =>  {after}  {detail}", flush=True)
        return verdict

    def verdict(self, mutant, source):
        key = (mutant.path, *mutant.lines(source))
        known = self.verdicts.get(key, {}).get("verdict")
        return "explained" if known != "killed" and key in self.explained else known


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


def campaign(options, tree, runner, report):
    """First each mutant with the tests of its room, then those that are left with the others."""
    sources = {str(p.relative_to(options.sources)): p.read_text() for p in (options.sources / "src").rglob("*")
               if p.suffix in (".cpp", ".h")}
    end = time.monotonic() + options.minutes * 60 if options.minutes else float("inf")
    part, parts = map(int, options.part.split("/"))
    chosen = {room: (-(-count // parts), order[part::parts])
              for room, (count, order) in mutants.choose(sources, options.count, options.seed).items()}
    queues = {room: iter(order) for room, (_, order) in chosen.items()}
    taken, counted = [], {room: 0 for room in chosen}
    # Always from the room of which the smallest share is done, so that a run cut short is a sample of the whole.
    while queues and time.monotonic() < end:
        room = min(queues, key=lambda r: (counted[r] / chosen[r][0], r))
        mutant = next(queues[room], None) if counted[room] < chosen[room][0] else None
        if mutant is None:
            del queues[room]
            continue
        source = sources[mutant.path]
        verdict = report.verdict(mutant, source)
        if verdict is None and options.again:
            counted[room] += 1
            continue
        if verdict is None:
            verdict = report.add(mutant, source, *judge(tree, runner, mutant, source, others=False))
        taken.append(mutant)
        if verdict not in ("uncompiled", "equivalent"):
            counted[room] += 1
    for mutant in taken:
        source = sources[mutant.path]
        if options.again and report.verdict(mutant, source) in ("pending", "survived"):
            report.add(mutant, source, *judge(tree, runner, mutant, source, others=False))
        if report.verdict(mutant, source) == "pending":
            report.add(mutant, source, *judge(tree, runner, mutant, source, others=True))
    return collections.Counter(report.verdict(mutant, sources[mutant.path]) for mutant in taken)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("sources", type=lambda p: Path(p).resolve())
    parser.add_argument("work", type=lambda p: Path(p).resolve())
    parser.add_argument("--count", type=int, default=500)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--minutes", type=float, default=0)
    parser.add_argument("--again", action="store_true")
    parser.add_argument("--part", default="0/1", help="I/N: of each N mutants the one numbered I, from 0")
    options = parser.parse_args()
    options.work.mkdir(parents=True, exist_ok=True)
    tree = Tree(options.sources, options.work)
    tree.prepare()
    runner = Runner(tree)
    runner.measure(options.work / "times.json")
    print("the tests run", "in namespaces of their own" if runner.apart else "without namespaces", flush=True)
    report = Report(options.work.with_suffix(".jsonl"), explanations(Path(__file__).with_name("equivalent_mutants.txt")))
    counts = campaign(options, tree, runner, report)
    made = counts["killed"] + counts["explained"] + counts["survived"]
    percent = 100.0 * counts["killed"] / made if made else 0.0
    print(f"{made} mutants: {counts['killed']} killed ({percent:.1f} %), {counts['explained']} explained, "
          f"{counts['survived']} survived; beside them {counts['equivalent']} with the same machine code, "
          f"{counts['uncompiled']} that do not compile")
    return 0 if made and percent >= TARGET_PERCENT and counts["survived"] == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
