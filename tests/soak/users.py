#!/usr/bin/env python3
"""users.py BUILD SEED STOPS     several users on one machine

What other users, containers and versions can do to a card, a day file, a log and a capture, and STOPS processes that are
stopped in an access. Ends with one line of figures; status 1 when something was found. Parts that need root, or a
kernel's leave, are skipped, and the last line says so.
"""

import errno
import glob
import json
import os
import shutil
import signal
import stat
import subprocess
import sys
import tempfile

from attack import Attack, Build, read, run_all
from kills import INI, END_TAG

KINDS = ["file", "symbolic link", "link to nothing", "FIFO", "hard link", "directory", "huge file"]
HUGE = 1 << 40


class Squatter:
    """Something of another user in the place of a file."""

    def __init__(self, kind, path, precious, owner):
        self.kind, self.path, self.precious = kind, path, precious
        with open(precious, "w", encoding="ascii") as file:
            file.write("precious\n")
        if kind == "file":
            with open(path, "wb") as file:
                file.write(b"inst_index,inst_id\n1,SR505\n" + END_TAG)
        elif kind == "symbolic link":
            os.symlink(precious, path)
        elif kind == "link to nothing":
            os.symlink(precious + ".not", path)
        elif kind == "FIFO":
            os.mkfifo(path)
        elif kind == "hard link":
            os.link(precious, path)
        elif kind == "directory":
            os.mkdir(path)
        else:
            with open(path, "wb") as file:
                file.truncate(HUGE)
        if owner is not None and kind != "hard link":
            os.chown(path, owner, owner, follow_symlinks=False)
        self.before = self.state()

    def state(self):
        status = os.lstat(self.path)
        return (status.st_ino, stat.S_IFMT(status.st_mode), status.st_size, status.st_uid, read(self.precious),
                os.path.exists(self.precious + ".not"))

    def is_untouched(self):
        return self.state() == self.before

    def remove(self):
        shutil.rmtree(self.path) if self.kind == "directory" else os.unlink(self.path)


class Users(Attack):
    def __init__(self, build, seed):
        super().__init__(seed)
        self.build = Build(build)
        self.skipped = []
        self.is_root = os.geteuid() == 0
        self.alice = 200000 + os.getpid() % 50000 * 2
        self.bob = self.alice + 1
        # Other users must be able to reach the programs.
        self.own_day_files = shutil.copy(self.build.own_day_files, self.place)
        for program in (self.build.simcard, self.build.card_user):
            shutil.copy(program, self.place)
        shutil.copy(self.build.card_library + "/libenyx-hw-c.so.1", self.place)

    def close(self):
        super().close()
        for user in (self.alice, self.bob):
            for left in glob.glob(f"/dev/shm/vexo-simcard-{user}*"):
                shutil.rmtree(left) if os.path.isdir(left) and not os.path.islink(left) else os.unlink(left)

    def own_cards(self):
        folder = tempfile.mkdtemp(prefix="cards.", dir=self.place)
        return {"VEXO_SIM_CARD": "hosted", "VEXO_SIM_DIR": folder}, folder

    def run(self, command, environment):
        """The exit status of a program and what it wrote; 124 when it does not end."""
        try:
            done = subprocess.run(command, env={**os.environ, **environment}, stdin=subprocess.DEVNULL, timeout=120,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
            return done.returncode, done.stdout.decode(errors="replace")
        except subprocess.TimeoutExpired:
            return 124, "does not end"

    def expect(self, holds, what):
        self.checks = getattr(self, "checks", 0) + 1
        if not holds:
            self.find(what)

    # ---- users and groups

    def as_user(self, uid, group, program, *arguments):
        groups = ["--groups", group] if group else ["--clear-groups"]
        return ["setpriv", "--reuid", str(uid), "--regid", str(uid), *groups, "env",
                f"LD_LIBRARY_PATH={self.place}", f"{self.place}/{program}", *arguments]

    def host_of_alice(self, *options):
        log = f"{self.place}/host.log"
        open(log, "w", encoding="ascii").close()
        host = self.start(self.as_user(self.alice, "users", "vexo-simcard", "--quiet", *options), output=log)
        found = self.until(lambda: self.write_as(self.alice, "users", "hosted")[0] == 0, host)
        return host, found, read(log).decode()

    def write_as(self, uid, group, card):
        return self.run(self.as_user(uid, group, "card_user", "write", "262", "20310305"), {"VEXO_SIM_CARD": card})

    def two_users(self):
        if not self.is_root:
            return self.skipped.append("two users (only root can become another user)")
        host, found, log = self.host_of_alice()
        self.expect(found, f"a user cannot host a card: {log}")
        self.expect(self.write_as(self.bob, "users", f"hosted:{self.alice}")[0] == errno.ENODEV,
                    "a card that is not shared is used by another user")
        self.expect(self.write_as(self.bob, "users", "auto")[0] == 0, "another user's card stops a card of one's own")
        self.kill(host)
        host, found, log = self.host_of_alice("--group", "users")
        self.expect(found, f"a user cannot share a card: {log}")
        for group, card, status in (("users", f"hosted:{self.alice}", 0), (None, f"hosted:{self.alice}", errno.ENODEV),
                                    ("users", "hosted", errno.ENODEV)):
            result = self.write_as(self.bob, group, card)
            self.expect(result[0] == status, f"a shared card, group {group}, {card}: {result}")
        self.kill(host)
        for kind in KINDS:
            for suffix, options in (("", ()), (f"-g{self.group_id()}", ("--group", "users"))):
                self.squatted_directory(kind, f"/dev/shm/vexo-simcard-{self.alice}{suffix}", options)

    def group_id(self):
        return self.run(["getent", "group", "users"], {})[1].split(":")[2]

    def squatted_directory(self, kind, path, options):
        for left in glob.glob(f"/dev/shm/vexo-simcard-{self.alice}*"):
            shutil.rmtree(left)
        squatter = Squatter(kind, path, f"/dev/shm/vexo-precious-{self.alice}", self.bob)
        host, found, log = self.host_of_alice(*options)
        self.expect(found and path in log, f"a {kind} of another user at {path} stops a host or is not named: {log}")
        self.expect(squatter.is_untouched(), f"a {kind} of another user at {path} was changed")
        self.kill(host)
        squatter.remove()
        os.unlink(squatter.precious)

    # ---- squatted names

    def squatted_cards(self):
        for kind in KINDS:
            environment, folder = self.own_cards()
            path = f"{folder}/vexo-simcard-{os.geteuid()}-0"
            squatter = Squatter(kind, path, folder + "/precious", self.bob if self.is_root else None)
            status, text = self.run([self.build.simcard, "--quiet", "--seconds", "1"], environment)
            self.expect(status == 1 and path in text, f"a {kind} in the place of a card: status {status}: {text}")
            self.expect(squatter.is_untouched(), f"a {kind} in the place of a card was changed")
            status, text = self.run([self.build.card_user, "write", "262", "1"], environment)
            self.expect(status == errno.ENODEV, f"a {kind} in the place of a card is used: {status} {text}")

    def receive(self, folder, what, squatter):
        """A program on the library starts, receives quotes and ends with one signal."""
        process = self.start([self.build.quote_recorder, folder, "zce.ini", "quotes"],
                             {"VEXO_SIM_CARD": "embedded", "TZ": "Asia/Shanghai", "VEXO_TEST_DAY_FILES": folder,
                              "VEXO_SIM_SET": "card.learning_ms=1\ncard.map_round_ms=5",
                              "LD_PRELOAD": self.own_day_files}, folder, folder + "/out")
        received = self.until(lambda: len(read(folder + "/quotes")) > 0, process)
        self.kill(process, signal.SIGTERM)
        out = read(folder + "/out").decode(errors="replace")
        self.expect(received and process.returncode == 0, f"{what}: no quotes, or status {process.returncode}: {out[-900:]}")
        self.expect("is not used, " in out, f"{what}: no reason in the log: {out[:900]}")
        self.expect(squatter.is_untouched(), f"{what}: it was changed")

    def squatted_day_files(self):
        for kind in KINDS:
            folder = tempfile.mkdtemp(prefix="day.", dir=self.place)
            with open(folder + "/zce.ini", "w", encoding="ascii") as ini:
                ini.write(INI)
            squatter = Squatter(kind, folder + "/.zce_20310408_am", folder + "/precious",
                                self.bob if self.is_root else None)
            if not self.is_root and kind in ("file", "huge file"):
                continue  # it is the user's own
            if kind in ("file", "huge file"):
                # Root may write into another user's file. It loads nothing from it.
                squatter.is_untouched = lambda path=squatter.path: os.lstat(path).st_uid == self.bob
            self.receive(folder, f"a {kind} in the place of the day file", squatter)

    def squatted_logs(self):
        """A start never waits for them. It ends with the reason."""
        for kind in ("FIFO", "directory"):
            folder = tempfile.mkdtemp(prefix="log.", dir=self.place)
            with open(folder + "/zce.ini", "w", encoding="ascii") as ini:
                ini.write(INI)
            squatter = Squatter(kind, folder + "/fpga_20310408.log", folder + "/precious",
                                self.bob if self.is_root else None)
            process = self.start([self.build.quote_recorder, folder, "zce.ini", "quotes"],
                                 {"VEXO_SIM_CARD": "embedded"}, folder, folder + "/out")
            self.until(lambda: False, process)
            out = read(folder + "/out").decode(errors="replace")
            self.expect(process.poll() == 3 and "Create file .//fpga_20310408.log fail, errmsg:" in out,
                        f"a {kind} in the place of the log: status {process.poll()}: {out[:900]}")
            self.expect(squatter.is_untouched(), f"a {kind} in the place of the log was changed")

    def squatted_captures(self):
        for kind in KINDS:
            environment, folder = self.own_cards()
            squatter = Squatter(kind, folder + "/c.pcapng", folder + "/precious", self.bob if self.is_root else None)
            tap = [self.build.vexo, "tap", "--output", squatter.path, "--", self.build.card_user, "quotes", "100"]
            on_own = {"VEXO_SIM_CARD": "embedded", "LD_LIBRARY_PATH": self.build.card_library}
            host = [self.build.simcard, "--quiet", "--seconds", "1", "--record", squatter.path]
            for name, command, where in (("tap", tap, on_own), ("record", host, environment)):
                status, text = self.run(command, where)
                other = folder + "/c.1.pcapng"
                refused = kind == "directory" and status == 2
                self.expect(refused or (status == 0 and len(read(other)) > 0),
                            f"a {kind} in the place of a {name}: status {status}: {text}")
                self.expect(squatter.is_untouched(), f"a {kind} in the place of a {name} was changed")
                if os.path.exists(other):
                    os.unlink(other)

    # ---- one card for many

    def start_host(self, environment, *options):
        host = self.start([self.build.simcard, "--quiet", *options], environment, output=self.place + "/host.err")
        self.until(lambda: self.run([self.build.simcard, "--json"], environment)[0] == 0, host)
        return host

    def status(self, environment, errors=os.devnull):
        with open(errors, "ab") as sink:
            shown = subprocess.run([self.build.simcard, "--json"], env={**os.environ, **environment},
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=sink, check=True).stdout
        return json.loads(shown)

    def seventeenth(self):
        environment, _ = self.own_cards()
        host = self.start_host(environment)
        holders = [self.start([self.build.card_user, "hold", str(channel)], environment) for channel in range(16)]
        self.until(lambda: all(one["open"] for one in self.status(environment)["channels"]), host)
        for channel in range(16):
            status, text = self.run([self.build.card_user, "hold", str(channel)], environment)
            named = f"CUSTOM_CHAN{channel}_DATA of the simulated card at bus 0 is held by process {holders[channel].pid} ("
            self.expect(status == errno.EBUSY or named in text, f"the 17th process on channel {channel}: {status} {text}")
            self.expect(named in text, f"the holder of channel {channel} is not named: {text}")
        for process in holders + [host]:
            self.kill(process)

    def namespaces(self):
        alone = ["unshare", "--pid", "--fork", "--kill-child"]
        if self.run(alone + ["/bin/true"], {})[0] != 0:
            return self.skipped.append("two pid namespaces (none may be made here)")
        environment, _ = self.own_cards()
        host = self.start_host(environment)
        for _ in range(5):
            first, second = [self.start(alone + [self.build.card_user, "take-turns", "2000"], environment)
                             for _ in range(2)]
            self.expect((first.wait(), second.wait()) == (0, 0), "users of two containers disturb each other")
            self.started.remove(first)
            self.started.remove(second)
            killed = self.start(alone + [self.build.card_user, "take-turns", "1000000000"], environment)
            self.pause(0.2)
            self.kill(killed)
            self.expect(self.run([self.build.card_user, "take-turns", "10"], environment)[0] == 0,
                        "a user that was killed in a container leaves a lock")
        self.kill(host)

    def versions(self):
        environment, folder = self.own_cards()
        host = self.start_host(environment)
        card = f"{folder}/vexo-simcard-{os.geteuid()}-0"
        with open(card, "r+b") as file:
            file.seek(8)
            file.write((99).to_bytes(4, "little"))
        status, text = self.run([self.build.card_user, "write", "262", "1"], environment)
        self.expect(status == errno.ENODEV and "layout 99" in text and "this program's has layout" in text,
                    f"a card of another version: {status} {text}")
        status, text = self.run([self.build.simcard, "--quiet", "--seconds", "1"], environment)
        self.expect(status == 1 and f"process {host.pid} (" in text and "layout 99" in text,
                    f"a host beside one of another version: {status} {text}")
        self.kill(host)

    # ---- processes that are stopped

    def stops(self, count):
        environment, folder = self.own_cards()
        host = self.start_host(environment)
        # Whoever takes a lock over tells of it, also the reader and who asks for the status.
        errors = folder + "/errors"
        reader = self.start([self.build.card_user, "quotes", "1000000000"], environment, output=errors)
        counts = [f"{folder}/count{user}" for user in range(3)]
        users = []
        for path in counts:
            open(path, "w", encoding="ascii").close()
            users.append(self.start([self.build.card_user, "go-on", path], environment, output=errors))

        def goes_on(user):
            before = os.path.getsize(counts[user])
            return self.until(lambda: os.path.getsize(counts[user]) > before, users[user])

        def sends():
            before = self.status(environment, errors)["channels"][0]["packets"]
            return self.until(lambda: self.status(environment, errors)["channels"][0]["packets"] > before, host)

        self.expect(all(goes_on(user) for user in range(3)) and sends(), "users of registers do not start")
        def lost():
            return sum(read(path).count(b"C") for path in counts)

        done = 0
        while lost() < count and not self.is_over():
            stopped = self.random.randrange(3)
            self.pause(0.05)
            users[stopped].send_signal(signal.SIGSTOP)
            others = [goes_on(user) for user in range(3) if user != stopped]
            self.expect(all(others), f"stop {done}: the others do not go on: {others}")
            self.expect(sends(), f"stop {done}: the card sends nothing")
            users[stopped].send_signal(signal.SIGCONT)
            self.expect(goes_on(stopped), f"stop {done}: the stopped process does not go on: {users[stopped].poll()}")
            done += 1

        def told():
            """Lines of those who lost a lock, and lines of those who took it."""
            lines = read(errors) + read(self.place + "/host.err")
            return (lines.count(b"this process was stopped"),
                    lines.count(b"was stopped while it held") + lines.count(b"does not go on: was it stopped?"))

        # One turn may lose both of its locks. Who took one over goes on first and tells of it then.
        self.expect(self.until(lambda: lost() <= told()[0] <= told()[1], host),
                    f"{lost()} accesses failed; lines of those who lost a lock and of those who took it: {told()}")
        for process in users + [reader, host]:
            self.expect(process.poll() is None, f"a process ended by itself with {process.poll()}")
            self.kill(process)
        self.count(stops=done, stops_in_an_access=lost(), lines_that_name_the_stopped=told()[1])


def work(job):
    build, seed, stops = job
    users = Users(build, seed)
    try:
        if stops is None:
            users.run_parts([users.two_users, users.squatted_cards, users.squatted_day_files, users.squatted_logs,
                             users.squatted_captures, users.seventeenth, users.namespaces, users.versions])
            for part in users.skipped:
                print(f"skipped: {part}")
                users.count(**{"skipped_" + part.split(" (")[0].replace(" ", "_"): 1})
        else:
            users.run_parts([lambda: users.stops(stops)])
        users.count(checks=getattr(users, "checks", 0))
    finally:
        users.close()
    return users.figures, users.findings


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    build, seed, stops = os.path.abspath(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3])
    sys.exit(run_all([(build, seed, None), (build, seed + 1, stops - stops // 2), (build, seed + 2, stops // 2)], work))


if __name__ == "__main__":
    main()
