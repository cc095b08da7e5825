#!/usr/bin/env bash
# Compares the options and defaults of a manual page with those of its program.
#
#   manual_pages_test.sh player PAGE ARGS_H ARGS_CPP
#   manual_pages_test.sh parent PAGE PROGRAM
source "$(dirname "$0")/expect.sh"

# The page's options, each with its default where the page names one: "--fps=30".
options_of_page() {
    sed 's/\\-/-/g; s/\\~/ /g' "$1" | awk '
        function finish() { if (option != "") print option; option = "" }
        /^\.SH/ { finish(); in_options = ($2 == "OPTIONS") }
        !in_options { next }
        /^\.TP/ { finish(); at_option = 1; next }
        at_option { match($0, /--[a-z-]+/); option = substr($0, RSTART, RLENGTH); at_option = 0 }
        /^Default: / { sub(/^Default: /, ""); sub(/\.$/, ""); option = option "=" $0 }
        END { finish() }' | sort
}

# The player has no --help: its options are those that its parser compares words with, and its
# defaults those of the record that the parser fills. The "float audio_volume = 1.0F;  //
# --audio-volume: initial volume" of the record is "--audio-volume=1.0" here.
options_of_player() {
    local args_h=$1 args_cpp=$2 defaults
    defaults=$(sed -n -E 's/^.* = "?([^;"]+)"?; *\/\/ (--[a-z-]+):.*/\2=\1/p' "$args_h" |
        sed -E 's/([0-9])F$/\1/' | sort)
    expect_equal "options in $args_cpp and those in $args_h" \
        "$(grep -o '"--[a-z-]*"' "$args_cpp" | tr -d '"' | sort -u)" \
        "$(sed 's/=.*//' <<<"$defaults")"
    # Port 0 is one that was not given, and a flag is off.
    options=$(sed -E '/port=0$/s/=.*//; s/=false$//' <<<"$defaults")
}

# "--fps=30" of "  --fps INT:INT in [1 - 240]=30", and also where the text behind an option says
# "(default: 30)".
options_of_parent() {
    options=$("$1" --help | awk '
        function finish() { if (option != "") print option; option = "" }
        /^  -/ {
            finish()
            match($0, /--[a-z-]+/)
            option = substr($0, RSTART, RLENGTH)
            specification = substr($0, 3)
            sub(/  .*/, "", specification)
            sub(/ (Excludes|Needs): .*/, "", specification)
            if (match(specification, /=[^=]*$/)) option = option substr(specification, RSTART)
        }
        match($0, /\(default: [^)]*\)/) { option = option "=" substr($0, RSTART + 10, RLENGTH - 11) }
        END { finish() }' | sort)
}

"options_of_$1" "${@:3}"
expect_equal "options of the program and those of its page" "$options" "$(options_of_page "$2")"
