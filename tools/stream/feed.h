// The interface of everything that a player can be fed: a live stream that we encode, a capture
// sent again, or a stream that is encoded already. Each passes its datagrams to a link in time; the
// code that runs the player needs to know nothing more.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tools/stream/vp8_frame.h"

namespace vesper::tools {

// All calls come from one thread, except those marked otherwise.
class Feed {
  public:
    struct Counters {
        std::uint64_t frames = 0;      // video frames on their way
        std::uint64_t skipped = 0;     // pictures left out because sending fell behind
        std::uint64_t unanswered = 0;  // keyframe requests that could not be answered
    };

    enum class State {
        kOpening,  // the player's options are not known yet
        kReady,
        kFailed,  // for good; the last line gives the reason
    };

    virtual ~Feed() = default;

    [[nodiscard]] virtual State state() const { return State::kReady; }

    // Messages for the user since the last call, one line each.
    [[nodiscard]] virtual std::vector<std::string> take_lines() { return {}; }

    // What the player's options are set to, once this is ready. 0x0 if no size is known.
    [[nodiscard]] virtual PictureSize picture_size() const = 0;
    [[nodiscard]] virtual bool has_sound() const = 0;

    // Begins to send; once, when the player listens.
    virtual void start() = 0;

    // The player asks for a keyframe. Any thread.
    virtual void request_keyframe() = 0;

    // The link sent this to the player. The link's thread.
    virtual void datagram_sent(std::span<const std::uint8_t> /*datagram*/) {}

    // Whether the stream can continue only with another player, because its pictures change size
    // here; picture_size() is the new size. The feed waits for go_on(), which is called when the
    // new player listens.
    [[nodiscard]] virtual bool needs_new_player() const { return false; }
    virtual void go_on() {}

    // Whether everything has been passed to the link.
    [[nodiscard]] virtual bool finished() const = 0;

    // Ends sending. Nothing is passed to the link after that.
    virtual void stop() = 0;

    [[nodiscard]] virtual Counters counters() const = 0;
};

}  // namespace vesper::tools
