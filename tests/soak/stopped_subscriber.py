#!/usr/bin/env python3
"""stopped_subscriber.py BUILD SECONDS ROUNDS     what a subscriber that stops costs the relay's application

An unmodified application on a hosted card shares its packets with a relay. A program on a remote card receives them: it
runs, then it is stopped (SIGSTOP), SECONDS each, ROUNDS times, and then a new one takes its place. Before and after each
turn the application's statistics page says what was received and lost, and how long that took. Prints both histograms'
figures, and a last line. Status 1: the application has lost a packet while the subscriber was stopped, or usually took
more than twice as long.
"""

import collections
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.dont_write_bytecode = True
from attack import Build, read
from kills import INI

RATE = 20000  # quotes a second
CARD, _ = INI.split("[channel0]")
CHANNELS = "".join(f"[channel{number}]\ninsts = SR, CF, TA\noptions = norecv\n" for number in (0, 3))
LOSSES = ("back_pressure", "fifo_errors", "errors")


class Turn:
    """What the application's page counted between two looks at it."""

    def __init__(self):
        self.packets = 0
        self.lost = 0
        self.histograms = {"callbacks": collections.Counter(), "gaps": collections.Counter()}

    def add(self, before, after):
        self.packets += after["packets"] - before["packets"]
        self.lost += sum(after[name] - before[name] for name in LOSSES)
        self.lost += after["polls"]["failed"] - before["polls"]["failed"]
        for name, counts in self.histograms.items():
            counts.update({bucket["below_seconds"]: bucket["count"] for bucket in after[name]})
            counts.subtract({bucket["below_seconds"]: bucket["count"] for bucket in before[name]})

    def below(self, name, share):
        """The time that so many of all were below, in microseconds."""
        counts = self.histograms[name]
        rest = share * sum(counts.values())
        for bound in sorted(counts):
            rest -= counts[bound]
            if rest <= 0:
                return bound * 1e6
        return 0.0

    def text(self):
        figures = [f"{name}: median below {self.below(name, 0.5):.2f} us, 99.9 % below {self.below(name, 0.999):.1f} us"
                   for name in self.histograms]
        return f"{self.packets} packets, {self.lost} lost; " + "; ".join(figures)


class Desk:
    """A server, a hosted card, an application that shares its packets, and a relay beside it."""

    def __init__(self, build):
        self.build = Build(build)
        self.printer = os.path.join(os.path.abspath(build), "bin", "quote_printer")
        self.place = tempfile.mkdtemp(prefix="vexo-stopped.")
        self.processes = []
        self.environment = {key: value for key, value in os.environ.items() if not key.startswith(("VEXO_", "LD_PRE"))}
        for name in ("SIM", "SHARE", "STATS"):
            folder = os.path.join(self.place, name.lower())
            os.mkdir(folder, mode=0o700)
            self.environment[f"VEXO_{name}_DIR"] = folder
        self.environment["VEXO_TEST_DAY_FILES"] = self.place
        self.own_day_files = shutil.copy(self.build.own_day_files, self.place)  # a path without a blank

    def start(self, name, command, **more):
        output = os.path.join(self.place, name + ".out")
        with open(output, "wb") as sink:
            process = subprocess.Popen(command, cwd=self.place, env={**self.environment, **more},
                                       stdin=subprocess.DEVNULL, stdout=sink, stderr=sink)
        process.output = output
        self.processes.append(process)
        return process

    def until(self, process, pattern):
        """Waits until the process has written something. @return the match"""
        while True:
            found = re.search(pattern, read(process.output))
            if found:
                return found
            if process.poll() is not None:
                sys.exit(f"{process.args} ended with {process.returncode}:\n{read(process.output).decode()}")
            time.sleep(0.02)

    def set_up(self):
        for number in (0, 3):
            with open(os.path.join(self.place, f"channel{number}.ini"), "w") as config:
                config.write(CARD.replace("xilinx0:0", f"xilinx0:{number}") + CHANNELS)
        server = self.start("server", [shutil.which("nats-server", path=os.environ["PATH"] + ":/usr/sbin"), "--addr",
                                       "127.0.0.1", "--port", "-1"])
        port = self.until(server, rb"Listening for client connections on 127.0.0.1:(\d+)")[1].decode()
        self.url = "nats://127.0.0.1:" + port
        self.start("host", [self.build.simcard, "--quiet", "--set", f"quotes.per_second={RATE}", "--set",
                            "card.ring_bytes=1048576"])
        while subprocess.run([self.build.simcard, "--status"], env=self.environment, capture_output=True).returncode:
            time.sleep(0.05)
        # What the master has programmed stays when it has ended.
        master = self.start("master", self.hosted() + [self.printer, "channel0.ini", "--seconds", "3", "--quotes", "0"],
                            LD_PRELOAD=self.own_day_files)
        if master.wait() != 0:
            sys.exit(f"the master failed:\n{read(master.output).decode()}")
        self.application = self.start("application", self.hosted() + [
            self.build.vexo, "tap", "--share", "--", self.build.vexo, "tap", "--stats-only", "--", self.printer,
            "channel3.ini", "--quotes", "0"], LD_PRELOAD=self.own_day_files)
        self.until(self.application, rb"CUSTOM_CHAN3_DATA success")
        self.relay = self.start("relay", [self.build.vexo, "relay", "--beside", "--channel", "3", "--to", self.url])
        self.until(self.relay, rb"comes from quote_printer")

    def hosted(self):
        return [self.build.vexo, "sim", "run", "--hosted", "--"]

    def subscriber(self):
        process = self.start("subscriber", [self.build.vexo, "remote", "run", "--from", self.url, "--", self.printer,
                                            "channel3.ini", "--quotes", "0"])
        self.until(process, rb"CUSTOM_CHAN3_DATA success")
        time.sleep(1)
        return process

    def page(self):
        shown = subprocess.run([self.build.vexo, "stat", "--json", "--pid", str(self.application.pid)], check=True,
                               env=self.environment, capture_output=True, text=True).stdout
        return next(page for page in map(json.loads, shown.splitlines()) if page["writer"] == "tap")["streams"][0]

    def turn(self, seconds, turn):
        before = self.page()
        time.sleep(seconds)
        turn.add(before, self.page())

    def end(self, process, number):
        process.send_signal(number)
        process.wait()
        self.processes.remove(process)

    def close(self):
        for process in reversed(self.processes):
            process.kill()
            process.wait()
        shutil.rmtree(self.place)


def main():
    build, seconds, rounds = sys.argv[1], float(sys.argv[2]), int(sys.argv[3])
    desk = Desk(build)
    turns = {"runs": Turn(), "is stopped": Turn()}
    try:
        desk.set_up()
        for _ in range(rounds):
            subscriber = desk.subscriber()
            desk.turn(seconds, turns["runs"])
            subscriber.send_signal(signal.SIGSTOP)
            desk.turn(seconds, turns["is stopped"])
            desk.end(subscriber, signal.SIGKILL)
        desk.end(desk.relay, signal.SIGINT)
        print(read(desk.relay.output).decode())
    finally:
        desk.close()
    for state, turn in turns.items():
        print(f"while the subscriber {state}: {turn.text()}")
    stopped, running = turns["is stopped"], turns["runs"]
    # The histogram's bounds are powers of two.
    is_slower = stopped.below("callbacks", 0.5) > 2.1 * running.below("callbacks", 0.5)
    print(f"{stopped.packets} packets while the subscriber was stopped, {stopped.lost} lost by the application; median of "
          f"callbacks below {stopped.below('callbacks', 0.5):.2f} us and {running.below('callbacks', 0.5):.2f} us while it "
          f"ran, 99.9 % below {stopped.below('callbacks', 0.999):.1f} and {running.below('callbacks', 0.999):.1f} us"
          + ("; SLOWER" if is_slower else ""))
    return 1 if stopped.lost or is_slower or not stopped.packets or not running.packets else 0


if __name__ == "__main__":
    sys.exit(main())
