#!/usr/bin/env bash
# common.sh SOURCES CASE     what the scripts share, with programs of the test in the place of the system's
set -euo pipefail
sources=$1 case=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"

fail() {
    echo "$1" >&2
    cat "$work/out" >&2 || true
    exit 1
}
program() {  # NAME, its text on standard input
    { echo '#!/bin/bash' && cat; } >"$work/bin/$1"
    chmod +x "$work/bin/$1"
}
run() {  # COMMANDS in a shell with common.sh
    status=0
    PATH=$work/bin:$PATH bash -euc "set -o pipefail; source '$sources/scripts/common.sh'; $1" >"$work/out" 2>&1 || status=$?
}
says() { grep -q -F -e "$1" "$work/out" || fail "not said: $1"; }
says_lines() { case $(cat "$work/out") in *"$1"*) ;; *) fail "not said: $1" ;; esac; }
says_not() { if grep -q -F -e "$1" "$work/out"; then fail "said: $1"; fi; }

case $case in
sudo_refuses)
    program id <<<'echo 1000'
    program dpkg-query <<<'exit 1'
    program sudo <<<'echo "user is not in the sudoers file." >&2; exit 1'
    run 'need_packages tshark ninja-build'
    [ "$status" -eq 1 ] || fail "ended with $status"
    says 'sudo refused'
    says 'apt-get install -y --no-install-recommends tshark ninja-build'
    says_not 'network'
    ;;
no_network)
    program id <<<'echo 1000'
    program dpkg-query <<<'exit 1'
    program sudo <<<'exec "$@"'
    program apt-get <<<'exit 100'
    run 'need_packages tshark'
    [ "$status" -eq 1 ] || fail "ended with $status"
    says 'Check the network'
    ;;
installs_silently)
    program id <<<'echo 0'
    program dpkg-query <<<'exit 1'
    program apt-get <<<'echo "$DEBIAN_FRONTEND $*" >>'"$work/calls"'; ! read -r answer'
    run 'need_packages tshark'
    [ "$status" -eq 0 ] || fail "ended with $status"
    grep -q '^noninteractive install .* tshark$' "$work/calls" || fail "called: $(cat "$work/calls")"
    ;;
help)
    for script in "$sources"/scripts/*.sh; do
        [ "$(basename "$script")" != common.sh ] || continue
        status=0
        "$script" --help >"$work/out" 2>&1 </dev/null || status=$?
        [ "$status" -eq 0 ] || fail "$script --help ended with $status"
        says "scripts/$(basename "$script")"
    done
    ;;
wrong_options)
    # Refused before anything is installed or built.
    while read -r words; do
        status=0
        # shellcheck disable=SC2086  # words on purpose
        "$sources"/scripts/$words >"$work/out" 2>&1 </dev/null || status=$?
        [ "$status" -eq 2 ] || fail "$words ended with $status"
        says "scripts/${words%%.sh*}.sh"
    done <<'WORDS'
demo.sh --nonsense
demo.sh --seconds
demo.sh --seconds soon
demo.sh --built
demo.sh --built /nowhere
demo-many.sh --nonsense
demo-many.sh --seconds 0
demo-many.sh --rate soon
demo-many.sh --built /nowhere
bench.sh --nonsense
bench.sh --figure
bench.sh --figure all
bench.sh --write-page --figure packet
coverage.sh --nonsense
format.sh --nonsense
lint.sh --nonsense
lint.sh --build
WORDS
    ;;
test_report)
    program ctest <<'OUTPUT'
cat <<'TEXT'
Test project /somewhere
        Start   1: Good
  1/3 Test   #1: Good ...........   Passed    0.01 sec
        Start   2: Bad
  2/3 Test   #2: Bad ............***Failed    0.01 sec
what went wrong
        Start   3: Left
  3/3 Test   #3: Left ...........***Skipped   0.01 sec

50% tests passed, 1 tests failed out of 3

Total Test time (real) =   0.03 sec
TEXT
exit 8
OUTPUT
    mkdir -p "$work/build/release/Testing/Temporary"
    cat >"$work/build/release/Testing/Temporary/LastTest.log" <<'TEXT'
3/3 Testing: Left
3/3 Test: Left
Output:
----------------------------------------------------------
[ RUN      ] Left
/some/where/LeftTest.cpp:12: Skipped
there are no terminals here

[  SKIPPED ] Left (0 ms)
<end of output>
Test time =   0.01 sec
----------------------------------------------------------
Test Pass Reason:
Skip regular expression found in output. Regex=[\[  SKIPPED \]]
4/5 Testing: Alone
4/5 Test: Alone
Output:
skipped: only root can do that
<end of output>
Test Passed.
5/5 Testing: Other
5/5 Test: Other
Output:
[ RUN      ] Other
/some/where/LeftTest.cpp:40: Skipped
there are no terminals here
<end of output>
Test Pass Reason:
Skip regular expression found in output. Regex=[\[  SKIPPED \]]
6/6 Testing: Good
6/6 Test: Good
Output:
[ RUN      ] Good
<end of output>
Test Passed.
TEXT
    run "vexo_root=$work; test_preset $work/log release"
    [ "$status" -eq 8 ] || fail "ctest's status 8 became $status"
    says_not '#1: Good'
    says '#2: Bad'
    says 'what went wrong'
    says '***Skipped'
    says_lines $'Skipped, there are no terminals here:\n    Left\n    Other\n'
    says_lines $'Skipped, only root can do that:\n    Alone\n'
    says_not 'Good'
    [ "$(tail -n 1 "$work/out")" = 'Total Test time (real) =   0.03 sec' ] || fail "ctest's last line is not the last"
    says '50% tests passed, 1 tests failed out of 3'
    grep -q '#1: Good' "$work/log" || fail "the log does not have the whole output"
    ;;
progress)
    # A line a minute; on a terminal always the same line.
    run 'unset SECONDS; SECONDS=0; on_terminal() { false; }
         show_progress first; show_progress second; SECONDS=60; show_progress third'
    [ "$(cat "$work/out")" = $'first\nthird' ] || fail "not a line a minute"
    run 'on_terminal() { true; }; unset SECONDS; SECONDS=0; begin_progress
         show_progress first; SECONDS=75; show_progress second; end_progress'
    [ "$(cat "$work/out")" = $'\r\033[Kfirst, 0:00\r\033[Ksecond, 1:15\r\033[K' ] || fail "not always the same line"
    run 'on_terminal() { true; }; echo "[3/7] Building" | report_build '"$work/log"
    says 'built 3 of 7 steps'
    run 'on_terminal() { true; }; echo " 3/7 Test  #3: Good ....   Passed    0.01 sec" | report_tests '"$work/log $work/none"
    says 'ran 3 of 7 tests'
    # A step that takes long: the time goes on. The part of a line that is there meanwhile is not lost.
    rm "$work/log"
    until_shown="until grep -q 'built 2 of 7 steps, 0:[0-9]*[1-9]' '$work/out'; do sleep 0.1; done"
    run 'on_terminal() { true; }
         { echo "[2/7] First"; printf "[3/7] Bui"; '"$until_shown"'; printf "lding\n[4/7] Linking"; } |
             report_build '"$work/log"
    [ "$(cat "$work/log")" = $'[2/7] First\n[3/7] Building\n[4/7] Linking' ] || fail "the log is not the build's output"
    says 'built 4 of 7 steps'
    # Standard output is the result's.
    run 'on_terminal() { true; }; show_progress first 2>/dev/null'
    [ ! -s "$work/out" ] || fail "progress is not on standard error"
    ;;
long_command)
    run 'on_terminal() { true; }; while_showing "  waiting" bash -c "echo result; until grep -q waiting '"$work/out"'; do sleep 0.1; done; exit 7" ||
             echo "status $?"'
    says $'\r\033[K  waiting, 0:02'
    says_lines $'\r\033[Kresult\nstatus 7'
    run 'on_terminal() { false; }; while_showing "  waiting" bash -c "echo result; exit 7" || echo "status $?"'
    [ "$(cat "$work/out")" = $'result\nstatus 7' ] || fail "something else than the command's output without a terminal"
    run 'TERM=dumb; on_terminal || echo none'
    says none
    ;;
demo_folder)
    # A project of one target in the place of the sources: which build folder does the demo make?
    mkdir -p "$work/tree/run"
    cp -r "$sources/scripts" "$sources/CMakePresets.json" "$work/tree"
    printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(demo NONE)' 'add_custom_target(quote_printer)' \
        >"$work/tree/CMakeLists.txt"
    program dpkg-query <<<'echo install ok installed'
    status=0
    PATH=$work/bin:$PATH VEXO_DEMO_DIR=$work/run "$work/tree/scripts/demo.sh" >"$work/out" 2>&1 || status=$?
    [ -f "$work/tree/build/demo/CMakeCache.txt" ] || fail "the demo did not build in build/demo: $status"
    [ ! -e "$work/tree/build/release" ] || fail "the demo touched build/release"
    grep -q '^BUILD_TESTING:[A-Z]*=OFF' "$work/tree/build/demo/CMakeCache.txt" || fail "the demo builds tests"
    ;;
build_report)
    program cmake <<'OUTPUT'
[ "$1" = --build ] || exit 0
echo "[1/2] Building one.o"
echo "FAILED: two.o"
echo "two.cpp:1: error"
exit 1
OUTPUT
    run "build_preset $work/log release"
    [ "$status" -eq 1 ] || fail "a failed build ended with $status"
    says 'two.cpp:1: error'
    says "$work/log"
    says_not 'Building one.o'
    grep -q 'Building one.o' "$work/log" || fail "the log does not have the whole output"
    ;;
esac
