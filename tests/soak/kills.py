#!/usr/bin/env python3
"""kills.py BUILD SEED DAY_FILES EACH [JOBS]     kill -9 at random instants, in the current folder

Kills DAY_FILES writers of a day file, and EACH of: programs under the tap, hosts, recording hosts, readers of a stream,
users of registers. JOBS of them run at once. After each kill it looks at what was left, and that the next process finds
nothing in its way. Ends with one line of figures; status 1 when something was found.
"""

import glob
import os
import re
import shutil
import struct
import sys
import time

from attack import Attack, Build, read, run_all

# Everything that the card announces is configured: so the log names each instrument that was learned.
INI = """[config]
device = xilinx0:0
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
[channel0]
insts = AP,CF,CJ,CY,FG,JR,LR,MA,OI,PF,PK,PL,PM,PR,PX,RI,RM,RS,SA,SF,SH,SM,SR,TA,UR,WH,ZC
options = recv
ips = recv
spd = recv
"""
END_TAG = b"bin_file_over_tag\n"
LINE = re.compile(rb"\d+,[A-Z]+[-A-Z0-9/&]+")
SUBSCRIBED = re.compile(rb"Subscribes:Write to fpga:.*instId:(\S+)")


def fresh(folder):
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    return os.path.abspath(folder)


def has_end_tag(content):
    return b"\n" + END_TAG in content


def whole_packets(content):
    """How many packets a capture holds, and whether each block of it is whole, except for one that is cut at the end."""
    at = packets = 0
    while len(content) - at >= 12:
        kind, length = struct.unpack_from("<II", content, at)
        if length < 12 or length % 4 != 0 or (at == 0 and kind != 0x0A0D0D0A):
            return packets, False
        if at + length > len(content):
            break
        if struct.unpack_from("<I", content, at + length - 4)[0] != length:
            return packets, False
        packets += kind == 6
        at += length
    return packets, True


class Kills(Attack):
    def __init__(self, build, seed):
        super().__init__(seed)
        self.build = Build(build)
        self.cards = fresh("cards")
        self.own_day_files = shutil.copy(self.build.own_day_files, self.place)
        self.on_host = {"VEXO_SIM_CARD": "hosted", "VEXO_SIM_DIR": self.cards}
        self.card_file = f"{self.cards}/vexo-simcard-{os.geteuid()}-0"

    # ---- day files

    def start_writer(self):
        folder = self.day_folder
        for log in glob.glob(folder + "/fpga_*.log"):
            os.unlink(log)
        return self.start([self.build.quote_recorder, folder, "zce.ini", "quotes"],
                          {"VEXO_SIM_CARD": "embedded", "TZ": "Asia/Shanghai", "VEXO_TEST_DAY_FILES": folder,
                           "VEXO_SIM_SET": "card.learning_ms=1\ncard.map_round_ms=50",
                           "LD_PRELOAD": self.own_day_files}, folder)

    def log(self):
        return b"".join(read(path) for path in glob.glob(self.day_folder + "/fpga_*.log"))

    def verdict(self):
        """Whether the running writer has loaded the file that it found; None while it has not said so."""
        log = self.log()
        if b"loading bin file is success" in log:
            return True
        return False if b"loading bin file is fail" in log or b"bin file is not exists" in log else None

    def judge_day_file(self, what, content, log):
        """Each line is whole and known, the last one perhaps cut. A file with an end tag lacks no instrument that its
        writer has subscribed. Instruments that the card announces late follow the first end tag."""
        lines = content.split(b"\n")
        last = lines.pop()
        if lines and lines.pop(0) != b"inst_index,inst_id":
            self.find(f"{what}: the day file has another head")
        lines = [line for line in lines if line + b"\n" != END_TAG]
        ids = [line.partition(b",")[2] for line in lines]
        if len(set(ids)) != len(ids):
            self.find(f"{what}: the day file has an instrument twice")
        for line, name in zip(lines, ids):
            if LINE.fullmatch(line) is None or self.indexes.setdefault(name, line) != line:
                self.find(f"{what}: the day file has the line {line}")
        missing = set(SUBSCRIBED.findall(log)) - set(ids) if has_end_tag(content) else set()
        if missing:
            self.find(f"{what}: the day file has its end tag and lacks {sorted(missing)[:5]}")
        if has_end_tag(content) and last:
            self.find(f"{what}: the day file has its end tag and a line that is cut: {last}")

    def day_files(self, count):
        if count == 0:
            return
        self.day_folder = fresh("day files")
        with open(self.day_folder + "/zce.ini", "w", encoding="ascii") as ini:
            ini.write(INI)
        path = self.day_folder + "/.zce_20310408_am"
        self.indexes = {}
        begin = time.monotonic()
        writer = self.start_writer()
        if not self.until(lambda: read(path) != b"", writer):
            return self.find("the first writer writes no day file")
        first = time.monotonic()
        if not self.until(lambda: has_end_tag(read(path)), writer):
            return self.find("the first writer does not end its day file")
        writing = time.monotonic() - first
        longest = time.monotonic() - begin
        self.kill(writer)
        if not SUBSCRIBED.search(self.log()):
            return self.find("the log does not tell what is subscribed")
        self.judge_day_file("the first writer", read(path), self.log())
        done = complete = partial = 0
        while done < count and not self.is_over():
            before = read(path)
            writer = self.start_writer()
            if self.random.random() < 0.3:
                self.pause(longest)
            elif self.until(lambda: self.verdict() is not None, writer):
                if self.verdict() != has_end_tag(before):
                    self.find(f"kill {done}: a day file of {len(before)} bytes, whole: {has_end_tag(before)}, and "
                              f"the next start says {self.log()[-600:]}")
                if has_end_tag(before):
                    os.unlink(path)  # nothing is written while it is loaded
                else:
                    self.until(lambda: read(path) not in (b"", before), writer)
                self.pause(writing * 1.3)
            else:
                self.find(f"kill {done}: the writer ended with {writer.poll()}: {self.log()[-600:]}")
            self.kill(writer)
            done += 1
            after = read(path)
            complete += has_end_tag(after)
            partial += after != b"" and not has_end_tag(after)
            self.judge_day_file(f"kill {done}", after, self.log() if after != before else b"")
        self.count(day_file_writers=done, day_files_in_part=partial, whole_day_files=complete)

    # ---- captures

    def judge_capture(self, path, what):
        packets, sound = whole_packets(read(path))
        if not sound:
            self.find(f"{what}: {path} cannot be read up to its last whole packet")
            shutil.copy(path, path + ".found")
        return packets

    def taps(self, count):
        folder = fresh("taps")
        done = packets = with_packets = 0
        while done < count and not self.is_over():
            capture = f"{folder}/{done}.pcapng"
            user = self.start([self.build.vexo, "tap", "--output", capture] + (["--registers"] if done % 3 == 0 else []) +
                              ["--", self.build.card_user, "quotes", "100000000"],
                              {"VEXO_SIM_CARD": "embedded", "VEXO_SIM_SET": "quotes.per_second=100000\n"
                               "card.learning_ms=1", "LD_LIBRARY_PATH": self.build.card_library})
            if self.random.random() < 0.9:
                self.until(lambda: os.path.exists(capture), user)
            self.pause(0.4)
            self.kill(user)
            if os.path.exists(capture):
                found = self.judge_capture(capture, "tap")
                packets += found
                with_packets += found > 0
                os.unlink(capture)
            done += 1
        self.count(taps=done, captures_of_a_tap=with_packets, tapped_packets=packets)

    # ---- hosts

    def start_host(self, *options):
        return self.start([self.build.simcard, "--quiet", *options], self.on_host, output="host.err")

    def is_served(self, host):
        return self.until(lambda: os.path.exists(self.card_file) and self.use("write", "262", "20310305") == 0, host)

    def use(self, *what):
        user = self.start([self.build.card_user, *what], self.on_host, output="user.err")
        status = user.wait()
        self.started.remove(user)
        return status

    def hosts(self, count):
        done = served = 0
        while done < count and not self.is_over():
            host = self.start_host()
            if self.random.random() < 0.6:
                if not self.is_served(host):
                    self.find(f"kill {done}: after the host before was killed, the next one ends with {host.poll()}: "
                              f"{read('host.err')[-300:]}")
                served += 1
                self.pause(0.01)
            else:
                self.pause(0.03)
            self.kill(host)
            done += 1
        host = self.start_host()
        self.is_served(host)
        left = os.listdir(self.cards)
        if left != [os.path.basename(self.card_file)]:
            self.find(f"dead hosts left files: {left}")
        self.kill(host)
        self.count(hosts=done, hosts_with_a_card_in_use=served)

    def records(self, count):
        folder = fresh("records")
        done = packets = with_packets = 0
        while done < count and not self.is_over():
            capture = f"{folder}/{done}.pcapng"
            host = self.start_host("--record", capture, "--set", "quotes.per_second=100000", "--set",
                                   "card.learning_ms=1")
            if not self.is_served(host):
                self.find(f"kill {done}: a recording host ends with {host.poll()}: {read('host.err')[-300:]}")
            reader = self.start([self.build.card_user, "quotes", "100000000"], self.on_host)
            self.pause(0.3)
            self.kill(host)
            self.kill(reader)
            if not os.path.exists(capture):
                continue
            found = self.judge_capture(capture, "record")
            packets += found
            with_packets += found > 0
            os.unlink(capture)
            done += 1
        self.count(recording_hosts=done, captures_of_a_host=with_packets, recorded_packets=packets)

    # ---- users

    def readers(self, count):
        host = self.start_host("--set", "quotes.per_second=200000")
        self.is_served(host)
        if self.use("quotes", "10") != 0:
            return self.find("no reader receives quotes")
        done = 0
        while done < count and not self.is_over():
            reader = self.start([self.build.card_user, "receive", "1000000000"], self.on_host)
            self.pause(0.03)
            self.kill(reader)
            done += 1
            status = self.use("receive", "5")
            if status != 0:
                self.find(f"kill {done}: the next reader ends with {status}: {read('user.err')[-300:]}")
        if host.poll() is not None:
            self.find(f"the host of the readers ended with {host.poll()}")
        self.kill(host)
        self.count(readers=done)

    def register_users(self, count):
        host = self.start_host()
        self.is_served(host)
        kinds = [["take-turns", "1000000000"], ["take-turns", "1000000000"], ["lock"]]
        users = [self.start([self.build.card_user, *kind], self.on_host, output="user.err") for kind in kinds[:2]]
        done = 0
        while done < count and not self.is_over():
            self.pause(0.02)
            if done % 10 == 0:  # one that keeps the core lock
                locked = self.start([self.build.card_user, "lock"], self.on_host, output="locked")
                self.until(lambda: read("locked") != b"", locked)
                self.kill(locked)
                os.unlink("locked")
            which = self.random.randrange(2)
            if users[which].poll() is not None:
                self.find(f"kill {done}: a user of registers ended by itself with {users[which].poll()}")
            self.kill(users[which])
            done += 1 + (done % 10 == 0)
            status = self.use("take-turns", "3")
            if status != 0:
                self.find(f"kill {done}: the next user of registers ends with {status}")
            users[which] = self.start([self.build.card_user, *kinds[which]], self.on_host, output="user.err")
        for process in users + [host]:
            self.kill(process)
        self.count(users_of_registers=done)


def work(job):
    build, seed, day_files, each = job
    folder = fresh(f"job {seed}")
    os.chdir(folder)
    kills = Kills(build, seed)
    try:
        kills.run_parts([lambda: kills.taps(each), lambda: kills.hosts(each), lambda: kills.records(each),
                         lambda: kills.readers(each), lambda: kills.register_users(each),
                         lambda: kills.day_files(day_files)])
    finally:
        kills.close()
    os.chdir("..")
    if kills.findings == 0:
        shutil.rmtree(folder)
    return kills.figures, kills.findings


def main():
    if len(sys.argv) not in (5, 6):
        sys.exit(__doc__)
    seed, day_files, each, jobs = map(int, sys.argv[2:] + ["1"] * (6 - len(sys.argv)))

    def share(number, job):
        return number * (job + 1) // jobs - number * job // jobs

    build = os.path.abspath(sys.argv[1])
    sys.exit(run_all([(build, seed + job, share(day_files, job), share(each, job)) for job in range(jobs)], work))


if __name__ == "__main__":
    main()
