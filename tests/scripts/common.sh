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
    run "test_preset $work/log release"
    [ "$status" -eq 8 ] || fail "ctest's status 8 became $status"
    says_not '#1: Good'
    says '#2: Bad'
    says 'what went wrong'
    says '***Skipped'
    [ "$(tail -n 1 "$work/out")" = 'Total Test time (real) =   0.03 sec' ] || fail "ctest's last line is not the last"
    says '50% tests passed, 1 tests failed out of 3'
    grep -q '#1: Good' "$work/log" || fail "the log does not have the whole output"
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
