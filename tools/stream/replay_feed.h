// The stream of a capture, sent again.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tools/stream/capture.h"
#include "tools/stream/feed.h"
#include "tools/stream/link.h"

namespace vesper::tools {

class ReplayFeed : public Feed {
  public:
    // Sends `speed` times as fast as was captured. `link` outlives the feed.
    ReplayFeed(Link& link, double speed) : link_(link), speed_(speed) {}

    // Reads the capture. False, with a line on standard error, when it cannot be read or contains
    // nothing for a player.
    [[nodiscard]] bool open(const std::string& path);

    // That of the first keyframe; 0x0 if there is none.
    [[nodiscard]] PictureSize picture_size() const override { return size_; }
    [[nodiscard]] bool has_sound() const override { return has_sound_; }
    void start() override;
    void request_keyframe() override {}  // only what was captured is sent
    void datagram_sent(std::span<const std::uint8_t> datagram) override;
    [[nodiscard]] bool finished() const override { return true; }
    void stop() override {}
    // Counts the frames of which the link has sent the beginning: it is given all of them at once.
    [[nodiscard]] Counters counters() const override { return {.frames = frames_}; }

  private:
    Link& link_;
    double speed_;
    std::vector<CapturedDatagram> stream_;  // until start()
    PictureSize size_;
    bool has_sound_ = false;
    std::atomic<std::uint64_t> frames_ = 0;
};

}  // namespace vesper::tools
