// Plays a capture to a player once more.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "tools/stream/capture.h"
#include "tools/stream/link.h"
#include "tools/stream/vp8_frame.h"

namespace vesper::tools {

// Hands `stream` to the link: the first datagram is due at `start`, each other one as long after it
// as in the capture, `speed` (above 0) times as fast. Where the capture's times go back, the order
// stays. The link is idle once the last one has left.
void replay(std::vector<CapturedDatagram> stream, double speed, Clock::time_point start,
            Link& link);

// Of the stream's pictures, as its first VP8 keyframe declares it. Nothing where none begins.
[[nodiscard]] std::optional<PictureSize> picture_size(std::span<const CapturedDatagram> stream);

// Whether this is the first fragment of a video frame.
[[nodiscard]] bool begins_frame(std::span<const std::uint8_t> datagram);

// Whether a datagram of the stream is a sound packet.
[[nodiscard]] bool carries_sound(std::span<const CapturedDatagram> stream);

}  // namespace vesper::tools
