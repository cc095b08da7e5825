#!/usr/bin/env bash
# Runs the player and vesper-parent of another processor under an emulator: one stream, from its picture
# on a virtual display and its sound to the closed window.
#
#   emulated_player_test.sh EMULATOR PLAYER PARENT WORK_DIR
#
# Leaves in WORK_DIR what a person would have seen and heard, and what was printed.
source "$(dirname "$0")/expect.sh"
source "$(dirname "$0")/perceived.sh"
source "$(dirname "$0")/../../scripts/setup.sh"
emulator=$1 player=$2 parent=$3 work=$4
readonly width=320 height=180  # little to encode, decode and draw for an emulator
readonly title="Stream: Test"
read -r port parent_port < <(free_ports 2)

clean_up() {
    local status=$?
    # shellcheck disable=SC2046 # process ids are words
    kill $(jobs -p) 2>/dev/null || true
    wait
    [ "$status" -ne 0 ] || status=$expectations_failed
    [ "$status" -eq 0 ] || tail -n 20 "$work"/*.log
    exit "$status"
}

colors_of_window() {
    timeout "$patience" import -window "$title" "$work/screenshot.png"
    # shellcheck disable=SC2046 # points are words
    colors_of "$work/screenshot.png" $(stripe_points $width $height)
}

managed_window() {
    wmctrl -l | grep -o "$title"
}

rm -rf "$work"
mkdir -p "$work"
start_virtual_display 640x480
trap clean_up EXIT
openbox >"$work/openbox.log" 2>&1 &

# Each program is started by hand: where the kernel does not know the emulator, a program in it starts
# no other.
SDL_VIDEODRIVER=x11 SDL_RENDER_DRIVER=software SDL_AUDIODRIVER=disk SDL_DISKAUDIOFILE=$work/sound.raw \
    "$emulator" "$player" --port "$port" --parent-port "$parent_port" --username Test --has-audio \
    --width $width --height $height >"$work/player.log" 2>&1 &
player_process=$!
"$emulator" "$parent" --to "$port" --listen "$parent_port" --size ${width}x$height --fps 10 \
    >"$work/parent.log" 2>&1 &
parent_process=$!

until xdotool search --onlyvisible --name "^$title\$" >"$work/window.log" 2>&1; do
    ((SECONDS < patience)) || { echo "no window" && exit 1; }
    # openbox loses requests to map a window that come before it is ready, and SDL waits for the answer.
    for window in $(xdotool search --name "^(Video Stream|$title)\$" 2>/dev/null); do
        xdotool windowmap "$window"
    done
    sleep 1
done
expect_at_last "picture" "$stripes" colors_of_window
expect_at_last "sound" "$tone" tone_of "${played_sound[@]}" "$work/sound.raw"
# Closed as by a taskbar. A key needs a focused window, and openbox focuses none that was there before it
# started; a key is also lost while openbox grabs its keys anew, when xdotool's keyboard appears.
expect_at_last "window that openbox has" "$title" managed_window
((expectations_failed == 0)) || exit 1  # nobody would close the window
wmctrl -F -c "$title"
status=0
wait "$player_process" || status=$?
expect_equal "status of the player" 0 "$status"
expect_equal "its last line" "[VideoReceiver] Destructor complete for uid=0" \
    "$(tail -n 1 "$work/player.log")"
kill "$parent_process"
