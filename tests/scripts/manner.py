#!/usr/bin/env python3
"""All programs and subcommands have one manner: docs/commands.md.

    manner.py SOURCES PROGRAM_DIRECTORY DAY_FILES_LIBRARY VERSION

Walks the programs by their --help. A command with --json or --color needs a command line in EXAMPLES.
"""

import json
import os
import pathlib
import pty
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import threading
import time

sources, programs, day_files_library = map(pathlib.Path, sys.argv[1:4])
version = sys.argv[4]
PROGRAMS = ("vexo", "vexo-simcard", "vexo-cardtest", "quote_printer")
STATUSES = {"0", "1", "2", "3", "4", "126", "127", "else"}

NATS_SERVER = shutil.which("nats-server", path=f"{os.environ['PATH']}:/usr/sbin")
SERVER = "SERVER"  # in a command line: the address of the test's own server
QUOTES = ["quote_printer", "demo.ini", "--seconds", "1"]
COUNTED = "PID"  # stands for the process whose page was kept
# The command line that shows a result, its exit status, and where --json writes one object a line: on standard output,
# or those lines of standard error that begin as given. In the examples' directory there are a configuration with a
# mistake, a day log, a day file with a mistake, a list of instruments and a capture.
EXAMPLES = {
    "vexo check": (["--config-only", "bad.ini"], 1, None),
    "vexo index": (["day-file"], 1, None),
    "vexo info": (["a capture"], 0, None),
    "vexo plan": (["demo.ini", "--instruments", "list"], 1, None),
    "vexo log": (["day.log"], 0, ""),
    "vexo relay": (["--channel", "3", "--to", SERVER, "--seconds", "0.1"], 0, None),
    "vexo report": (["--list", "demo.ini"], 0, None),
    "vexo run": (["demo.ini", "--", *QUOTES], 0, ""),
    "vexo stat": (["--dir", "pages"], 0, ""),
    "vexo watch": (["--dir", "pages", "--pid", COUNTED], 0, ""),
    "vexo tap": (["--output", "a.pcapng", "--", *QUOTES], 0, '{"tap":'),
    "vexo-simcard": (["--status"], 0, None),
    "vexo-cardtest": (["--only", "filter-create", "core-root"], 0, None),
    "quote_printer": (QUOTES[1:], 0, ""),
}
problems = []


def expect(right, *what):
    if not right:
        problems.append(" ".join(str(part) for part in what))


def capture():
    """A capture with one packet."""
    def block(kind, content):
        return struct.pack("<II", kind, len(content) + 12) + content + struct.pack("<I", len(content) + 12)
    return (block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1)) + block(1, struct.pack("<HHI", 147, 0, 0)) +
            block(6, struct.pack("<IIIII", 0, 0, 1, 4, 4) + bytes(4)))


class Place:
    """A directory with something for each command to show, and a hosted card at bus 0."""

    def __init__(self, work):
        self.work = work
        (work / "cards").mkdir(mode=0o700)
        (work / "day-files").mkdir()
        (work / "bad.ini").write_text("[config]\ndevise = xilinx0:0\n")
        (work / "day.log").write_text("[ERROR  ][20261115-09:00:00][fpga]Init dma fail!\n  and more\n")
        (work / "list").write_text("SR701\nSR705 40\n")
        (work / "day-file").write_text("inst_index,inst_id\n0,SR705\n")
        (work / "a capture").write_bytes(capture())
        shutil.copy(sources / "examples/demo.ini", work)
        shutil.copy(day_files_library, work / "preload.so")  # LD_PRELOAD takes no path with a blank
        self.environment = {name: value for name, value in os.environ.items()
                            if not name.startswith("VEXO_") and name not in ("NO_COLOR", "TERM")}
        self.environment |= {"PATH": f"{programs}:{os.environ['PATH']}", "VEXO_SIM_DIR": str(work / "cards"),
                             "LD_PRELOAD": str(work / "preload.so"), "VEXO_TEST_DAY_FILES": str(work / "day-files"),
                             "VEXO_SIM_CARD": "embedded"}
        counted = self.run(["vexo", "tap", "--stats-only", "--keep-page", "--", *QUOTES], VEXO_STATS_DIR="pages")
        expect(counted.returncode == 0, "vexo tap --stats-only ended with", counted.returncode, counted.stderr)
        self.counted = next((page.name.split(".")[0] for page in work.glob("pages/*.tap.page")), "0")

    def run(self, words, **environment):
        return subprocess.run([str(programs / words[0]), *words[1:]], cwd=self.work, text=True, check=False,
                              stdin=subprocess.DEVNULL, capture_output=True, env=self.environment | environment)

    def run_shell(self, command, words):
        return subprocess.run(["sh", "-c", command, "sh", str(programs / words[0]), *words[1:]], cwd=self.work, text=True,
                              check=False, stdin=subprocess.DEVNULL, capture_output=True, env=self.environment)

    def on_terminal(self, words, stream, **environment):
        """What the command writes to a terminal that is its standard output or error."""
        ours, theirs = pty.openpty()
        other = "stderr" if stream == "stdout" else "stdout"
        process = subprocess.Popen([str(programs / words[0]), *words[1:]], cwd=self.work, stdin=subprocess.DEVNULL,
                                   env=self.environment | environment, **{stream: theirs, other: subprocess.DEVNULL})
        os.close(theirs)
        parts = []

        def read():
            try:
                while part := os.read(ours, 65536):
                    parts.append(part)
            except OSError:
                pass  # the other end is closed

        reader = threading.Thread(target=read)
        reader.start()
        process.wait()
        reader.join()
        os.close(ours)
        return b"".join(parts).decode(errors="replace")

    def server(self):
        """Starts a message server on a free port and puts its address into the command lines."""
        ports = self.work / "ports"
        ports.mkdir()
        command = [NATS_SERVER, "--addr", "127.0.0.1", "--port", "-1", "--ports_file_dir", str(ports)]
        server = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        while not (urls := [json.loads(text)["nats"][0] for file in ports.iterdir() if "}" in (text := file.read_text())]):
            if server.poll() is not None:
                sys.exit(f"no message server: it ended with status {server.returncode}")
            time.sleep(0.01)
        for name, (words, status, lines) in EXAMPLES.items():
            EXAMPLES[name] = ([urls[0] if word == SERVER else word for word in words], status, lines)
        return server

    def host(self):
        host = subprocess.Popen([str(programs / "vexo-simcard"), "--quiet"], cwd=self.work, env=self.environment)
        while self.run(["vexo-simcard", "--status"]).returncode != 0:
            if host.poll() is not None:
                sys.exit(f"no hosted card: the host ended with status {host.returncode}")
        return host


def commands_below(place, path):
    """Yields (words, help) of a program and all its subcommands."""
    result = place.run([*path, "--help"])
    name = " ".join(path)
    expect(result.returncode == 0, name, "--help ended with", result.returncode)
    expect(result.stdout and not result.stderr, name, "--help is not on standard output alone:", result.stderr)
    yield path, result.stdout
    below = re.search(r"^Subcommands:\n((?: {2}.*\n)*)", result.stdout, re.M)
    for line in re.findall(r"^ {2}(\S+)", below.group(1), re.M) if below else []:
        yield from commands_below(place, [*path, line])


def options_of(text):
    return set(re.findall(r"(?<![\w-])--[a-z][a-z-]*", text.partition("Options:")[2]))


def statuses_of(text):
    table = re.search(r"^Exit status:\n((?: {2}\S.*\n)*)", text, re.M)
    return re.findall(r"^ {2}(\w+) ", table.group(1), re.M) if table else []


def check_basics(place, path, text):
    name = " ".join(path)
    expect({"--help", "--version"} <= options_of(text), name, "--help does not tell of --help and --version")
    shown = place.run([*path, "--version"])
    expect(shown.returncode == 0 and not shown.stderr, name, "--version ended with", shown.returncode, shown.stderr)
    expect(re.fullmatch(rf"{path[0]} {re.escape(version)}(\.\d+)?\n", shown.stdout), name, "--version shows", shown.stdout)
    wrong = place.run([*path, "--nonsense"])
    expect(wrong.returncode == 2, name, "--nonsense ended with", wrong.returncode)
    expect(not wrong.stdout, name, "--nonsense is told on standard output:", wrong.stdout)
    expect("--nonsense" in wrong.stderr and f"See {name} --help" in wrong.stderr, name, "--nonsense says", wrong.stderr)
    expect(wrong.stderr.startswith(f"{path[0]}: "), name, "--nonsense does not begin with the program:", wrong.stderr)
    for redirection, cause in ((">/dev/full", "No space left on device"), (">&-", "it is closed")):
        lost = place.run_shell(f'exec "$@" --help {redirection}', path)
        expect(lost.returncode == 1, name, "--help", redirection, "ended with", lost.returncode)
        expect(lost.stderr == f"{path[0]}: standard output: {cause}\n", name, "--help", redirection, "says", lost.stderr)
    short = place.run([*path, "--versio"])
    expect(short.returncode == 2 and "--versio" in short.stderr, name, "takes --versio for --version")
    expect(all(len(line) < 130 for line in text.splitlines()), name, "--help has a line that nobody reads")


def check_statuses(path, text, page):
    if "Subcommands:" in text and len(path) > 1:
        return  # a group does nothing itself
    statuses = statuses_of(text)
    name = " ".join(path)
    expect(statuses and set(statuses) <= STATUSES, name, "has these exit statuses in its help:", statuses)
    unknown = set(statuses) - {"else"} - set(re.findall(r"^\| (\d+) \|", page, re.M))
    expect(not unknown, name, "has exit statuses that are not in docs/commands.md:", unknown)


def check_json(place, name, words, status, lines):
    result = place.run(words + ["--json"] if "--" not in words else words[:2] + ["--json"] + words[2:])
    expect(result.returncode == status, name, "--json ended with", result.returncode, result.stderr)
    found = result.stdout if not lines else "".join(
        line for line in result.stderr.splitlines(True) if line.startswith(lines))
    try:
        objects = [json.loads(found)] if lines is None else [json.loads(line) for line in found.splitlines()]
        expect(objects and all(isinstance(one, (dict, list)) for one in objects), name, "--json shows no object")
    except ValueError as error:
        problems.append(f"{name} --json is no JSON: {error}: {found[:400]}")
    expect("\033" not in found, name, "--json has colours")


def check_color(place, name, words, status):
    escape = "\033["
    for option, environment, colored in (([], {}, False), (["--color", "always"], {}, True),
                                         (["--color=always"], {"NO_COLOR": "1", "TERM": "dumb"}, True),
                                         (["--color", "auto"], {"TERM": "xterm"}, False)):
        result = place.run(words + option, **environment)
        expect(result.returncode == status, name, *option, "ended with", result.returncode, result.stderr)
        expect((escape in result.stdout) == colored, name, *option, environment, "in a pipe:", repr(result.stdout[:400]))
    wrong = place.run(words + ["--color", "red"])
    expect(wrong.returncode == 2 and "--color" in wrong.stderr, name, "--color red:", wrong.returncode, wrong.stderr)
    for option, environment, colored in (([], {"TERM": "xterm"}, True), ([], {"TERM": "dumb"}, False), ([], {}, False),
                                         ([], {"TERM": "xterm", "NO_COLOR": "1"}, False),
                                         (["--color", "never"], {"TERM": "xterm"}, False)):
        shown = place.on_terminal(words + option, "stdout", **environment)
        expect((escape in shown) == colored, name, *option, environment, "on a terminal:", repr(shown[:400]))


def check_command(place, path, text, page):
    name, options = " ".join(path), options_of(text)
    check_basics(place, path, text)
    check_statuses(path, text, page)
    if "Subcommands:" in text:
        return
    has = {option: option in options for option in ("--json", "--color")}
    row = f"| `{name}` | {'yes' if has['--json'] else 'no'} | {'yes' if has['--color'] else 'no'} |"
    expect(row in page, f"docs/commands.md has no row: {row}")
    if not any(has.values()):
        return
    if name in EXAMPLES and SERVER in EXAMPLES[name][0]:
        print(f"{name} is left out: nats-server is not installed")
        return
    if name not in EXAMPLES:
        problems.append(f"{name} has --json or --color: give tests/scripts/manner.py a command line that shows a result")
        return
    words, status, lines = EXAMPLES[name]
    words = [place.counted if word == COUNTED else word for word in words]
    if has["--json"]:
        check_json(place, name, [*path, *words], status, lines)
    if has["--color"]:
        check_color(place, name, [*path, *words], status)


def check_progress(place):
    """A check that waits for packets, on a card that has none, says so on a terminal."""
    words = ["vexo-cardtest", "--json", "--seconds", "4", "--only", "a2c-packets"]
    quiet = {"VEXO_SIM_SET": "quotes.per_second=0"}
    shown = place.on_terminal(words, "stderr", TERM="xterm", **quiet)
    expect(re.search(r"checking a2c-packets, \d+ s", shown), "no progress on a terminal:", repr(shown))
    expect(shown.endswith("\r\033[K"), "the line of progress stays:", repr(shown))
    shown = place.on_terminal(words, "stderr", TERM="dumb", **quiet)
    expect("checking" not in shown, "progress on a terminal that cannot:", repr(shown))
    expect("checking" not in place.run(words, TERM="xterm", **quiet).stderr, "progress without a terminal")


def check_without_card(place):
    nowhere = {"VEXO_SIM_DIR": str(place.work / "none"), "VEXO_SIM_CARD": "hosted"}
    for words in (["vexo-simcard", "--status"], ["vexo-simcard", "--json"], ["vexo-cardtest"], ["vexo-cardtest", "--json"]):
        result = place.run(words, **nowhere)
        expect(result.returncode == 3, *words, "without a card ended with", result.returncode)
        expect(result.stderr.startswith(words[0] + ": ") or f"\n{words[0]}: " in result.stderr, *words, "says", result.stderr)


def main():
    page = (sources / "docs/commands.md").read_text()
    with tempfile.TemporaryDirectory() as name:
        place = Place(pathlib.Path(name))
        running = [place.host(), *([place.server()] if NATS_SERVER else [])]
        try:
            for program in PROGRAMS:
                for path, text in commands_below(place, [program]):
                    check_command(place, path, text, page)
            check_progress(place)
            check_without_card(place)
        finally:
            for process in running:
                process.terminate()
                process.wait()
    print("\n".join(problems), end="\n" if problems else "")
    return 1 if problems else 0


sys.exit(main())
