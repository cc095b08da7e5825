# Sourced by the other scripts: goes to the top of the tree and offers
#
#   usage                               prints how the script is called, and ends it with status 2
#   is_number WORD                      true for a whole number above 0
#   install_packages KIND...            installs what is missing of scripts/packages' lines of these kinds
#   build PRESET ON|OFF                 configures and builds build/PRESET, with or without the tests
#   run_tests PRESET [WORD...]          runs the tests of build/PRESET, or those that CTest's words choose
#   start_virtual_display WxH [NUMBER]  starts an X server that ends with the script; sets DISPLAY
#   "${played_sound[@]}"                in sox's words, what SDL's disk driver writes of the player's sound
#
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# shellcheck disable=SC2034 # for the scripts
played_sound=(-t raw -r 48000 -e signed -b 16 -c 2)

# The comment at the top of each script has the line.
usage() {
    sed -n 's|^#   scripts/|Usage: scripts/|p' "scripts/$(basename "$0")" >&2
    exit 2
}

is_number() {
    [[ "$1" =~ ^[1-9][0-9]*$ ]]
}

install_packages() {
    local kind package missing=()
    for kind in "$@"; do
        while read -r package; do
            if ! dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q '^install ok installed'; then
                missing+=("$package")
            fi
        done < <(awk -v kind="$kind" '$1 == kind { print $2 }' scripts/packages)
    done
    if [ ${#missing[@]} -eq 0 ]; then
        return
    fi
    echo "Installing ${missing[*]}"
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        as_root=(sudo)
    fi
    "${as_root[@]}" apt-get update -q
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -q -y --no-install-recommends "${missing[@]}"
}

build() {
    cmake --preset "$1" -DVESPER_BUILD_TESTS="$2"
    cmake --build --preset "$1"
}

# Most tests wait for something most of the time: three for each processor.
run_tests() {
    ctest --preset "$1" --parallel "$((3 * $(nproc)))" "${@:2}"
}

start_virtual_display() {
    local number_file server tries
    number_file=$(mktemp)
    # Without -noreset the server begins anew when its last client leaves, and drops others.
    Xvfb ${2:+":$2"} -displayfd 3 -screen 0 "$1x24" -nolisten tcp -noreset 3>"$number_file" 2>/dev/null &
    server=$!
    trap 'kill $(jobs -p) 2>/dev/null || true; wait' EXIT
    # Five minutes: a busy machine can take longer than ten seconds.
    for ((tries = 0; tries < 3000; ++tries)); do
        kill -0 "$server" 2>/dev/null || break
        if [ -s "$number_file" ]; then
            DISPLAY=:$(cat "$number_file")
            export DISPLAY
            rm "$number_file"
            return
        fi
        sleep 0.1
    done
    rm -f "$number_file"
    echo "Xvfb did not start" >&2
    exit 1
}
