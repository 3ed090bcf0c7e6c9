# What the other scripts share: help, installing packages, building and testing with a short report. Sourced, not run.

vexo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# Prints the comment at the top of the running script and ends it when the first argument asks for help.
help_if_asked() {
    case ${1:-} in
        -h | --help) sed -n -e '1d' -e '/^#/!q' -e 's/^# \{0,1\}//p' "$0" && exit 0 ;;
    esac
}

# Ends the running script because of its arguments.
usage_error() {
    echo "$1; see scripts/$(basename "$0") --help" >&2
    exit 2
}

# Shows how far a long step is: on a terminal in one place, with the time it has taken, on standard error; elsewhere a
# line a minute.
on_terminal() { [ -t 2 ] && [ "${TERM:-dumb}" != dumb ]; }
progress_text='' progress_begun=$SECONDS next_progress=0
begin_progress() {
    progress_text=''
    progress_begun=$SECONDS
    next_progress=$((SECONDS + 60))
}
draw_progress() {  # TEXT SECONDS
    printf '\r\033[K%s, %d:%02d' "$1" $(($2 / 60)) $(($2 % 60)) >&2
}
show_progress() {
    progress_text=$1
    if on_terminal; then
        draw_progress "$1" $((SECONDS - progress_begun))
    elif [ "$SECONDS" -ge "$next_progress" ]; then
        printf '%s\n' "$1"
        next_progress=$((SECONDS + 60))
    fi
}
end_progress() {
    if on_terminal; then printf '\r\033[K' >&2; fi
    next_progress=$((SECONDS + 60))
}

# Reads a line of standard input into $line. While it waits, the time of the progress goes on. False at the end.
next_line() {
    local part status
    line=
    while :; do
        part='' status=0
        IFS= read -r -t 1 part || status=$?
        line+=$part
        [ "$status" -ne 0 ] || return 0
        if [ "$status" -le 128 ]; then  # not the second that is over, but the end
            [ -n "$line" ]
            return
        fi
        [ -z "$progress_text" ] || show_progress "$progress_text"
    done
}

into_file() {  # FILE COMMAND...
    "${@:2}" >"$1" 2>&1
}

# Runs a command that tells nothing of how far it is. On a terminal the time goes on from the third second on, and what
# the command writes comes at its end.
while_showing() {  # TEXT COMMAND...
    local text=$1 log ticker status=0
    shift
    if ! on_terminal; then
        "$@"
        return
    fi
    log=$(mktemp)
    (
        sleep 2
        for ((seconds = 2; ; ++seconds)); do
            kill -0 $$ 2>/dev/null || exit 0  # Ctrl-C has ended the script
            draw_progress "$text" "$seconds"
            sleep 1
        done
    ) &
    ticker=$!
    "$@" >"$log" 2>&1 || status=$?
    kill "$ticker" 2>/dev/null || true
    wait "$ticker" 2>/dev/null || true
    printf '\r\033[K' >&2
    cat "$log"
    rm -f "$log"
    return "$status"
}

# Runs a command and keeps its output to itself unless it fails.
quietly() {
    local log status=0
    log=$(mktemp)
    "$@" >"$log" 2>&1 || status=$?
    if [ "$status" -ne 0 ]; then
        cat "$log" >&2
        echo "failed: $*" >&2
    fi
    rm -f "$log"
    return "$status"
}

# Installs the Debian packages that are missing, as root or through sudo.
need_packages() {
    local package status=0 missing=() as_root=()
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    # No package may ask a question, as tshark does otherwise.
    local install=(env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}")
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            printf '%s\n' "These packages are missing. This user is not root, and there is no sudo. As root, run:" \
                "    ${install[*]}" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    echo "Installing: ${missing[*]}"
    while_showing "  fetching the lists" quietly "${as_root[@]}" apt-get update </dev/null &&
        while_showing "  installing" quietly "${as_root[@]}" "${install[@]}" </dev/null || status=$?
    [ "$status" -ne 0 ] || return 0
    # apt-get itself fails with 100; any other status is sudo's.
    if [ ${#as_root[@]} -gt 0 ] && [ "$status" -ne 100 ]; then
        printf '%s\n' "These packages are missing, and sudo refused to install them. As root, run:" \
            "    ${install[*]}" "Then run this script again." >&2
    else
        printf '%s\n' "These packages could not be installed: ${missing[*]}" \
            "Check the network and the package sources, then run this script again." >&2
    fi
    return 1
}

build_packages=(g++ cmake ninja-build libiniparser-dev)
# What the tools need on top, unless -DVEXO_BUILD_TOOLS=OFF, and what the tests do.
tool_packages=(libcli11-dev libmicrohttpd-dev libnats-dev libsqlite3-dev libzstd-dev nlohmann-json3-dev)
test_packages=(clang clang-format clang-tidy cppcheck pkg-config libgtest-dev libgmock-dev binutils tshark valgrind python3
    python3-numpy man-db abigail-tools doxygen iproute2 nats-server openssl zstd)

# Reads the output of a build, keeps it in LOG and shows the number of steps done.
report_build() {
    local log=$1 line
    begin_progress
    while next_line; do
        printf '%s\n' "$line" >>"$log"
        if [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]]; then
            show_progress "  built ${BASH_REMATCH[1]} of ${BASH_REMATCH[2]} steps"
        fi
    done
    end_progress
}

# The reasons of skipped tests, which ctest keeps to itself: from the file in which it keeps the output of every test.
show_skip_reasons() {
    [ -f "$1" ] || return 0
    awk '
        sub(/^[0-9]+\/[0-9]+ Test: /, "") { name = $0; reason = "" }
        follows { reason = $0; follows = 0 }
        /: Skipped$/ { follows = 1 }
        /^skipped: / { reason = substr($0, 10) }
        /^<end of output>$/ && reason != "" { reasons[reason] = reasons[reason] "\n    " name }
        END { for (reason in reasons) printf "Skipped, %s:%s\n", reason, reasons[reason] }
    ' "$1"
}

# report_tests LOG OUTPUT_OF_EACH
# Reads the output of ctest and keeps it in LOG. Shows the number of tests done, each failure with its output, what was
# skipped and why, and ctest's summary; tests that passed are in LOG only.
report_tests() {
    local log=$1 line show=yes summary=() skipped=no
    begin_progress
    while next_line; do
        printf '%s\n' "$line" >>"$log"
        if [ ${#summary[@]} -gt 0 ] || [[ $line =~ ^[0-9]+%\ tests\ passed ]]; then
            summary+=("$line")
            show=no
        elif [[ $line =~ ^\ +Start\ +[0-9]+: ]]; then
            show=no
        elif [[ $line =~ ^\ *([0-9]+)/([0-9]+)\ Test\ +# ]]; then
            show=no
            case $line in *'***'*) show=yes && end_progress ;; esac
            case $line in *'***Skipped'*) skipped=yes ;; esac
            [ "$show" = yes ] || show_progress "  ran ${BASH_REMATCH[1]} of ${BASH_REMATCH[2]} tests"
        fi
        if [ "$show" = yes ]; then printf '%s\n' "$line"; fi
    done
    end_progress
    if [ "$skipped" = yes ]; then show_skip_reasons "$2" | tee -a "$log"; fi
    if [ ${#summary[@]} -gt 0 ]; then printf '%s\n' "${summary[@]}"; fi
}

# build_preset LOG PRESET [CMAKE ARGUMENT...] [-- TARGET...]
# The whole output is in LOG; a failure shows its end.
build_preset() {
    local log=$1 preset=$2 settings=()
    shift 2
    while [ $# -gt 0 ] && [ "$1" != -- ]; do
        settings+=("$1")
        shift
    done
    [ $# -eq 0 ] || shift
    cd "$vexo_root"
    mkdir -p "$(dirname "$log")"
    : >"$log"
    if ! cmake --preset "$preset" "${settings[@]}" >>"$log" 2>&1; then
        cat "$log" >&2
        echo "Configuring failed: cmake --preset $preset ${settings[*]}" >&2
        return 1
    fi
    if ! cmake --build --preset "$preset" ${1:+--target "$@"} 2>&1 | report_build "$log"; then
        sed -n '/^FAILED: /,$p' "$log" | head -n 100 >&2
        echo "Building failed. The whole output is in $log" >&2
        return 1
    fi
}

# test_preset LOG PRESET [CTEST ARGUMENT...]
test_preset() {
    local log=$1 preset=$2
    shift 2
    cd "$vexo_root"
    case " $* " in
        # The user asks to see more, or for something else than a test run: that output is shown as it is.
        *' -V'* | *' --verbose '* | *' --extra-verbose '* | *' -N '* | *' --show-only'* | *' --print-labels '*)
            ctest --preset "$preset" "$@" ;;
        *)
            ctest --preset "$preset" "$@" 2>&1 |
                report_tests "$log" "$vexo_root/build/$preset/Testing/Temporary/LastTest.log"
            ;;
    esac
}
