#!/usr/bin/env bash
# Installs the Debian packages on a Debian that has nothing else and checks what they do there:
# what they forgot to depend on is missing.
#
#   clean_root_test.sh PACKAGES_DIR WORK_DIR
#
# Leaves in WORK_DIR what a person would have seen and heard (player.png, in_application.png,
# player.wav) and what was printed (*.log). Needs a Debian, and root, or sudo without a password; it is
# skipped (status 77) without them. Fetches Debian's own packages from where this machine's apt gets
# them. Mounts nothing.
if [ "$(id -u)" -ne 0 ]; then
    sudo -n true 2>/dev/null || { echo "Only root may install packages."; exit 77; }
    exec sudo -n "$0" "$@"
fi
source "$(dirname "$0")/expect.sh"
source "$(dirname "$0")/perceived.sh"
source "$(dirname "$0")/../../scripts/setup.sh"
source scripts/roots.sh
packages=$1 work=$2
is_debian || { echo "Only a Debian's apt knows Debian's packages."; exit 77; }

install_in_root() {
    chroot "$root" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -q -y --no-install-recommends "$@" >>"$work/install.log" 2>&1
}

# Ends a program that runs in the root; leaves its exit status in `status`.
terminate() {
    status=0
    kill -TERM "$1"
    wait "$1" || status=$?
}

move_window() {
    timeout "$patience" xdotool search --sync --onlyvisible --name "^$1\$" windowmove "$2" "$3"
}

# colors_on_screen FILE X,Y...: takes a screenshot and names its colours at these points.
colors_on_screen() {
    import -window root "$1"
    colors_of "$@"
}

# The first stream is the test picture, the second what the screen shows, half as large: on its left
# the first.
show_two_streams() {
    local name=$1 program=$2 application feeders=() feeder ports
    read -ra ports < <(free_ports 4)
    "${as_user[@]}" SDL_AUDIODRIVER=dummy "$program" \
        "${ports[0]}:${ports[1]}:Ada" "${ports[2]}:${ports[3]}:Grace" \
        >"$work/$name.log" 2>&1 &
    application=$!
    "${as_user[@]}" vesper-parent --to "${ports[0]}" --listen "${ports[1]}" --size 640x360 \
        >"$work/$name.ada.log" 2>&1 &
    feeders+=($!)
    "${as_user[@]}" vesper-parent --to "${ports[2]}" --listen "${ports[3]}" --size 640x360 --screen \
        >"$work/$name.grace.log" 2>&1 &
    feeders+=($!)
    move_window "Stream: Ada" 0 0
    move_window "Stream: Grace" 640 0
    move_window "Streams" 0 360
    # Ada's stripes, the same in Grace's picture, and two green fields in the application's window.
    # shellcheck disable=SC2046 # points are words
    expect_at_last "streams of $name" "$stripes $stripes 010 010" \
        colors_on_screen "$work/$name.png" \
        $(stripe_points 640 360) \
        667,175 720,175 773,175 827,175 880,175 933,175 \
        50,410 150,410
    terminate "$application"  # SDL turns it into a quit event
    expect_equal "status of $name" 0 "$status"
    for feeder in "${feeders[@]}"; do
        terminate "$feeder"
    done
}

clean_up() {
    local status=$?
    # shellcheck disable=SC2046 # process ids are words
    kill $(jobs -p) 2>/dev/null || true
    wait
    rm -rf --one-file-system "$root"
    chown -R --reference="$packages" "$work"  # whoever asked sudo for root cleans the build tree
    [ "$status" -ne 0 ] || status=$expectations_failed
    [ "$status" -eq 0 ] || tail -n 20 "$work"/*.log
    exit "$status"
}

rm -rf "$work"
mkdir -p "$work"
root=$(mktemp -d)
chmod 755 "$root"  # apt fetches as a user of its own
start_virtual_display 1280x720
trap clean_up EXIT

# Runs a command there as a plain user does, with nothing of our environment. No X socket lies in the
# root: the X libraries reach the display by its name in Linux's abstract namespace first.
as_user=(chroot --userspec=nobody:nogroup "$root"
         env -i PATH=/usr/bin:/bin HOME=/tmp "DISPLAY=$DISPLAY")

make_root "$(debian_release)" "$root" "$work"
for package in vesper vesper-parent libvesper-dev; do
    cp "$packages/$package"_*.deb "$root/tmp/$package.deb"
done
install_in_root /tmp/vesper.deb /tmp/vesper-parent.deb
tests/packaging/play_in_root.sh "$root" /usr/bin "$work"

install_in_root /tmp/libvesper-dev.deb g++ cmake make
examples=/usr/share/doc/vesper/examples
"${as_user[@]}" cmake -S $examples -B /tmp/with_cmake >"$work/build.log"
"${as_user[@]}" cmake --build /tmp/with_cmake >>"$work/build.log"
show_two_streams with_cmake /tmp/with_cmake/in_application

# shellcheck disable=SC2016 # flags are asked for in the root
"${as_user[@]}" sh -c 'g++ -std=c++20 "$0/in_application.cpp" -o /tmp/with_pkg_config \
    $(pkg-config --cflags --libs vesper-client)' $examples
show_two_streams with_pkg_config /tmp/with_pkg_config
