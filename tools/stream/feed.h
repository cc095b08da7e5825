// What a player is fed, whatever that is: the live stream that we encode, a capture sent again, or
// a stream that somebody else encoded. Each hands its datagrams to a link at their time, and
// whoever runs the player needs to know no more of it than this.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tools/stream/vp8_frame.h"

namespace vesper::tools {

// Calls come from one thread, but for those marked otherwise.
class Feed {
  public:
    struct Counters {
        std::uint64_t frames = 0;      // video frames on their way
        std::uint64_t skipped = 0;     // pictures left out because sending fell behind
        std::uint64_t unanswered = 0;  // requests for a keyframe that had none to answer with
    };

    enum class State {
        kOpening,  // not yet known what the player is to be told
        kReady,
        kFailed,  // for good; the last line says why
    };

    virtual ~Feed() = default;

    [[nodiscard]] virtual State state() const { return State::kReady; }

    // What there is to say to whoever watches, a line each, since the last call.
    [[nodiscard]] virtual std::vector<std::string> take_lines() { return {}; }

    // What the player is told before it starts, once this is ready. 0x0 where no size is known.
    [[nodiscard]] virtual PictureSize picture_size() const = 0;
    [[nodiscard]] virtual bool has_sound() const = 0;

    // Begins to send; once, when the player listens.
    virtual void start() = 0;

    // The player asks for a keyframe. Any thread.
    virtual void request_keyframe() = 0;

    // The link sent this to the player. The link's thread.
    virtual void datagram_sent(std::span<const std::uint8_t> /*datagram*/) {}

    // Whether the stream goes on only with another player, because its pictures have another size
    // from here on; picture_size() is that size. The feed waits until go_on() says that one
    // listens.
    [[nodiscard]] virtual bool needs_new_player() const { return false; }
    virtual void go_on() {}

    // Whether everything has been handed to the link.
    [[nodiscard]] virtual bool finished() const = 0;

    // Ends sending. Nothing is handed to the link after that.
    virtual void stop() = 0;

    [[nodiscard]] virtual Counters counters() const = 0;
};

}  // namespace vesper::tools
