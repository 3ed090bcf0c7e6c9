"""What the attacks on whole programs share: the programs of a build, starting and killing them, and counting."""

import collections
import multiprocessing
import os
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time


class Build:
    """The programs of a build folder, which the tests' own CMake files put there."""

    def __init__(self, folder):
        def path(*parts):
            found = os.path.join(os.path.abspath(folder), *parts)
            if not os.path.exists(found):
                sys.exit(f"{found} is missing: build it first")
            return found

        self.simcard = path("bin", "vexo-simcard")
        self.vexo = path("bin", "vexo")
        self.card_user = path("tests", "hosted", "card_user")
        self.quote_recorder = path("tests", "hosted", "quote_recorder")
        self.own_day_files = path("tests", "scripts", "libvexo_own_day_files.so")
        self.card_library = os.path.dirname(path("sim-card", "libenyx-hw-c.so.1"))


class Attack:
    """Counts what was done and what was found; random numbers that repeat for a seed."""

    def __init__(self, seed):
        self.random = random.Random(seed)
        self.findings = 0
        self.figures = collections.Counter()
        self.started = []
        self.end = None
        # A folder without a blank in its name, which the loader's variables need, that other users can reach too.
        self.place = tempfile.mkdtemp(prefix="vexo-attack.", dir="/tmp")
        os.chmod(self.place, 0o755)

    def run_parts(self, parts):
        """Runs the parts one after the other. Each gets its share of VEXO_SOAK_MINUTES, when that is set."""
        minutes = os.environ.get("VEXO_SOAK_MINUTES")
        for part in parts:
            self.end = time.monotonic() + float(minutes) * 60 / len(parts) if minutes else None
            part()

    def is_over(self):
        return self.end is not None and time.monotonic() > self.end

    def find(self, what):
        self.findings += 1
        print(f"FOUND: {what}", flush=True)

    def count(self, **numbers):
        """Adds to the figures of the last line; an underscore stands for a blank."""
        self.figures.update({what.replace("_", " "): number for what, number in numbers.items()})
        print(time.strftime("%H:%M:%S"), numbers, flush=True)

    def start(self, command, environment=None, folder=None, output=None):
        """A process whose output goes to the file `output`, or nowhere."""
        with open(output or os.devnull, "ab") as sink:
            process = subprocess.Popen(command, env={**os.environ, **(environment or {})}, cwd=folder,
                                       stdin=subprocess.DEVNULL, stdout=sink, stderr=sink)
        self.started.append(process)
        return process

    def kill(self, process, number=signal.SIGKILL):
        process.send_signal(number)
        process.wait()
        self.started.remove(process)

    def pause(self, longest):
        time.sleep(self.random.random() * longest)

    def until(self, condition, process=None):
        """Waits for a condition. False when the process ends meanwhile, or after two minutes."""
        for _ in range(120000):
            if condition():
                return True
            if process is not None and process.poll() is not None:
                return condition()
            time.sleep(0.001)
        return False

    def close(self):
        for process in self.started:
            process.kill()
            process.wait()
        shutil.rmtree(self.place)


def run_all(attacks, work):
    """Runs work(attack) for several attacks at once, each in a folder of its own. Prints the line of figures.
    @return how the program ends"""
    figures = collections.Counter()
    findings = 0
    with multiprocessing.Pool(len(attacks)) as pool:
        for part, found in pool.imap_unordered(work, attacks):
            figures.update(part)
            findings += found
    print(", ".join(f"{number} {what}" for what, number in figures.items()) + f"; {findings} findings")
    return 1 if findings else 0


def read(path):
    try:
        with open(path, "rb") as file:
            return file.read()
    except FileNotFoundError:
        return b""
