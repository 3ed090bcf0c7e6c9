# What the other scripts share: installing what a step needs, and building quietly. Sourced, not run.

vexo_root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

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
    local package missing=() as_root=()
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q '^install ok installed$' || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "These packages are missing and neither root nor sudo is at hand. As root, run:" >&2
            echo "    apt-get install ${missing[*]}" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    echo "Installing: ${missing[*]}"
    quietly "${as_root[@]}" apt-get update &&
        quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}" || {
        echo "Installing failed. Check the network and the package sources, then run this again." >&2
        return 1
    }
}

build_packages=(g++ cmake ninja-build libiniparser-dev)
# What the tools need on top, unless -DVEXO_BUILD_TOOLS=OFF, and what the tests do.
tool_packages=(libcli11-dev nlohmann-json3-dev)
test_packages=(clang pkg-config libgtest-dev libgmock-dev binutils tshark valgrind python3)

# build_preset PRESET [CMAKE ARGUMENT...] [-- TARGET...]
build_preset() {
    local preset=$1 settings=()
    shift
    while [ $# -gt 0 ] && [ "$1" != -- ]; do
        settings+=("$1")
        shift
    done
    [ $# -eq 0 ] || shift
    cd "$vexo_root"
    quietly cmake --preset "$preset" "${settings[@]}"
    quietly cmake --build --preset "$preset" ${1:+--target "$@"}
}
