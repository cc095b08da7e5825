# Sourced by the shell tests: continues after a failed comparison, and ends with status 1 if there was
# one.
#
#   expect_equal WHAT EXPECTED ACTUAL     compares two texts and shows where they differ
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
