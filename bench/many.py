#!/usr/bin/env python3
"""Measures what a relay, a server and remote cards carry together on this machine, and what they cost.

    many.py --build DIR [--quick] [--out RESULTS.json] [--write-page PAGE.md]

Every process is on this machine, so all times are of one clock. The packets are made by a library that is loaded into
the relay (many/PacedStream.cpp): each says when the relay's poll handed it out, which is when a program beside the card
would have it. The program on the remote card (many/TimedReader.cpp) compares that with its own clock.

The exit code is 1 when a packet is missing that nobody has counted, or is not what was sent.
"""
import argparse
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
import machine
import many_page

RATES = (100_000, 200_000, 400_000, 600_000, 800_000, 1_000_000, 1_250_000, 1_500_000, 2_000_000, 3_000_000,
         4_000_000)
SUBSCRIBERS = (1, 3, 10)
REST_US = 50  # of polling threads, where the cost of a part is measured: one that never rests uses its CPU up
CALM_RATE, BUSY_RATE = 10_000, 100_000  # packets a second
SAMPLE_S = 0.05

CONFIG = """[config]
device = xilinx0:3
BIN_DELAY_TIME = 0
L5_IPA = 239.3.50.1
L5_IPB = 239.3.51.1
L5_PORT = 18501
L1_IPA = 239.3.10.1
L1_IPB = 239.3.11.1
L1_PORT = 18101
[version]
1.1.2.12 = 11
1.1.2.13 = 12
[channel3]
insts = SR
options = norecv
"""


def read(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as file:
            return file.read()
    except FileNotFoundError:
        return ""


def cpu_of(process):
    """Nanoseconds that each thread has had a CPU: thread -> (name, nanoseconds). Empty when the process has ended."""
    used = {}
    folder = f"/proc/{process}/task"
    try:
        for thread in os.listdir(folder):
            with open(f"{folder}/{thread}/schedstat") as times, open(f"{folder}/{thread}/comm") as name:
                used[int(thread)] = (name.read().strip(), int(times.read().split()[0]))
    except (FileNotFoundError, ProcessLookupError):
        pass
    return used


class Part:
    """A process of the measurement, and what its threads have used since begin()."""

    def __init__(self, command, folder, name, environment=None):
        self.name = name
        self.out, self.err = os.path.join(folder, f"{name}.out"), os.path.join(folder, f"{name}.err")
        with open(self.out, "wb") as out, open(self.err, "wb") as err:
            self.process = subprocess.Popen(command, cwd=folder, stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                                            env={**os.environ, **(environment or {})})
        self.first, self.last = {}, {}

    def begin(self):
        self.first = cpu_of(self.process.pid)

    def sample(self):
        now = cpu_of(self.process.pid)
        if len(now) >= len(self.last):  # not while its threads end
            self.last = now

    def main_thread(self):
        return self.used(lambda thread, name: thread == self.process.pid)

    def other_threads(self):
        return self.used(lambda thread, name: thread != self.process.pid)

    def used(self, counts=lambda thread, name: True):
        """CPU seconds of the threads that count."""
        return sum(ns - self.first.get(thread, ("", 0))[1]
                   for thread, (name, ns) in self.last.items() if counts(thread, name)) / 1e9

    def until(self, condition, what):
        """Waits for a condition. A process that ends before is an error."""
        while not condition():
            if self.process.poll() is not None and not condition():
                sys.exit(f"{self.name} ended with {self.process.returncode} before it {what}:\n{read(self.err)}")
            time.sleep(0.01)

    def end(self, number=signal.SIGINT):
        if self.process.poll() is None:
            self.process.send_signal(number)
        return self.process.wait()


def program(build, *parts):
    path = os.path.join(os.path.abspath(build), *parts)
    if not os.path.exists(path):
        sys.exit(f"{path} is missing: scripts/bench.sh --many builds it")
    return path


def nats_server():
    found = shutil.which("nats-server", path=os.environ.get("PATH", "") + ":/usr/sbin")
    if found is None:
        sys.exit("nats-server is not installed")
    return found


class Setup:
    """One server, one relay and some readers, in a folder of their own."""

    def __init__(self, build, readers, packets, rest):
        self.build, self.packets, self.rest = build, packets, rest
        self.folder = tempfile.mkdtemp(prefix="vexo-many-")
        self.parts = []
        try:
            self.start_server()
            self.readers = [self.start_reader(number) for number in range(readers)]
        except BaseException:
            self.close()
            raise

    def start(self, *arguments, **more):
        part = Part(*arguments, **more)
        self.parts.append(part)
        return part

    def start_server(self):
        ports = os.path.join(self.folder, "ports")
        os.mkdir(ports)
        command = [nats_server(), "--addr", "127.0.0.1", "--port", "-1", "--ports_file_dir", ports]
        self.server = self.start(command, self.folder, "server")

        def has_port():
            texts = [read(os.path.join(ports, name)) for name in os.listdir(ports)]
            found = re.search(r'"nats":\s*\[\s*"([^"]+)"', "".join(texts))
            self.url = found and found[1]
            return self.url
        self.server.until(has_port, "had a port")

    def start_reader(self, number):
        folder = os.path.join(self.folder, f"reader{number}")
        os.mkdir(folder)
        with open(os.path.join(folder, "third.ini"), "w") as config:
            config.write(CONFIG)
        reader = self.start([program(self.build, "bin", "vexo"), "remote", "run", "--from", self.url, "--",
                             program(self.build, "bench", "timed_reader"), "third.ini", str(self.packets),
                             str(self.rest), "result.json"], folder, "reader")
        reader.result = os.path.join(folder, "result.json")
        reader.until(lambda: "timed_reader: waits" in read(reader.out), "had its stream")
        return reader

    def relay(self, rate, batch_time):
        """Relays all packets. @return what the relay shows, and how many packets had to wait for its poll at most"""
        # The loader takes no path with a blank, nor does VEXO_PACE.
        shutil.copy(program(self.build, "bench", "libvexo_paced_stream.so"), os.path.join(self.folder, "paced.so"))
        relay = self.start([program(self.build, "bin", "vexo"), "sim", "run", "--embedded", "--",
                            program(self.build, "bin", "vexo"), "relay", "--channel", "3", "--to", self.url,
                            "--batch-time", str(batch_time), "--poll-rest", str(self.rest), "--json"],
                           self.folder, "relay",
                           {"LD_PRELOAD": "./paced.so", "VEXO_PACE": f"{rate} {self.packets} pace.json"})
        self.relaying = relay
        relay.until(lambda: "vexo relay: channel " in read(relay.err), "relayed")
        for part in self.parts:
            part.begin()
        while any(reader.process.poll() is None for reader in self.readers):
            for part in self.parts:
                part.sample()
            time.sleep(SAMPLE_S)
        relay.end()
        if not read(relay.out):  # one that could not confirm all in time has a result, too
            sys.exit(f"the relay failed:\n{read(relay.err)}")
        return json.loads(read(relay.out)), json.loads(read(os.path.join(self.folder, "pace.json")))

    def close(self):
        for part in self.parts:
            part.end(signal.SIGKILL)
        shutil.rmtree(self.folder)


def lost_of(reader):
    """What the library says of the stream's losses at the end."""
    found = re.search(r"DMA count info: backpress:(\d+), dma2soft:(\d+)", read(reader.out) + read(reader.err))
    return int(found[1]) if found else None


def measure(build, rate, packets, readers=1, rest=REST_US, batch_time=100):
    """One run. @return its figures"""
    setup = Setup(build, readers, packets, rest)
    try:
        relayed, paced = setup.relay(rate, batch_time)
        results = [json.loads(read(reader.result)) for reader in setup.readers]
        losses = [lost_of(reader) for reader in setup.readers]
        delivered = relayed["packets"] + relayed["lost"]["ring"]
        uncounted = [result["received"] + (lost or 0) - delivered for result, lost in zip(results, losses)]
        millions = packets / 1e6
        cpu = {"polls": setup.relaying.main_thread(), "sends": setup.relaying.other_threads(),
               "server": setup.server.used(),
               "takes": sum(reader.other_threads() for reader in setup.readers) / readers,
               "reads": sum(reader.main_thread() for reader in setup.readers) / readers}
        return {"rate": rate, "packets": packets, "readers": readers, "rest_us": rest, "batch_time_us": batch_time,
                "arrived_per_second": min(result["received"] / max(result["seconds"], 1e-9) for result in results),
                "lost_by_relay": relayed["lost"]["relay"],
                "lost": [packets - result["received"] for result in results],
                "uncounted": [count for count in uncounted if count != 0],
                "wrong": sum(result["wrong"] for result in results),
                "messages": relayed["messages"], "most_waiting": paced["most_waiting"],
                "cpu_per_million": {part: seconds / millions for part, seconds in cpu.items()},
                "median_us": max(result["median_ns"] for result in results) / 1e3,
                "p999_us": max(result["p999_ns"] for result in results) / 1e3,
                "longest_us": max(result["longest_ns"] for result in results) / 1e3}
    finally:
        setup.close()


def rates(build, seconds):
    """Rising rates, until two in a row are too much."""
    runs = []
    for rate in RATES:
        runs.append(measure(build, rate, int(rate * seconds)))
        show(runs[-1])
        if len(runs) > 1 and not many_page.keeps_up(runs[-1]) and not many_page.keeps_up(runs[-2]):
            break
    return runs


def latencies(build, seconds):
    runs = []
    for rest in (0, REST_US):
        for rate in (CALM_RATE, BUSY_RATE):
            for batch_time in (0, 100):
                runs.append(measure(build, rate, int(rate * seconds), 1, rest, batch_time))
                show(runs[-1])
    return runs


def subscribers(build, seconds):
    runs = []
    for batch_time in (100, 1000):
        for readers in SUBSCRIBERS:
            runs.append(measure(build, BUSY_RATE, int(BUSY_RATE * seconds), readers, batch_time=batch_time))
            show(runs[-1])
    return runs


def show(run):
    cpu = ", ".join(f"{part} {seconds:.2f}" for part, seconds in run["cpu_per_million"].items())
    print(f"{run['rate']} a second, {run['readers']} readers, rest {run['rest_us']}, batch {run['batch_time_us']}: "
          f"{run['arrived_per_second']:.0f} arrive, lost {run['lost']}, CPU a million: {cpu}; "
          f"median {run['median_us']:.0f} us, 99.9 % {run['p999_us']:.0f} us", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build", required=True)
    parser.add_argument("--quick", action="store_true", help="runs of one second")
    parser.add_argument("--out", default="many-results.json")
    parser.add_argument("--write-page", metavar="PAGE")
    options = parser.parse_args()
    for name in [name for name in os.environ if name.startswith(("VEXO_SIM_", "VEXO_NATS_"))]:
        del os.environ[name]

    load = os.getloadavg()[0]
    seconds = 1 if options.quick else 5
    found = {"machine": dict(machine.describe(options.build), load=f"{load:.1f} before it began"),
             "rates": rates(options.build, seconds), "latencies": latencies(options.build, seconds),
             "subscribers": subscribers(options.build, seconds)}
    with open(options.out, "w") as out:
        json.dump(found, out, indent=1)
    print("\n" + many_page.block(found))
    if options.write_page:
        many_page.write(options.write_page, found)
    runs = found["rates"] + found["latencies"] + found["subscribers"]
    bad = [run for run in runs if run["wrong"] or run["uncounted"]]
    print(f"\nNumbers: {options.out}\n{len(bad)} of {len(runs)} runs have packets that are wrong, or missing without a "
          "count.")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
