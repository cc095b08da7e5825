#!/usr/bin/env bash
# Installs the tree, moves it somewhere else, and builds the examples against it both ways.
#
#   installed_tree_test.sh BUILD_DIR LIBDIR VERSION CXX WORK_DIR
source "$(dirname "$0")/expect.sh"
build=$1 libdir=$2 version=$3 cxx=$4 work=$5
tree=$(dirname "$(dirname "$build")")

rm -rf "$work"
mkdir -p "$work"
DESTDIR=$work/staged cmake --install "$build" --prefix /usr >"$work/install.log"

expect_equal "installed files" "bin/vesper-parent
bin/vesper-player
include/vesper/audio/opus_codec.h
include/vesper/client/audio_device.h
include/vesper/client/renderer_choice.h
include/vesper/client/right_edge.h
include/vesper/client/video_receiver.h
include/vesper/net/stream_datagrams.h
include/vesper/net/udp_socket.h
$libdir/cmake/vesper/vesper-config-version.cmake
$libdir/cmake/vesper/vesper-config.cmake
$libdir/cmake/vesper/vesper-targets-release.cmake
$libdir/cmake/vesper/vesper-targets.cmake
$libdir/libvesper-audio.a
$libdir/libvesper-client.a
$libdir/libvesper-net.a
$libdir/pkgconfig/vesper-audio.pc
$libdir/pkgconfig/vesper-client.pc
$libdir/pkgconfig/vesper-net.pc
share/doc/vesper/docs/embedding.md
share/doc/vesper/docs/protocol.md
share/doc/vesper/examples/CMakeLists.txt
share/doc/vesper/examples/in_application.cpp
share/doc/vesper/examples/minimal_application.cpp
share/doc/vesper/examples/minimal_parent.py
share/doc/vesper/examples/socket_thread.cpp
share/doc/vesper/examples/voice.cpp
share/man/man1/vesper-parent.1
share/man/man1/vesper-player.1" "$(cd "$work/staged/usr" && find . -type f -printf '%P\n' | LC_ALL=C sort)"

# None of it may contain the path that it was built or installed in. A tree in /vesper is not named by
# share/doc/vesper, so the path is looked for only where one begins, and whole.
readonly path_of_tree="(?:(?<![\w.}/-])|(?<=-[IL])|(?<=-isystem)|(?<=://))\Q$tree\E(?![\w-]|\.\w)"
mkdir "$work/moved"
mv "$work/staged/usr" "$work/moved/vesper"
prefix=$work/moved/vesper
examples=$prefix/share/doc/vesper/examples
expect_equal "lines that name the tree" "-I$tree/include
-isystem$tree/include
file://$tree/README.md
prefix=$tree
It is in $tree." "$(grep -P "$path_of_tree" <<END
-I$tree/include
-isystem$tree/include
file://$tree/README.md
prefix=$tree
It is in $tree.
/usr$tree
$tree-1.0
$tree.tar
END
)"
expect_equal "files that name the build tree" "" \
    "$(grep -rlP --exclude-dir=bin --exclude='*.a' "$path_of_tree" "$prefix" || true)"

cmake -G Ninja -S "$examples" -B "$work/with_cmake" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" >"$work/cmake.log"
cmake --build "$work/with_cmake" >>"$work/cmake.log"
expect_equal "where find_package found it" "$prefix/$libdir/cmake/vesper" \
    "$(sed -n 's/^vesper_DIR:PATH=//p' "$work/with_cmake/CMakeCache.txt")"

export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
# pkg-config writes words for a shell to read: a space in the prefix comes with a backslash.
flags=()
flags_of() {
    eval "flags=($(pkg-config "$@"))"
}
flags_of --cflags --libs vesper-client
"$cxx" -std=c++20 "$examples/in_application.cpp" -o "$work/with_pkg_config" "${flags[@]}"

# Bad usage needs neither display nor port, and shows that the program loads.
for program in "$work/with_cmake/in_application" "$work/with_pkg_config"; do
    expect_equal "usage of $program" "Usage: $program [--size WIDTHxHEIGHT] PORT:REPLY_PORT:NAME..." \
        "$("$program" nonsense 2>&1 || true)"
done

# Each header compiles by itself, with only the flags of its own room.
for room in net audio client; do
    expect_equal "version of vesper-$room" "$version" "$(pkg-config --modversion "vesper-$room")"
    flags_of --cflags "vesper-$room"
    for header in "$prefix/include/vesper/$room"/*.h; do
        echo "#include \"$room/$(basename "$header")\"" |
            "$cxx" -std=c++20 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -x c++ - \
                "${flags[@]}"
    done
done
