# Sourced by tests that look at the test picture and listen to the test tone of vesper-parent.
#
#   $stripes                the picture's six stripes from the left, each as red, green and blue, on or off
#   stripe_points W H       prints a point in the foot of each stripe of a picture of this size
#   colors_of FILE X,Y...   prints the colours that an image has at these points, in the same words
#   $tone                   the tone
#   tone_of WORD...         prints frequency and level of the last second of a recording, described to
#                           sox in these words, without the tone's higher beep
#   free_ports COUNT        prints UDP ports of the loopback address that nobody has, and that the
#                           system gives to nobody who asks for any
#
# shellcheck shell=bash

# shellcheck disable=SC2034 # for the tests
readonly stripes="100 010 110 001 101 011" tone="440 Hz, 6 %"

stripe_points() {
    local stripe
    for stripe in 0 1 2 3 4 5; do
        echo "$(((2 * stripe + 1) * $1 / 12)),$(($2 - 10))"
    done
}

colors_of() {
    local point format=
    for point in "${@:2}"; do
        format+="%[fx:p{$point}.r>0.5]%[fx:p{$point}.g>0.5]%[fx:p{$point}.b>0.5] "
    done
    identify -format "$format" "$1" | sed 's/ $//'
}

tone_of() {
    sox "$@" -n remix 1 trim -1 sinc -1000 stat 2>&1 |
        awk '/^Rough +frequency/ { frequency = $NF }
             /^RMS +amplitude/ { level = $NF }
             END { printf "%.0f0 Hz, %.0f %%\n", frequency / 10, 100 * level }'
}

# Below 32768, where Linux begins to give out ports by itself (ip(7), ip_local_port_range).
free_ports() {
    python3 -c '
import random, socket, sys
count = int(sys.argv[1])
sockets = []
ports = []
for port in random.sample(range(20000, 32768), 1000):
    try:
        # A test that keeps a port for later has the TCP port of the same number.
        for kind in socket.SOCK_STREAM, socket.SOCK_DGRAM:
            sockets.append(socket.socket(type=kind))
            sockets[-1].bind(("127.0.0.1", port))
    except OSError:
        continue
    ports.append(port)
    if len(ports) == count:
        break
print(*ports)' "$1"
}
