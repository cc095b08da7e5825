#!/usr/bin/env bash
# Checks that the tests which the page names as evidence exist.
#
#   security_page_test.sh PAGE BUILD_DIR
source "$(dirname "$0")/../packaging/expect.sh"
page=$1 build=$2

# Without the instance before the name and the parameter after it, which are not part of the rule.
existing_tests() {
    ctest --test-dir "$build" --show-only |
        sed -n -e 's/^ *Test *#[0-9]*: *//' -e 's#^[A-Za-z0-9_]*/##' -e 's#/.*##' -e '/\./p' |
        LC_ALL=C sort -u
}

# Suite.Test, both begun by a capital.
named_tests() {
    # shellcheck disable=SC2016 # the page's backticks
    grep -o '`[A-Z][A-Za-z0-9]*\.[A-Z][A-Za-z0-9_]*`' "$page" | tr -d '`' | LC_ALL=C sort -u
}

# Every row of a table of claims, without its head; other tables claim nothing.
rows_without_test() {
    awk '!/^\|/ { claims = 0 } /^\| claim \|/ { claims = 1; next } claims && !/^\|---/' "$page" |
        grep -v '`[A-Z][A-Za-z0-9]*\.[A-Z]' || true
}

named=$(named_tests)
expect_equal "tests named by the page" "$named" \
    "$(comm -12 <(echo "$named") <(existing_tests))"
expect_equal "claims without a test" "" "$(rows_without_test)"
