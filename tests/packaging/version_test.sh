#!/usr/bin/env bash
# The version is written in one place, from which everything else takes it.
#
#   version_test.sh SOURCE_DIR VERSION
source "$(dirname "$0")/expect.sh"
cd "$1"
version=$2

# The tree may belong to another user than the one who runs the tests: git asks about that only where it
# finds the repository by itself.
git_grep() {
    git --git-dir=.git grep "$@"
}

expect_equal "lines that hold $version" \
    "CMakeLists.txt:project(vesper VERSION $version DESCRIPTION \"Live-stream window\" LANGUAGES CXX)" \
    "$(git_grep -P "(?<![\d.])\Q$version\E(?![\d.]*\d)")"

# Any other number written out would be a second place, too.
expect_equal "lines that name a version" \
    "cmake/debian/changelog.in:vesper (@CPACK_PACKAGE_VERSION@) unstable; urgency=medium
cmake/vesper.pc.in:Version: @PROJECT_VERSION@
man/vesper-parent.1.in:.TH VESPER-PARENT 1 \"\" \"vesper @PROJECT_VERSION@\" \"User commands\"
man/vesper-player.1.in:.TH VESPER-PLAYER 1 \"\" \"vesper @PROJECT_VERSION@\" \"User commands\"" \
    "$(git_grep -E '^(vesper \(|Version:|\.TH )' -- '*.in')"
