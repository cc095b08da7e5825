# Sourced by the shell tests: continues after a failed comparison, and ends with status 1 if there was
# one.
#
#   expect_equal WHAT EXPECTED ACTUAL     compares two texts and shows where they differ
#   expect_at_last WHAT EXPECTED COMMAND...
#                                         compares what the command prints once it prints that, or at the
#                                         end of $patience
#
# shellcheck shell=bash
set -euo pipefail

expectations_failed=0
finish() {
    local status=$?
    exit "$((status != 0 ? status : expectations_failed))"
}
trap finish EXIT

expect_equal() {
    local what=$1 expected=$2 actual=$3
    if [ "$expected" != "$actual" ]; then
        echo "$what: expected (-) is not what is there (+)"
        diff -u <(echo "$expected") <(echo "$actual") | tail -n +3 || true
        expectations_failed=1
    fi
}

readonly patience=300  # seconds, for what takes a moment on a machine with nothing else to do

expect_at_last() {
    local actual end=$((SECONDS + patience))
    while true; do
        actual=$("${@:3}" || true)
        if [ "$actual" = "$2" ] || [ $SECONDS -ge $end ]; then
            break
        fi
        sleep 0.2
    done
    expect_equal "$1" "$2" "$actual"
}
