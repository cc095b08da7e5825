#!/usr/bin/env bash
# Checks that the released player has the mitigations that the compiler and the linker were asked for.
#
#   mitigations_test.sh PLAYER COMPILER_ID
source "$(dirname "$0")/expect.sh"
player=$1 compiler=$2

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

# The functions that the mitigations call. Clang inlines no function with a variable list of arguments,
# so that the C library checks those it can otherwise (since glibc 2.40) or not at all.
checking=(__stack_chk_fail __vfprintf_chk)
unchecked=(vprintf vfprintf)
if [ "$compiler" != Clang ]; then
    checking+=(__printf_chk __fprintf_chk)
    unchecked+=(printf fprintf)
fi
imports=$(readelf --dyn-syms --wide "$player" | sed -n 's/.* UND \([a-z_]*\)@.*/\1/p')
for function in "${checking[@]}"; do
    expect_equal "use of $function" "$function" "$(grep -x "$function" <<<"$imports" || true)"
done
for function in "${unchecked[@]}"; do
    expect_equal "unchecked $function" "" "$(grep -x "$function" <<<"$imports" || true)"
done
