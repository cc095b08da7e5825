#!/usr/bin/env bash
# Compares a program with the code block of a page that shows it, after the line
# "<!-- checked: NAME -->". If they differ, copy the program into the page.
#
#   shown_program_test.sh PAGE PROGRAM
source "$(dirname "$0")/../packaging/expect.sh"
page=$1 program=$2

shown() {
    awk -v mark="<!-- checked: $(basename "$program") -->" '
        $0 == mark { marked = 1; next }
        marked && /^```/ { if (inside) exit; inside = 1; next }
        inside' "$page"
}

expect_equal "$program and what $page shows" "$(<"$program")" "$(shown)"
