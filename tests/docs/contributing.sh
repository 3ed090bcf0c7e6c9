#!/usr/bin/env bash
# Types the commands of CONTRIBUTING.md. Programs of the build are run as they stand there. What would build, change the
# tree or run ctest inside ctest is looked up instead: presets, targets, tests and files must be there.
set -euo pipefail
source_dir=$1 binary_dir=$2 own_day_files=$3
page=$source_dir/CONTRIBUTING.md
work=$(mktemp -d)
trap 'kill "${host:-}" 2>/dev/null || true; rm -rf "$work"' EXIT
export VEXO_SOURCE=$source_dir VEXO_BINARY=$binary_dir

fail() {
    echo "CONTRIBUTING.md: $1" >&2
    cat "$work"/*.log >&2 2>/dev/null || true
    exit 1
}

# The tree as the page's reader sees it, but nothing typed there writes into it.
mkdir -p "$work/tree/build" "$work/cards" "$work/day-files" "$work/lookup"
for entry in "$source_dir"/*; do
    [ "$(basename "$entry")" = build ] || ln -s "$entry" "$work/tree/"
done
ln -s "$binary_dir" "$work/tree/build/release"
cd "$work/tree"

# The n-th block of shell commands on the page.
block() { awk -v n="$1" '/^```sh$/ { inside = ++count == n; next } /^```$/ { inside = 0 } inside' "$page"; }

# ---- the programs that are looked up ----
cat >"$work/lookup/cmake" <<'SHIM'
#!/usr/bin/env bash
set -euo pipefail
while [ $# -gt 0 ]; do
    case $1 in
        --build) ;;
        --preset) shift; grep -q "\"name\": \"$1\"" "$VEXO_SOURCE/CMakePresets.json" || { echo "no preset $1"; exit 1; } ;;
        --target) shift; grep -qE "^build ([^:]*[ /])?$1:" "$VEXO_BINARY/build.ninja" || { echo "no target $1"; exit 1; } ;;
        *) echo "cmake $1 is not looked up"; exit 1 ;;
    esac
    shift
done
SHIM
cat >"$work/lookup/ctest" <<'SHIM'
#!/usr/bin/env bash
set -euo pipefail
[ $# -eq 4 ] && [ "$1 $2 $3" = "--preset release -R" ] || { echo "ctest $* is not looked up"; exit 1; }
PATH=${PATH#*:} ctest --test-dir "$VEXO_BINARY" -N -R "$4" | grep -q '^Total Tests: [1-9]' || { echo "no test $4"; exit 1; }
SHIM
chmod +x "$work"/lookup/*
lookup=$work/lookup:$PATH

# A filter that matches no test would pass. Golden files are not written here, and no script of the tree is run: they are
# only looked up.
typed() {
    local command=$1 listed
    if [[ $command == *--gtest_filter=* ]]; then
        listed=$(bash -euc "${command#VEXO_UPDATE_GOLDEN=1 } --gtest_list_tests") || fail "$command"
        grep -q '^  ' <<<"$listed" || fail "no test matches: $command"
    fi
    [[ $command != VEXO_UPDATE_GOLDEN=1\ * ]] || return 0
    if [[ $command == scripts/* ]]; then
        [ -x "${command%% *}" ] || fail "there is no $command"
        return 0
    fi
    PATH=$lookup bash -euc "$command" >"$work/typed.log" 2>&1 || fail "$command"
}

commands=0
blocks=$(grep -c '^```sh$' "$page")
for ((n = 1; n <= blocks; ++n)); do
    case $(block "$n" | tail -1) in
        vexo-simcard\ *--quiet) host_block=$n ;;
        vexo-simcard*) user_block=$n ;;
        *)
            while read -r command; do
                typed "$command"
                commands=$((commands + 1))
            done < <(block "$n")
            ;;
    esac
done
[ "$commands" -ge 8 ] || fail "only $commands commands were typed"

# ---- the hosted card: the host in the background, the user's commands beside it ----
# The machine's own cards and day files stay out of it.
cp "$own_day_files" "$work/preload.so"  # LD_PRELOAD takes no path with a blank
export LD_PRELOAD=$work/preload.so VEXO_TEST_DAY_FILES=$work/day-files VEXO_SIM_DIR=$work/cards
bash -euc "$(block "$host_block" | sed '$s/^/exec /')" >"$work/host.log" 2>&1 &
host=$!
export PATH=$PWD/build/release/bin:$PATH
until vexo-simcard --json >/dev/null 2>&1; do
    kill -0 "$host" 2>/dev/null || fail "the host ended"
    sleep 0.1
done
status=0
bash -euc "$(block "$user_block")" >"$work/user.log" 2>&1 || status=$?
[ "$status" -eq 0 ] || fail "the commands beside the hosted card ended with $status"
grep -q '^simulated card at bus 0' "$work/user.log" || fail "no status was shown"
[ "$(head -c 4 debug.pcapng | od -An -tx1 | tr -d ' ')" = 0a0d0d0a ] || fail "there is no capture"
kill "$host"
wait "$host" || fail "the host did not end well"
