// What a player is fed, whatever that is: the live stream that we encode, a capture sent again, or
// a stream that somebody else encoded. Each hands its datagrams to a link at their time, and
// whoever runs the player needs to know no more of it than this.
#pragma once

#include <cstdint>
#include <span>

#include "tools/stream/vp8_frame.h"

namespace vesper::tools {

// Calls come from one thread, but for those marked otherwise.
class Feed {
  public:
    struct Counters {
        std::uint64_t frames = 0;   // video frames on their way
        std::uint64_t skipped = 0;  // pictures left out because encoding fell behind
    };

    virtual ~Feed() = default;

    // What the player is told before it starts.
    [[nodiscard]] virtual PictureSize picture_size() const = 0;
    [[nodiscard]] virtual bool has_sound() const = 0;

    // Begins to send; once, when the player listens.
    virtual void start() = 0;

    // The player asks for a keyframe. Any thread.
    virtual void request_keyframe() = 0;

    // The link sent this to the player. The link's thread.
    virtual void datagram_sent(std::span<const std::uint8_t> /*datagram*/) {}

    // Whether everything has been handed to the link.
    [[nodiscard]] virtual bool finished() const = 0;

    // Ends sending. Nothing is handed to the link after that.
    virtual void stop() = 0;

    [[nodiscard]] virtual Counters counters() const = 0;
};

}  // namespace vesper::tools
