#!/usr/bin/env bash
# demo.sh BUILD SOURCES PRELOAD CASE     what the demo says of the day file is what the library did
set -euo pipefail
build=$1 sources=$2 preload=$3 case=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"
mkdir "$work/tmp"
cp "$preload" "$work/preload.so"  # LD_PRELOAD takes no path with a blank
export VEXO_DEMO_DIR=$work/run VEXO_TEST_DAY_FILES=$work/tmp

fail() {
    echo "$1" >&2
    cat "$work/out" >&2
    exit 1
}
demo() {
    status=0
    LD_PRELOAD=$work/preload.so "$sources/scripts/demo.sh" --built "$build" --seconds 5 >"$work/out" 2>&1 || status=$?
}
says() { grep -q -e "$1" "$work/out" || fail "the demo does not say: $1"; }
day_files() {  # of both half-days, so that 17:00 may come between
    printf '%s\n' "$work/tmp/.zce_$(date +%Y%m%d)_am" "$work/tmp/.zce_$(date +%Y%m%d)_pm"
}
as_nobody() {
    [ "$(id -u)" -eq 0 ] || { echo "skipped: only root can make a file of another user" && exit 77; }
    day_files | xargs chown nobody
}

case $case in
twice)
    demo
    [ "$status" -eq 0 ] || fail "the first demo ended with $status"
    says 'Contract map: learned from the card and kept in the day file .*, [0-9]\{4\} instruments'
    # Several lines and not the last ones only: the quotes did not wait for the end.
    says 'rows written: [1-9]'
    demo
    [ "$status" -eq 0 ] || fail "the second demo ended with $status"
    says 'Contract map: loaded from the day file .*, [0-9]\{4\} instruments'
    ;;
another_list)
    for file in $(day_files); do
        printf '%s\n' inst_index,inst_id 0,SR705 1,CF705 0,SPD-SR705/CF705 bin_file_over_tag >"$file"
    done
    demo
    [ "$status" -eq 1 ] || fail "a map of another list: ended with $status"
    says 'received quotes of instruments that it did not subscribe'
    says 'is from a card with another instrument list. Remove it'
    ;;
foreign)
    for file in $(day_files); do printf '%s\n' inst_index,inst_id 0,SR705 bin_file_over_tag >"$file"; done
    as_nobody
    demo
    [ "$status" -eq 0 ] || fail "another user's day file: ended with $status"
    says 'Contract map: learned from the card.*; the file that was there before was not used (another user owns it'
    ;;
unreadable)
    # A directory in the day file's place: neither readable nor writable for anybody.
    day_files | xargs mkdir
    demo
    [ "$status" -eq 0 ] || fail "a day file that cannot be written: ended with $status"
    says 'Contract map: learned from the card.*; the library could not write the day file'
    if grep -e '^grep:' "$work/out"; then fail "grep complains"; fi
    ;;
wrong_options)
    for words in "" "--nonsense" "a.ini --quotes" "a.ini --quotes many" "a.ini --seconds -1" "a.ini b.ini"; do
        status=0
        # shellcheck disable=SC2086  # words on purpose
        "$build/bin/quote_printer" $words >"$work/out" 2>&1 || status=$?
        [ "$status" -eq 2 ] || fail "quote_printer $words ended with $status"
        says '^quote_printer: '
        says '^See quote_printer --help'
    done
    ;;
live)
    # The demo's quotes arrive while it runs: a line of totals is there before the program has ended.
    LD_PRELOAD=$work/preload.so "$sources/scripts/demo.sh" --built "$build" --seconds 5 >"$work/out" 2>&1 &
    demo=$!
    until grep -q '^totals' "$work/out"; do
        kill -0 "$demo" 2>/dev/null || fail "the demo ended without a line of totals"
        sleep 0.1
    done
    if grep -q '^received' "$work/run/output.log"; then fail "the first totals came after the end"; fi
    kill -0 "$demo" || fail "the first totals came after the end"
    wait "$demo" || fail "the demo failed"
    ;;
esac
