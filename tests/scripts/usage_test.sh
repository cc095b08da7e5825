#!/usr/bin/env bash
# Calls each script with unknown words: nothing may then be installed, built or run.
#
#   usage_test.sh SCRIPTS_DIR
source "$(dirname "$0")/../packaging/expect.sh"
cd "$1"

# The lines of the script's own comment, on standard error alone, and status 2.
expect_usage() {
    local name=$1 call=("./$1" "${@:2}") status=0 usage
    usage=$(sed -n "s|^#   \(scripts/$name\)|Usage: \1|p" "$name")
    expect_equal "standard output of $*" "" "$("${call[@]}" 2>/dev/null || true)"
    expect_equal "standard error of $*" "$usage" "$("${call[@]}" 2>&1 >/dev/null || true)"
    "${call[@]}" >/dev/null 2>&1 || status=$?
    expect_equal "status of $*" 2 "$status"
}

for script in *; do
    if [ -x "$script" ]; then
        expect_usage "$script" --no-such-word
    fi
done
expect_usage test release no-such-preset
expect_usage fuzz 0
expect_usage fuzz 1 no-such-target
expect_usage soak 0
expect_usage soak 1 2
expect_usage soak --network 1 no-such-preset
expect_usage demo --seconds
expect_usage demo --size 640
expect_usage bench --rounds many
