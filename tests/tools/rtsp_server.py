"""An RTSP server on 127.0.0.1, at rtsp://127.0.0.1:PORT/live; prints PORT once it answers.

usage: rtsp_server.py PIPELINE

Each client has a PIPELINE of its own, in whose description the payloaders are named pay0, pay1.
"""

import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer

Gst.init(None)
factory = GstRtspServer.RTSPMediaFactory.new()
factory.set_launch(sys.argv[1])
server = GstRtspServer.RTSPServer.new()
server.set_address("127.0.0.1")
server.set_service("0")  # any port
server.get_mount_points().add_factory("/live", factory)
server.attach(None)
print(server.get_bound_port(), flush=True)
GLib.MainLoop().run()
