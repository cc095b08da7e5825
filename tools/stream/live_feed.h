// The stream that we encode ourselves, in real time.
#pragma once

#include "tools/stream/feed.h"
#include "tools/stream/link.h"
#include "tools/stream/media_source.h"
#include "tools/stream/streamer.h"

namespace vesper::tools {

class LiveFeed : public Feed {
  public:
    // `link` outlives the feed.
    explicit LiveFeed(Link& link) : streamer_(source_, link) {}

    // Open it before open(), with the picture size and the sound of open()'s settings.
    [[nodiscard]] MediaSource& source() { return source_; }

    // Makes the encoders. False, with a line on standard error, when one refuses.
    [[nodiscard]] bool open(const StreamSettings& settings);

    [[nodiscard]] PictureSize picture_size() const override { return size_; }
    [[nodiscard]] bool has_sound() const override { return source_.has_sound(); }
    void start() override { streamer_.start(); }
    void request_keyframe() override { streamer_.request_keyframe(); }
    [[nodiscard]] bool finished() const override { return streamer_.finished(); }
    void stop() override { streamer_.stop(); }
    [[nodiscard]] Counters counters() const override;

  private:
    PictureSize size_;
    MediaSource source_;
    Streamer streamer_;
};

}  // namespace vesper::tools
