#!/usr/bin/env bash
# Builds an application that has this tree as a part of its own, in both ways that CMake knows.
#
#   subproject_test.sh SOURCE_DIR CXX WORK_DIR
source "$(dirname "$0")/expect.sh"
source=$1 cxx=$2 work=$3

# How the receiver was compiled, each option on a line.
receiver_options() {
    sed -n 's/^ *"command": "\(.*video_receiver\.cpp.*\)",$/\1/p' \
        "$work/$1/compile_commands.json" | tr ' ' '\n'
}

# count_of OPTION WAY
count_of() {
    receiver_options "$2" | grep -cx -e "$1" || true
}

check() {
    local way=$1 build_type=$2
    cmake -G Ninja -S "$(dirname "$0")/subproject" -B "$work/$way" -DWAY="$way" \
        -DVESPER_SOURCE_DIR="$source" -DCMAKE_BUILD_TYPE="$build_type" -DCMAKE_CXX_COMPILER="$cxx" \
        -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >"$work/$way.log"
    cmake --build "$work/$way" --target application >>"$work/$way.log"
    expect_equal "output with $way" "window 0" "$("$work/$way/application" | head -n 1)"

    # Neither tools nor tests nor packages of ours, and no warning of ours ends its build.
    expect_equal "our programs with $way" "vesper-player: phony" \
        "$(ninja -C "$work/$way" -t targets all |
            grep -x 'vesper-p[a-z]*: phony\|e2e_test: phony\|in_application: phony' |
            LC_ALL=C sort | paste -sd ' ')"
    expect_equal "tests with $way" "Total Tests: 0" \
        "$(ctest --test-dir "$work/$way" --show-only | grep '^Total Tests' || true)"
    expect_equal "package settings with $way" "" "$(find "$work/$way" -name 'CPack*Config.cmake')"
    expect_equal "-Werror with $way" 0 "$(count_of -Werror "$way")"
    cmake --install "$work/$way" --prefix "$work/$way/installed" >>"$work/$way.log"
    expect_equal "what $way installs" "" \
        "$(find "$work/$way/installed" -type f 2>/dev/null || true)"

    # Every optimised build is a hardened one.
    expect_equal "stack protector with $way, $build_type" 1 \
        "$(count_of -fstack-protector-strong "$way")"
    expect_equal "checked library calls with $way, $build_type" 1 \
        "$(count_of -D_FORTIFY_SOURCE=3 "$way")"
}

rm -rf "$work"
mkdir -p "$work"
check add_subdirectory RelWithDebInfo
check FetchContent MinSizeRel
