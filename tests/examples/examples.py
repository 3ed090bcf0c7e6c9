#!/usr/bin/env python3
"""Runs the example programs as a user would, on a simulated card.

    examples.py CASE [PROGRAM] --programs DIR --sources DIR --preload LIBRARY
"""
import argparse
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

MANY_QUOTES = ["--set", "quotes.per_second=50000"]
LONGEST = 120  # lines that one reads in one sitting


class Program:
    """A program in the background, whose output is a file."""

    def __init__(self, work, *words, **settings):
        self.output = work / "output.log"
        environment = {**os.environ, **settings}
        with open(self.output, "wb") as output:
            self.process = subprocess.Popen(words, cwd=work, env=environment, stdout=output, stderr=subprocess.STDOUT)

    def text(self):
        return self.output.read_text(errors="replace")

    def wait_until(self, condition):
        """Waits until the condition holds. Fails when the program has ended and it still does not."""
        while True:
            ended = self.process.poll() is not None
            if condition():
                return
            if ended:
                sys.exit(f"ended with {self.process.returncode}:\n{self.text()}")
            time.sleep(0.05)

    def wait_for(self, pattern, times=1):
        self.wait_until(lambda: len(re.findall(pattern, self.text(), re.M)) >= times)

    def catches(self, number):
        """Whether the program has its own handler of a signal."""
        status = pathlib.Path(f"/proc/{self.process.pid}/status").read_text()
        return int(re.search(r"^SigCgt:\s(\w+)", status, re.M).group(1), 16) >> (number - 1) & 1 == 1

    def end(self, number):
        self.process.send_signal(number)
        return self.process.wait()


class Examples:
    def __init__(self, work, sources, programs):
        self.work, self.sources, self.programs = work, sources, programs
        for ini in ("demo.ini", "zce.ini", "channel1.ini"):
            shutil.copy(sources / "examples" / ini, work)
        products = sources / "examples/framework_adapter/products.csv"
        self.words = {"blocking": ["demo.ini"], "poll_loop": ["demo.ini"], "several_channels": ["zce.ini", "channel1.ini"],
                      "several_processes": ["zce.ini", "channel1.ini"], "framework_adapter": ["demo.ini", products]}
        # A line that says that quotes came.
        self.quotes = {"blocking": r"^\d+ quotes$", "poll_loop": r"^[1-9]\d* quotes, [1-9]\d* in the last second$",
                       "several_channels": r"^zce.ini: [1-9]\d* quotes\n(.*\n)*channel1.ini: [1-9]\d* quotes$",
                       "several_processes": r"^channel1: \d+ quotes$",
                       "framework_adapter": r"^instruments [1-9]\d*  quotes [1-9]\d*  off tick 0  dropped \d+$"}
        self.host, self.running = None, []

    def path(self, program):
        return str(self.programs / program)

    def host_card(self, *options):
        self.host = subprocess.Popen([self.path("vexo-simcard"), "--quiet", *options], cwd=self.work)
        while subprocess.run([self.path("vexo-simcard"), "--json"], stdout=subprocess.DEVNULL,
                             stderr=subprocess.DEVNULL, check=False).returncode != 0:
            expect(self.host.poll() is None, "the host ended")
            time.sleep(0.05)

    def stop(self):
        for process in [program.process for program in self.running] + ([self.host] if self.host else []):
            if process.poll() is None:
                process.terminate()
            process.wait()

    def start(self, program, *words, **settings):
        settings = {"VEXO_SIM_CARD": "embedded" if self.host is None else "hosted", **settings}
        self.running.append(Program(self.work, self.path(program), *(words or self.words[program]), **settings))
        return self.running[-1]

    # ---- the cases ----

    def receives(self, program):
        if program == "several_processes":
            self.host_card(*MANY_QUOTES)
        running = self.start(program)
        running.wait_for(self.quotes[program])
        status = running.end(signal.SIGTERM)
        expect(status == 0, f"ended with {status}:\n{running.text()}")
        expect("has released." in running.text(), f"the stream was not closed:\n{running.text()}")

    def failed_start(self, program):
        (self.work / "broken.ini").write_text("no section and no key\n")
        for ini in ("broken.ini", "zce.ini"):  # a file that the library refuses, and no card
            words = [ini] + [str(word) for word in self.words[program] if str(word).endswith(".csv")]
            running = self.start(program, *words, VEXO_SIM_CARD="hosted")
            status = running.process.wait()
            expect(status == 1, f"{ini}: ended with {status}:\n{running.text()}")
            expect("Vexo inner init fail." in running.text(), f"{ini}: another failure:\n{running.text()}")

    def before_first_quote(self, program):
        settings = {"VEXO_SIM_SET": "quotes.per_second=0"}
        if program == "several_processes":
            self.host_card("--set", settings.pop("VEXO_SIM_SET"))
        running = self.start(program, **settings)
        channels = len([word for word in self.words[program] if str(word).endswith(".ini")])
        running.wait_for("Init dma channel :.* success", channels)
        if program != "several_processes":  # its parent blocks the signal from the beginning
            running.wait_until(lambda: running.catches(signal.SIGTERM))
        status = running.end(signal.SIGTERM)
        expect(status == 0, f"ended with {status}:\n{running.text()}")

    def command_lines(self):
        for program in [*self.words, "quote_printer"]:
            def run(*words, name=program):
                return subprocess.run([self.path(name), *words], cwd=self.work, check=False, text=True,
                                      stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            shown = run("--help")
            expect(shown.returncode == 0 and f"sage: {program} INI" in shown.stdout, f"{program} --help: {shown}")
            expect(re.search(r"Exit status:\s+0", shown.stdout), f"{program} --help does not tell the exit status")
            version = run("--version")
            expect(version.returncode == 0 and re.match(rf"{program} \d+\.\d+", version.stdout), f"{program} --version: {version}")
            for redirection, cause in ((">/dev/full", "No space left on device"), (">&-", "it is closed")):
                lost = run_shell(f'exec "$0" --help {redirection}', self.path(program))
                expect(lost.returncode == 1 and lost.stderr == f"{program}: standard output: {cause}\n",
                       f"{program} --help {redirection}: {lost}")
            wrong = [[], ["--nonsense"], [f"{n}.ini" for n in range(20)],
                     ["nothere.ini"] + [str(word) for word in self.words.get(program, [])[1:]]]
            if program == "quote_printer":
                wrong += [["--second", "1", "zce.ini"], ["--quote=1", "zce.ini"], ["--seconds", "1x", "zce.ini"],
                          ["--color", "red", "zce.ini"]]
            if program == "poll_loop":
                wrong += [["zce.ini", "first"], ["zce.ini", "1024"], ["zce.ini", "1", "2"]]
            for words in wrong:
                refused = run(*words)
                expect(refused.returncode == 2 and refused.stdout == "", f"{program} {words}: {refused}")
                expect(re.match(rf"{program}: \S+: .*\nSee {program} --help\n$", refused.stderr), f"{words}: {refused}")
                if words == ["--nonsense"]:
                    expect("--nonsense" in refused.stderr, f"{program}: {refused}")

    def pinned(self):
        cpu = min(os.sched_getaffinity(0))
        if os.sched_getaffinity(0) == {cpu}:
            print("skipped: the test has one CPU only")
            sys.exit(77)
        running = self.start("poll_loop", "demo.ini", str(cpu))
        running.wait_for(self.quotes["poll_loop"])
        pid = running.process.pid
        others = [int(task) for task in os.listdir(f"/proc/{pid}/task") if int(task) != pid]
        expect([os.sched_getaffinity(task) for task in others] == [{cpu}], "the polling thread is not pinned")
        expect(os.sched_getaffinity(pid) == os.sched_getaffinity(0), "the main thread is pinned too")
        expect(running.end(signal.SIGINT) == 0, running.text())

    def silence(self):
        running = self.start("poll_loop", VEXO_SIM_SET="quotes.per_second=0")
        running.wait_for("^no quote for 5 seconds$")
        expect(running.end(signal.SIGINT) == 0, running.text())

    def full_ring(self):
        running = self.start("framework_adapter", *self.words["framework_adapter"], "1", VEXO_SIM_SET="pace.pace=max")
        running.wait_for(r"^instruments .* dropped [1-9]")
        expect(running.end(signal.SIGTERM) == 0, running.text())
        # What the card counts is what the framework got, and what the ring did not take. Contract maps are the rest.
        got, dropped = map(int, re.findall(r"quotes (\d+) .* dropped (\d+)$", running.text(), re.M)[-1])
        packets = int(re.search(r"backpress:0, dma2soft:(\d+)", running.text()).group(1))
        expect(0 <= packets - got - dropped < 0.1 * packets, f"{packets} packets, {got} quotes, {dropped} dropped")

    def dead_process(self):
        self.host_card(*MANY_QUOTES)
        running = self.start("several_processes")
        running.wait_for(self.quotes["several_processes"])
        children = pathlib.Path(f"/proc/{running.process.pid}/task/{running.process.pid}/children").read_text().split()
        expect(len(children) == 2, f"children: {children}")
        os.kill(int(children[1]), signal.SIGKILL)
        running.wait_for("^channel1.ini ended, the others go on$")
        seen = running.text().count("\n")
        running.wait_for(r"^zce: \d+ quotes$", running.text().count("\nzce: ") + 1)
        expect(running.text().count("\n") > seen, "the master stands still")
        status = running.end(signal.SIGTERM)
        expect(status == 1, f"ended with {status}:\n{running.text()}")

    def short(self):
        files = [path for path in (self.sources / "examples").rglob("*") if path.suffix in (".h", ".cpp")
                 and path.parent.name != "quote_printer"]
        expect(len(files) >= 9, f"only {len(files)} files found")
        for path in files:
            lines = path.read_text().count("\n")
            expect(lines <= LONGEST, f"{path.name} has {lines} lines, more than {LONGEST}")


def run_shell(command, *words):
    return subprocess.run(["sh", "-c", command, *words], check=False, text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE)


def expect(condition, complaint):
    if not condition:
        sys.exit(complaint)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("case")
    parser.add_argument("program", nargs="?")
    for option in ("--programs", "--sources", "--preload"):
        parser.add_argument(option, type=pathlib.Path, required=True)
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory() as name:
        work = pathlib.Path(name)
        shutil.copy(arguments.preload, work / "preload.so")  # LD_PRELOAD takes no path with a blank
        (work / "day-files").mkdir()
        for variable in [variable for variable in os.environ if variable.startswith("VEXO_")]:
            del os.environ[variable]
        os.environ |= {"LD_PRELOAD": str(work / "preload.so"), "VEXO_TEST_DAY_FILES": str(work / "day-files"),
                       "VEXO_SIM_DIR": name}
        examples = Examples(work, arguments.sources, arguments.programs)
        try:
            getattr(examples, arguments.case)(*([arguments.program] if arguments.program else []))
        finally:
            examples.stop()


if __name__ == "__main__":
    main()
