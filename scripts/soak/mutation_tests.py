"""The tests of a mutation campaign: how to run them apart from the machine, and which of them come by a line."""
import collections
import json
import os
import re
import resource
import selectors
import signal
import subprocess
import sys
import threading

from mutants import closing, masked
from mutation_tree import WITH_LINES, quiet

SLOW_MS = 250        # a test that takes longer waits until the quick ones have passed
STALL_SECONDS = 40   # without a line of output on a busy machine: the test hangs
MOST_FIRST = 12      # tests that lately noticed other mistakes in the same file


class Runner:
    """Runs test programs where their mistakes stay: processes, mounts and /tmp of their own, if the system allows it."""

    def __init__(self, tree):
        self.tree = tree
        apart = ["unshare", "--fork", "--pid", "--kill-child", "--mount-proc", "--mount"]
        if os.geteuid() != 0:
            apart += ["--map-root-user"]
        self.apart = apart if quiet(apart + ["true"]).returncode == 0 else []
        in_tmp = tree.build.resolve().is_relative_to("/tmp")
        self.shell = "exec \"$@\"" if not self.apart else \
            ("" if in_tmp else "mount -t tmpfs -o size=1g tmpfs /tmp || exit 1; ") + "\"$@\"; exit $?"
        self.environment = dict(os.environ, TZ="Asia/Shanghai", VEXO_SIM_CARD="embedded")
        self.environment.pop("TMPDIR", None)

    def run(self, program, tests, seconds, environment):
        """What happened, or None when all pass; and the output. @p seconds are of the CPU."""
        def limits():
            os.setsid()
            resource.setrlimit(resource.RLIMIT_CPU, (seconds, seconds + 2))
            resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
            resource.setrlimit(resource.RLIMIT_AS, (1 << 33, 1 << 33))
        command = [*self.apart, "sh", "-c", self.shell, "sh", str(program), "--gtest_fail_fast", f"--gtest_filter={tests}"]
        child = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                 env=dict(self.environment, **environment), preexec_fn=limits, cwd=self.tree.build)
        output, hung = self.listen(child, STALL_SECONDS + seconds)
        if hung:
            os.killpg(child.pid, signal.SIGKILL)
        status = child.wait()
        if not hung and status == 0:
            return None, output
        running = re.findall(r"^\[ RUN      \] (\S+)", output, re.M)
        failed = re.findall(r"^\[  FAILED  \] ([\w/.]+)", output, re.M)
        what = "hangs" if hung else "fails" if failed else f"ends with {status}"
        return f"{(failed or running[-1:] or [program.name])[0]} {what}", output

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


class Reach:
    """Which tests enter which functions of the library. Measured once, by a library that notes it."""

    def __init__(self, tree, runner, filters):
        self.tree, self.runner, self.filters = tree, runner, filters
        self.tests = {}      # program: [[name, milliseconds, [function, ...]], ...]; a function is [file, line]
        self.bodies = {}     # file: [(first line, last line), ...]
        self.lately = collections.defaultdict(list)
        self.lock = threading.Lock()

    def measure(self):
        """All tests have to pass. A campaign that goes on takes the figures of its beginning."""
        kept = self.tree.reach
        if kept.exists():
            self.tests = json.loads(kept.read_text())
        else:
            objects = self.noting_objects()
            for name in self.filters:
                self.tests[name] = self.measure_program(name, objects)
                print(f"{name}: {len(self.tests[name])} tests pass unchanged", flush=True)
            kept.write_text(json.dumps(self.tests))
        self.find_bodies()

    def noting_objects(self):
        """The library's objects, compiled so that they note what is entered."""
        objects = {}
        for path, made in self.tree.object_of.items():
            objects[made] = self.tree.objects / (path.replace("/", "_") + ".reach.o")
            error = self.tree.compile(made, objects[made], self.tree.root / path,
                                      ["-fsanitize-coverage=func,trace-pc-guard"], WITH_LINES)
            if error is not None:
                sys.exit(error)
        return objects

    def measure_program(self, name, objects):
        tree = self.tree
        notes, listener = (next((tree.build / "tests").rglob(f"{one}.cpp.o")) for one in ("Notes", "Listener"))
        place = tree.objects / f"{name}.reach"
        report, module, environment = place.with_suffix(".tests"), place, {}
        own = [(made, objects[made]) for made in tree.members[name]]
        if tree.uses_shared_library(name):
            module = tree.objects / tree.shared_name()
            self.link("vexo_zce_md", module, [*own, ("notes", notes)])
            own, environment = [], {"LD_LIBRARY_PATH": str(tree.objects)}
        self.link(name, place, [*own, ("notes", notes), ("listener", listener)])
        report.write_text("")
        noted = place.with_suffix(".functions")
        noted.unlink(missing_ok=True)
        environment.update(VEXO_REACH=str(noted), VEXO_REACH_TESTS=str(report))
        happened, output = self.runner.run(place, self.filters[name], 1200, environment)
        if happened:
            sys.exit(f"before any change: {happened}\n{output[-4000:]}")
        tests = [line.split() for line in report.read_text().splitlines()]
        places = sorted({place for test in tests for place in test[3:]})
        functions = self.functions(module, places)
        return [[test[0], int(test[2]), sorted({tuple(functions[place]) for place in test[3:] if functions[place]})]
                for test in tests]

    def link(self, name, output, objects):
        done = quiet(self.tree.link_to(name, output, objects), cwd=self.tree.build)
        if done.returncode != 0:
            sys.exit(done.stdout)

    def functions(self, module, places):
        """Place in the module to file and line of its function."""
        done = subprocess.run(["llvm-symbolizer", "--output-style=JSON", "--no-inlines", f"--obj={module}"], text=True,
                              input="".join(f"0x{int(place, 16) - 1:x}\n" for place in places), capture_output=True, check=True)
        found = {}
        for place, line in zip(places, done.stdout.splitlines()):
            symbol = json.loads(line)["Symbol"][0]
            file = os.path.relpath(symbol["FileName"], self.tree.root) if symbol["FileName"] else ""
            found[place] = [file, symbol["StartLine"] or symbol["Line"]] if file.startswith("src/") else None
        return found

    def find_bodies(self):
        starts = collections.defaultdict(set)
        for tests in self.tests.values():
            for _, _, functions in tests:
                for file, line in functions:
                    starts[file].add(line)
        for file, lines in starts.items():
            text = masked((self.tree.root / file).read_text())
            offsets = [0]
            for line in text.splitlines(keepends=True):
                offsets.append(offsets[-1] + len(line))
            for line in lines:
                opening = text.find("{", offsets[line - 1])
                end = closing(text, opening) if opening >= 0 else -1
                if end > 0:
                    self.bodies.setdefault(file, []).append((line, 1 + text.count("\n", 0, end)))

    def function_of(self, mutant):
        """The innermost function around the mutant that any test enters, or None. None for a header, too: tests use its
        inline functions without the library."""
        if mutant.path.endswith(".h"):
            return None
        around = [body for body in self.bodies.get(mutant.path, []) if body[0] < mutant.line <= body[1] or
                  body[0] == mutant.line == body[1]]
        return max(around)[0] if around else None

    def stages(self, mutant, name):
        """Filter and CPU seconds that are more than enough, the quickest way to a failure first."""
        line = self.function_of(mutant)
        tests = [(test, ms) for test, ms, functions in self.tests[name]
                 if line is None or [mutant.path, line] in [list(one) for one in functions]]
        times = dict(tests)
        with self.lock:
            first = [test for test in self.lately[mutant.path, name] if test in times]
        quick = [test for test, ms in tests if ms <= SLOW_MS and test not in first]
        slow = sorted((test for test, ms in tests if ms > SLOW_MS and test not in first), key=times.get)
        for stage in (first, quick, slow):
            if stage:
                yield ":".join(stage), 10 + 4 * sum(times[test] for test in stage) // 1000

    def noticed(self, mutant, name, test):
        with self.lock:
            lately = self.lately[mutant.path, name]
            if test in lately:
                lately.remove(test)
            lately.insert(0, test)
            del lately[MOST_FIRST:]
