// Sends a captured stream to a player again.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "tools/stream/capture.h"
#include "tools/stream/link.h"
#include "tools/stream/vp8_frame.h"

namespace vesper::tools {

// Passes `stream` to the link: the first datagram is due at `start`, the others as long after it as
// in the capture, `speed` (above 0) times as fast, but at most a hundred years. Where the capture's
// times go back, the order stays. The link is idle once the last one has been sent.
void replay(std::vector<CapturedDatagram> stream, double speed, Clock::time_point start,
            Link& link);

// The size of the stream's pictures, as its first VP8 keyframe declares it. Nothing if there is no
// first fragment of a keyframe.
[[nodiscard]] std::optional<PictureSize> picture_size(std::span<const CapturedDatagram> stream);

// Whether this is the first fragment of a video frame.
[[nodiscard]] bool begins_frame(std::span<const std::uint8_t> datagram);

// Whether a datagram of the stream is a sound packet.
[[nodiscard]] bool carries_sound(std::span<const CapturedDatagram> stream);

}  // namespace vesper::tools
