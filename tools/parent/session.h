// One player and what it is fed: link, feed and, where we start it, the process.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>

#include "tools/parent/options.h"
#include "tools/parent/player_process.h"
#include "tools/parent/status.h"
#include "tools/stream/capture.h"
#include "tools/stream/feed.h"
#include "tools/stream/link.h"

namespace vesper::tools {

// All calls come from one thread. Failures print one line on standard error.
class Session {
  public:
    // The `number`th of options.streams, from 1. Its datagrams are kept in `capture` where the
    // options ask for it.
    Session(const Options& options, int number, StatusReporter& reporter, CaptureWriter& capture);
    // Stops.
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Opens the feed and the link, and starts the player unless one is to be fed that runs
    // already. The stream starts once the player listens. False when anything failed.
    [[nodiscard]] bool open();

    // Passes on what the player wrote, and starts the stream when it says that it listens.
    void read_player();

    // The player's output and errors, to wait for; -1 where there is none.
    [[nodiscard]] int player_output() const { return player_.output(); }
    [[nodiscard]] int player_errors() const { return player_.errors(); }

    // Once the player that we started has ended: its exit status.
    [[nodiscard]] std::optional<int> player_exit_status() { return player_.exit_status(); }

    // Whether the stream has started, and whether the feed has come to its end and all of it has
    // left.
    [[nodiscard]] bool started() const { return started_; }
    [[nodiscard]] bool feed_finished() const;

    // Ends the stream and asks the player to end.
    void stop();

    // Adds this stream's figures to those of the others; the time is left alone.
    void add_to(Figures& figures);

  private:
    [[nodiscard]] bool has_sound() const;
    [[nodiscard]] PictureSize picture_size() const;
    [[nodiscard]] bool start_player();
    void pass_on(std::FILE* stream, std::string_view line);
    void start_stream();
    void keep(Direction direction, std::span<const std::uint8_t> datagram);

    const Options& options_;
    int number_;
    StatusReporter& reporter_;
    CaptureWriter& capture_;
    bool started_ = false;
    std::uint64_t overflowed_ = 0;  // as last seen: a player that has ended tells no more

    std::mutex mutex_;  // guards the next, which the link's thread writes once it is started
    std::optional<AudioState> audio_state_;

    Link link_;
    std::unique_ptr<Feed> feed_;  // null before open()
    PlayerProcess player_;
};

}  // namespace vesper::tools
