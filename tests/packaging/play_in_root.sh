#!/usr/bin/env bash
# Runs vesper-parent and the player that it starts in a root, as a user who has nothing but a display and
# a sound card, and checks what is seen and heard there: the test picture and the tone.
#
#   play_in_root.sh ROOT PROGRAMS_DIR WORK_DIR
#
# PROGRAMS_DIR is the programs' folder in the root. Leaves in WORK_DIR player.png, player.wav and
# player.log. Needs root. Mounts nothing.
source "$(dirname "$0")/expect.sh"
source "$(dirname "$0")/perceived.sh"
source "$(dirname "$0")/../../scripts/setup.sh"
root=$1 programs=$2 work=$3
readonly width=480 height=240 fps=5  # little to encode and draw on a busy machine

clean_up() {
    local status=$?
    # shellcheck disable=SC2046 # process ids are words
    kill $(jobs -p) 2>/dev/null || true
    wait
    [ "$status" -ne 0 ] || status=$expectations_failed
    [ "$status" -eq 0 ] || tail -n 20 "$work/player.log"
    exit "$status"
}

colors_on_screen() {
    import -window root "$work/player.png"
    # shellcheck disable=SC2046 # points are words
    colors_of "$work/player.png" $(stripe_points $width $height)
}

start_virtual_display 1280x720
trap clean_up EXIT

# No X socket lies in the root: the X libraries reach the display by its name in Linux's abstract
# namespace first. By default vesper-parent finds the player through /proc, which may be missing.
rm -f "$root/tmp/sound.raw"
chroot --userspec=nobody:nogroup "$root" env -i PATH=/usr/bin:/bin HOME=/tmp "DISPLAY=$DISPLAY" \
    SDL_AUDIODRIVER=disk SDL_DISKAUDIOFILE=/tmp/sound.raw \
    "$programs/vesper-parent" --player "$programs/vesper-player" \
    --size ${width}x$height --fps $fps >"$work/player.log" 2>&1 &
parent=$!
timeout "$patience" xdotool search --sync --onlyvisible --name '^Stream: Test picture$' windowmove 0 0
expect_at_last "picture of the player" "$stripes" colors_on_screen
expect_at_last "sound of the player" "$tone" \
    tone_of "${played_sound[@]}" "$root/tmp/sound.raw"
status=0
kill -TERM "$parent"
wait "$parent" || status=$?
expect_equal "status of vesper-parent after SIGTERM" 143 "$status"
sox "${played_sound[@]}" "$root/tmp/sound.raw" "$work/player.wav"
