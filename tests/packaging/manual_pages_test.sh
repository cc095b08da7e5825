#!/usr/bin/env bash
# Compares the options of a manual page, their ranges and defaults, with those of its program.
#
#   manual_pages_test.sh player PAGE ARGS_H ARGS_CPP
#   manual_pages_test.sh parent PAGE PROGRAM
source "$(dirname "$0")/expect.sh"

# What the awk programs share. They gather what they find of an option and print it once they come
# to the next: "--fps=30 (1 to 240)", without what it does not have.
# shellcheck disable=SC2016 # awk's own fields
readonly gather='
    function finish() {
        if (option != "") print option standard range
        option = standard = range = ""
    }
    function name_option() {
        finish()
        match($0, /--[a-z-]+/)
        option = substr($0, RSTART, RLENGTH)
    }
    function look_for_range() {
        if (match($0, /[0-9.]+ to [0-9.]*[0-9]/)) range = " (" substr($0, RSTART, RLENGTH) ")"
    }
    END { finish() }'

options_of_page() {
    sed 's/\\-/-/g; s/\\~/ /g' "$1" | awk "$gather"'
        /^\.S[HS]/ { finish() }
        /^\.SH/ { in_options = ($2 == "OPTIONS") }
        !in_options { next }
        at_option { name_option() }
        { at_option = /^\.TP/; look_for_range() }
        /^Default: / { sub(/^Default: /, ""); sub(/\.$/, ""); standard = "=" $0 }' | sort
}

# The player has no --help: its options are those that its parser compares words with. Their
# defaults and ranges are in the record that the parser fills: "float audio_volume = 1.0F;  //
# --audio-volume: initial volume, 0.0 to 1.0".
options_of_player() {
    local args_h=$1 args_cpp=$2
    options=$(grep '// --' "$args_h" | awk "$gather"'
        {
            name_option()
            look_for_range()
            sub(/^.* = "?/, "")
            sub(/F?"?;.*/, "")
            standard = "=" $0
        }
        # Port 0 is one that was not given, and a flag is off.
        option ~ /port$/ || standard == "=false" { standard = "" }' | sort)
    expect_equal "options in $args_cpp and those in $args_h" \
        "$(grep -o '"--[a-z-]*"' "$args_cpp" | tr -d '"' | sort -u)" \
        "$(grep -o '^[^= ]*' <<<"$options")"
}

# "--fps=30 (1 to 240)" of "  --fps INT:INT in [1 - 240]=30", or, since CLI11 2.4, of
# "  --fps INT:INT in [1 - 240] [30] "; or the text after an option has
# "(default: 30)" and "1 to 240". The range of a PERCENT goes without saying.
options_of_parent() {
    options=$("$1" --help | awk "$gather"'
        / PERCENT:/ { sub(/ in .*/, "") }
        / in \[/ { sub(/\[/, ""); sub(/ - /, " to "); sub(/\]/, "") }
        /^  -/ {
            name_option()
            specification = substr($0, 3)
            sub(/  .*/, "", specification)
            sub(/ (Excludes|Needs): .*/, "", specification)
            if (match(specification, /=[^=]*$/)) standard = substr(specification, RSTART)
            if (match(specification, / \[[^]]*\] *$/)) {
                standard = substr(specification, RSTART + 2)
                sub(/\] *$/, "", standard)
                standard = "=" standard
            }
        }
        { look_for_range() }
        match($0, /\(default: [^)]*\)/) { standard = "=" substr($0, RSTART + 10, RLENGTH - 11) }' | sort)
}

"options_of_$1" "${@:3}"
expect_equal "options of the program and those of its page" "$options" "$(options_of_page "$2")"
