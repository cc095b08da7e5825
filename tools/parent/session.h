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

    // Opens the feed. False when that failed.
    [[nodiscard]] bool open();

    // Call it regularly. Passes on the feed's messages; once the feed is ready, starts the player
    // or, if the player runs already, the stream; starts another player if the feed needs one.
    // False when the feed or a player failed to start.
    [[nodiscard]] bool update();

    // Passes on the player's output, and starts the stream when the player reports that it listens.
    void read_player();

    // The player's output and errors, to wait for; -1 if there is none.
    [[nodiscard]] int player_output() const { return player_ ? player_->output() : -1; }
    [[nodiscard]] int player_errors() const { return player_ ? player_->errors() : -1; }

    // Once the player that we started has ended by itself: its exit status.
    [[nodiscard]] std::optional<int> player_exit_status();

    // Whether the stream has started, and whether the feed has ended and all of it has been sent.
    // Both are true once the player has ended by itself: there is nothing more to wait for.
    [[nodiscard]] bool started() { return started_ || player_exit_status(); }
    [[nodiscard]] bool finished() { return feed_finished() || player_exit_status(); }

    // Ends the stream and asks the player to end.
    void stop();

    // Adds this stream's figures to those of the others; leaves the time unchanged.
    void add_to(Figures& figures);

  private:
    [[nodiscard]] bool feed_finished() const;
    [[nodiscard]] bool has_sound() const;
    [[nodiscard]] PictureSize picture_size() const;
    [[nodiscard]] bool open_player();
    [[nodiscard]] bool start_player();
    [[nodiscard]] bool replace_player();
    void count_overflows();
    void pass_on(std::FILE* stream, std::string_view line);
    void start_stream();
    void keep(Direction direction, std::span<const std::uint8_t> datagram);

    const Options& options_;
    int number_;
    StatusReporter& reporter_;
    CaptureWriter& capture_;
    bool ready_ = false;  // the feed was, and the player or the stream was started
    bool started_ = false;
    bool replaced_ = false;  // another player has been started, but does not listen yet
    std::optional<Clock::time_point> replacing_since_;  // the player is asked to make place
    std::uint64_t overflowed_ = 0;         // as last read: gone once the player has ended
    std::uint64_t overflowed_before_ = 0;  // of the players that made place

    std::mutex mutex_;  // guards the next, which the link's thread writes once it is started
    std::optional<AudioState> audio_state_;

    Link link_;
    std::unique_ptr<Feed> feed_;  // null before open()
    std::optional<PlayerProcess> player_;
};

}  // namespace vesper::tools
