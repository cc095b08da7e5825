#!/usr/bin/env python3
"""The smallest parent: sends a stored VP8 video (an IVF file) once to a player that was started
with these two ports.    Usage: minimal_parent.py PLAYER_PORT PARENT_PORT VIDEO.ivf"""

import socket
import struct
import sys
import time


def read_ivf(path):
    """The time between two frames, in seconds, and the frames."""
    with open(path, "rb") as file:
        rate, scale = struct.unpack("<16xII8x", file.read(32))
        frames = []
        while head := file.read(12):  # size and time of a frame
            frames.append(file.read(struct.unpack("<I8x", head)[0]))
    return scale / rate, frames


def keyframe_wanted():
    """Whether the player has asked for a keyframe since the last call."""
    wanted = False
    try:
        while True:  # it may also say "AUDS" and the volume
            wanted |= wire.recv(16, socket.MSG_DONTWAIT) == b"KFRQ"
    except BlockingIOError:
        return wanted


if len(sys.argv) != 4:
    sys.exit(__doc__)
player = ("127.0.0.1", int(sys.argv[1]))
wire = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
wire.bind(("127.0.0.1", int(sys.argv[2])))
interval, frames = read_ivf(sys.argv[3])
frame_id = at = keyframe = 0
while at < len(frames):
    frame_id += 1  # grows, come what may
    if frames[at][0] % 2 == 0:
        keyframe = at  # VP8's first bit
    slices = [frames[at][i : i + 1400] for i in range(0, len(frames[at]), 1400)]
    for index, payload in enumerate(slices):
        header = struct.pack("<28xIHHH2x", frame_id, index, len(slices), len(payload))
        wire.sendto(header + payload, player)
        time.sleep(interval / len(slices))  # never a burst: the player takes one datagram a pass
    at = keyframe if keyframe_wanted() else at + 1  # a live parent has its encoder make one now
