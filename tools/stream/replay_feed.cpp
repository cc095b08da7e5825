#include "tools/stream/replay_feed.h"

#include <cstdio>
#include <utility>

#include "tools/stream/replay.h"

namespace vesper::tools {

bool ReplayFeed::open(const std::string& path) {
    auto capture = read_capture(path);
    if (!capture) {
        return false;
    }
    stream_ = sent_to_player(std::move(*capture));
    if (stream_.empty()) {
        std::fprintf(stderr, "%s: contains nothing for a player\n", path.c_str());
        return false;
    }
    size_ = tools::picture_size(stream_).value_or(PictureSize{});
    has_sound_ = carries_sound(stream_);
    return true;
}

void ReplayFeed::start() {
    replay(std::exchange(stream_, {}), speed_, Clock::now(), link_);
}

void ReplayFeed::datagram_sent(std::span<const std::uint8_t> datagram) {
    if (begins_frame(datagram)) {
        ++frames_;
    }
}

}  // namespace vesper::tools
