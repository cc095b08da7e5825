#include "tools/parent/open_feed.h"

#include "tools/stream/live_feed.h"
#include "tools/stream/media_source.h"
#include "tools/stream/relay.h"
#include "tools/stream/replay_feed.h"

namespace vesper::tools {

namespace {

[[nodiscard]] bool open_source(const Options& options, MediaSource& source) {
    const MediaSettings settings = {.width = options.stream.video.width,
                                    .height = options.stream.video.height,
                                    .frames_per_second = options.stream.video.frames_per_second,
                                    .sound = options.sound};
    if (options.screen) {
        return source.open_screen(settings, *options.screen);
    }
    if (!options.file.empty()) {
        return source.open_file(settings, options.file, options.loop);
    }
    return source.open_test_picture(settings);
}

}  // namespace

std::unique_ptr<Feed> open_feed(const Options& options, Link& link) {
    if (!options.replay.empty()) {
        auto feed = std::make_unique<ReplayFeed>(link, options.speed);
        return feed->open(options.replay) ? std::move(feed) : nullptr;
    }
    if (options.copy) {
        auto feed = std::make_unique<Relay>(
            RelaySettings{.input = options.file,
                          .loop = options.loop,
                          .sound = options.sound,
                          // A player that we did not start we cannot start again.
                          .new_player_for_new_size = options.restart && options.to_port == 0,
                          .stream = options.stream},
            link);
        feed->open();
        return feed;
    }
    auto feed = std::make_unique<LiveFeed>(link);
    return open_source(options, feed->source()) && feed->open(options.stream) ? std::move(feed)
                                                                              : nullptr;
}

}  // namespace vesper::tools
