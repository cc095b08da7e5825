#!/usr/bin/env python3
"""The smallest parent: sends a stored VP8 video (an IVF file) once to a player that was started
with these two ports.    Usage: minimal_parent.py PLAYER_PORT PARENT_PORT VIDEO.ivf"""

import socket
import struct
import sys
import time


def read_ivf(path):
    """The frames, each with the time in seconds at which it is due."""
    with open(path, "rb") as file:
        rate, scale = struct.unpack("<16xII8x", file.read(32))
        frames = []
        while len(head := file.read(12)) == 12:
            size, timestamp = struct.unpack("<IQ", head)
            if frame := file.read(size):  # of an empty one there is nothing to send
                frames.append((timestamp * scale / rate, frame))
    return frames


def keyframe_wanted():
    """Whether the player has asked for a keyframe since the last call."""
    wanted = False
    try:
        while True:  # it may also send "AUDS" and the volume
            wanted |= wire.recv(16, socket.MSG_DONTWAIT) == b"KFRQ"
    except BlockingIOError:
        return wanted


if len(sys.argv) != 4:
    sys.exit(__doc__)
player = ("127.0.0.1", int(sys.argv[1]))
wire = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
wire.bind(("127.0.0.1", int(sys.argv[2])))
frames = read_ivf(sys.argv[3])
start = time.monotonic()  # when the frame with time 0 is due
frame_id = at = keyframe = 0
repeated = -1
while at < len(frames):
    due, frame = frames[at]
    if frame[0] % 2 == 0:
        keyframe = at  # VP8's first bit
    # Grows, even if this program restarts.
    frame_id = max(frame_id + 1, int(time.monotonic() * 100) % 2**32)
    slices = [frame[i : i + 1400] for i in range(0, len(frame), 1400)]
    for index, payload in enumerate(slices):
        # Never a burst: the player takes one datagram a pass.
        time.sleep(max(0.004, start + due - time.monotonic()))
        header = struct.pack("<28xIHHH2x", frame_id, index, len(slices), len(payload))
        wire.sendto(header + payload, player)
    at += 1
    if keyframe_wanted() and repeated < keyframe:  # a live parent has its encoder make one now
        at = repeated = keyframe
        start += due - frames[keyframe][0]
