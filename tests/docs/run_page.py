#!/usr/bin/env python3
"""Types the commands of a page, literally and in their order, and fails for the first one that does not work.

    run_page.py PAGE --sources DIR --build DIR --preload LIBRARY
    run_page.py PAGE --sources DIR --count                          prints how many commands it would type

A command is a line of an indented block, or of a block fenced as `sh`. A fenced block that names a file (```ini card.ini)
is written to that file. Commands start at the top of a copy of the sources, whose build/release is the build under
test, with a home directory and day files of their own. not_run.txt lists the lines that are not typed, with the reasons.
"""
import argparse
import os
import pathlib
import re
import shlex
import shutil
import socket
import subprocess
import sys
import tempfile

HERE = pathlib.Path(__file__).resolve().parent

# A start-up that fails ends a program with status 0, and a filter may find nothing: what a command has to print.
EXPECTED_OUTPUT = [
    (r"^vexo run", r"ended in order"),
    (r"^quote_printer|-- quote_printer", r"received [1-9][0-9]* quotes"),
    (r"^tshark ", r"[^ ]"),
    (r"^vexo-simcard --status", r"learned [0-9]"),
    (r"^vexo-cardtest(?! --(json|version))", r"[0-9]+ pass"),
    (r"^vexo check --config-only", r"no findings"),
    (r"^vexo stat$", r"[1-9][0-9,]* idle, 0 failed"),
    (r"^vexo stat --loss", r"^quote_printer [0-9]+ +0 +0 +[1-9]"),
    (r"vexo watch .*--json", r'"kind":"summary"'),
    (r"vexo watch demo.ini", r"^busiest instruments, of [1-9]"),
    (r"^vexo relay --beside", r"^[1-9][0-9]* packets of the stream: [1-9]"),
    (r"^vexo stat --json", r'"before_card":[0-9]'),
    (r"^vexo check --keys", r"BIN_DELAY_TIME"),
    (r"^vexo index$", r"complete: +yes"),
    (r"^vexo log --level", r"WARN"),
    (r"^vexo log --explain", r"what to do"),
    (r"^vexo plan .*--against", r"^    \+ MA[0-9]"),
    (r"^vexo plan .*second.ini", r"channel 1, the program of second.ini: [1-9]"),
    (r"^vexo plan .*list ", r"^old.ini:[0-9]+: error: .* CF matches none"),
    (r"^vexo plan ", r"^no findings"),
]
# Programs that run until they are stopped, and how one sees that they work. "$log" has their output. One that learns
# the contract map without a delay has also ended its day file, which the commands behind it may look at.
RECEIVES = ("{ grep -q '^[1-9][0-9]* quotes' \"$log\" && "
            "{ ! grep -q 'm_binDelayTime is 0$' \"$log\" || grep -q ' bin file is success' \"$log\"; }; }")
UNTIL_STOPPED = [
    (r"^vexo-simcard(?! --(status|json|help|version))", "vexo-simcard --json >/dev/null 2>&1"),
    (r"^vexo sim run (--shared-day-file )?-- \./app", RECEIVES),
    (r"^vexo sim run --hosted -- \.\.?/app", "grep -q '^[1-9][0-9]* quotes' \"$log\""),
    (r"^nats-server ", "(: </dev/tcp/127.0.0.1/4222) 2>/dev/null"),
    (r" vexo tap --share ", "grep -q '^quote ' \"$log\""),
    (r" vexo relay ", "grep -q '^vexo relay: ' \"$log\""),
]
# What goes on while others are typed, in other terminals: a hosted card and its users. A program with a card of its own
# is ended as soon as it works, as Ctrl-C ends it for a reader.
GOES_ON = r"^nats-server |^vexo-simcard| --hosted "
BESIDE = r"^nats-server | --hosted "
# A program that ends with status 1 when it is asked to end; the others end with 0.
ENDS_WITH_ONE = r"^nats-server "
# The port that a page shows for a message server. Another server may have it, so the test takes a free one.
PORT_ON_PAGES = "4222"

PRELUDE = """\
set -euo pipefail
background=() logs=() ends=()
# Ends what runs in the background, the last one first.
stop() {
    local n status
    for ((n = ${#background[@]} - 1; n >= 0; --n)); do
        kill "${background[n]}"
        status=0
        wait "${background[n]}" || status=$?
        [ "$status" -eq "${ends[n]}" ] ||
            { echo "the program in the background ended with status $status"; cat "${logs[n]}"; exit 1; }
        unset "background[n]" "logs[n]" "ends[n]"
    done
}
trap 'for process in "${background[@]}"; do kill "$process" || true; done' EXIT
"""


def blocks(text):
    """Yields (line number, kind, lines): kind is "sh" for commands, "file NAME", or the fence's language."""
    fence, lines, start, previous_blank = None, [], 0, True
    for number, line in enumerate(text.split("\n") + [""], 1):
        if fence is not None:
            if line == "```":
                yield start, fence, lines
                fence, lines = None, []
            else:
                lines.append(line)
            continue
        if line.startswith("    ") and (lines or previous_blank):
            start = start if lines else number
            lines.append(line[4:])
        else:
            if lines:
                yield start, "sh", lines
            lines = []
            if line.startswith("```"):
                words = line[3:].split()
                fence, start = "file " + words[1] if len(words) > 1 else "".join(words), number + 1
        previous_blank = not line.strip()


def commands(number, lines):
    """Yields (line number, command) with continued lines joined."""
    command = ""
    for offset, line in enumerate(lines):
        if not command:
            start = number + offset
        command += line
        if command.endswith("\\"):
            command += "\n"
            continue
        if command.strip():
            yield start, command
        command = ""


def not_run():
    """The lines that are not typed: {(page, line's text)}; * stands for any page."""
    found = {}
    for line in (HERE / "not_run.txt").read_text().splitlines():
        if line and not line.startswith("#"):
            page, command, reason = (part.strip() for part in line.split(" | "))
            if not reason:
                sys.exit(f"not_run.txt: no reason: {line}")
            found[page, command] = False
    return found


def bare(command):
    return re.sub(r"\s+#.*", "", command).strip()


def matching(table, command):
    return next((value for pattern, value in table if re.search(pattern, command, re.S)), None)


def script(page, text, skipped):
    """The page as one bash script, whose every step says where it is."""
    out = [PRELUDE]
    typed = 0
    for number, kind, lines in blocks(text):
        if kind.startswith("file "):
            body = "\n".join(lines) + "\n"
            out.append(f"printf %s {shlex.quote(body)} >{shlex.quote(kind[5:])}\n")
        if kind != "sh":
            continue
        for line, command in commands(number, lines):
            key = next((k for k in ((page, bare(command)), ("*", bare(command))) if k in skipped), None)
            if key:
                skipped[key] = True
                continue
            typed += 1
            out.append(f"echo {shlex.quote(f'--- {page}:{line}: {command}')}\n")
            ready = matching(UNTIL_STOPPED, command)
            expected = matching(EXPECTED_OUTPUT, command)
            if ready:
                out.append(("" if re.search(BESIDE, command) else "stop\n") +
                           f"log=$(mktemp -p \"$HOME\")\n( exec {bare(command)} ) >\"$log\" 2>&1 &\n"
                           f"background+=($!) logs+=(\"$log\") ends+=({1 if re.search(ENDS_WITH_ONE, command) else 0})\n"
                           f"until {ready}; do\n"
                           f"    kill -0 ${{background[-1]}} 2>/dev/null || {{ cat \"$log\"; exit 1; }}\n"
                           f"    sleep 0.1\ndone\n" + ("" if re.search(GOES_ON, command) else "stop\n"))
            elif expected:
                out.append(f"{{ {command}\n}} >output.log 2>&1 || {{ status=$?; cat output.log; exit $status; }}\n"
                           f"grep -qE {shlex.quote(expected)} output.log ||\n"
                           f"    {{ cat output.log; echo 'not shown: '{shlex.quote(expected)}; exit 1; }}\n")
            else:
                out.append(command + "\n")
    out.append("stop\necho 'all commands work'\n")
    return typed, "".join(out)


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


def sandbox(work, sources, build):
    top = work / "project"
    top.mkdir()
    for entry in sources.iterdir():
        if entry.name not in ("build", "run", ".git"):
            (top / entry.name).symlink_to(entry)
    (top / "build").mkdir()
    (top / "build" / "release").symlink_to(build)
    for name in ("home", "cards", "day-files"):
        (work / name).mkdir()
    return top


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("page")
    parser.add_argument("--sources", type=pathlib.Path, required=True)
    parser.add_argument("--build", type=pathlib.Path)
    parser.add_argument("--preload", type=pathlib.Path)
    parser.add_argument("--count", action="store_true")
    arguments = parser.parse_args()
    skipped = not_run()
    typed, text = script(arguments.page, (arguments.sources / arguments.page).read_text(), skipped)
    if arguments.count:
        print(typed)
        return 0
    if "nats-server " in text:
        text = text.replace(PORT_ON_PAGES, str(free_port()))
    stale = [command for (page, command), used in skipped.items() if page == arguments.page and not used]
    if stale:
        sys.exit(f"not_run.txt has lines that are not on {arguments.page}: {stale}")
    with tempfile.TemporaryDirectory() as name:
        work = pathlib.Path(name)
        top = sandbox(work, arguments.sources, arguments.build)
        preload = work / "preload.so"  # LD_PRELOAD takes no path with a blank
        shutil.copy(arguments.preload, preload)
        environment = {k: v for k, v in os.environ.items() if not k.startswith("VEXO_")}
        environment |= {"TZ": "Asia/Shanghai",  # vexo check finds another time zone
                        "HOME": str(work / "home"), "VEXO_SIM_DIR": str(work / "cards"), "LD_PRELOAD": str(preload),
                        "VEXO_TEST_DAY_FILES": str(work / "day-files"), "VEXO_SHARE_DIR": str(work / "rings")}
        return subprocess.run(["bash", "-c", text], cwd=top, env=environment, check=False).returncode


if __name__ == "__main__":
    sys.exit(main())
