#include "tools/stream/live_feed.h"

namespace vesper::tools {

bool LiveFeed::open(const StreamSettings& settings) {
    size_ = {.width = settings.video.width, .height = settings.video.height};
    return streamer_.open(settings);
}

Feed::Counters LiveFeed::counters() const {
    const Streamer::Counters streamed = streamer_.counters();
    return {.frames = streamed.frames, .skipped = streamed.skipped};
}

}  // namespace vesper::tools
