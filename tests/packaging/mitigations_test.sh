#!/usr/bin/env bash
# Looks into the released player for what the compiler and the linker were asked for.
#
#   mitigations_test.sh PLAYER
source "$(dirname "$0")/expect.sh"
player=$1

# The value of one line of readelf's, without its label.
value() {
    sed -n "s/^ *$1 *//p" | head -n 1
}

expect_equal "position-independent executable" "DYN (Position-Independent Executable file)" \
    "$(readelf --file-header "$player" | value 'Type:')"
expect_equal "all symbols bound at the start" "Flags: NOW PIE" \
    "$(readelf --dynamic "$player" | sed -n 's/.*(FLAGS_1) *//p')"
expect_equal "relocations read-only then" "R" \
    "$(readelf --segments --wide "$player" | awk '$1 == "GNU_RELRO" { print $7 }')"
expect_equal "stack not executable" "RW" \
    "$(readelf --segments --wide "$player" | awk '$1 == "GNU_STACK" { print $7 }')"
expect_equal "nothing both writable and executable" "" \
    "$(readelf --segments --wide "$player" | awk '$1 == "LOAD" && /RWE/')"

# The functions that the mitigations call.
imports=$(readelf --dyn-syms --wide "$player" | sed -n 's/.* UND \([a-z_]*\)@.*/\1/p')
for function in __stack_chk_fail __printf_chk __fprintf_chk; do
    expect_equal "use of $function" "$function" "$(grep -x "$function" <<<"$imports" || true)"
done
for function in printf fprintf vprintf vfprintf; do
    expect_equal "unchecked $function" "" "$(grep -x "$function" <<<"$imports" || true)"
done
