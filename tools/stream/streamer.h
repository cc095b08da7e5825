// Turns a source into a live stream: takes pictures and sound from it in real time, encodes them,
// splits them into datagrams and passes these to the link.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "audio/opus_codec.h"
#include "tools/stream/link.h"
#include "tools/stream/media_source.h"
#include "tools/stream/packetizer.h"
#include "tools/stream/vp8_encoder.h"

namespace vesper::tools {

// Share of the time until the next frame over which a frame's datagrams are spread. The rest is for
// the player to take the last ones, so that the next frame finds it waiting, and a keyframe does
// not delay the frame after it.
inline constexpr double kSpread = 0.75;

// Time between two of a frame's `datagrams`, of which there is at least one, where the next frame
// is due after `room`. None where that is past.
[[nodiscard]] Clock::duration datagram_spacing(std::ptrdiff_t datagrams, Clock::duration room);

struct StreamSettings {
    Vp8Settings video{};  // as many frames a second as the source has pictures

    // All datagrams of a frame at once. Otherwise they are spread over most of the time until the
    // next frame, which spares the player's receive buffer.
    bool burst = false;

    // Every picture is followed by a frame that repeats it. A decoder may delay a picture until the
    // next frame arrives; the repeat, one small datagram, pushes it out at once. While the player
    // does not keep up (receive_queue.h), no repeat is sent: it would only delay the pictures.
    bool low_delay = false;
};

class Streamer {
  public:
    struct Counters {
        std::uint64_t frames = 0;   // encoded and passed to the link
        std::uint64_t answers = 0;  // of these, keyframes that the player asked for
        std::uint64_t skipped = 0;  // pictures left out because encoding fell behind
    };

    // Source and link are open and outlive the streamer, which alone uses the source.
    Streamer(MediaSource& source, Link& link) : source_(source), link_(link) {}
    // Stops.
    ~Streamer();
    Streamer(const Streamer&) = delete;
    Streamer& operator=(const Streamer&) = delete;

    // Makes the encoders. False, with a line on standard error, when one refuses.
    [[nodiscard]] bool open(const StreamSettings& settings);

    // Starts the thread that streams; once, after open().
    void start();

    // Sends the newest picture again as a keyframe, at once instead of at the next frame's time: a
    // player that asks is showing a damaged picture or none. Any thread.
    void request_keyframe();

    // Ends the thread.
    void stop();

    // Whether the source has ended. Any thread.
    [[nodiscard]] bool finished() const;

    // Any thread.
    [[nodiscard]] Counters counters() const;

  private:
    enum class Step { kPicture, kSound, kKeyframe, kStop };

    void run();
    [[nodiscard]] Step wait_for_step();
    void stream_picture();
    void stream_sound();
    void answer_with_keyframe();
    void send_picture(bool keyframe, Clock::time_point until);
    [[nodiscard]] std::vector<Datagram> encode_picture(bool keyframe);
    [[nodiscard]] std::vector<Datagram> packetize(std::span<const std::uint8_t> frame);
    void catch_up();

    MediaSource& source_;
    Link& link_;

    // The thread's own.
    StreamSettings settings_;
    Vp8Encoder video_encoder_;
    OpusEncoderWrapper sound_encoder_;
    VideoPacketizer video_packetizer_;
    AudioPacketizer sound_packetizer_;
    std::vector<std::uint8_t> repeat_;  // the frame that repeats the previous one
    Picture picture_;                   // the newest
    Clock::duration frame_interval_{};  // time between two pictures
    Clock::time_point picture_due_;
    Clock::time_point sound_due_;
    Clock::time_point last_datagram_due_;  // of the newest frame
    bool has_sound_ = false;               // there is more to come

    std::thread thread_;
    mutable std::mutex mutex_;  // guards the rest
    std::condition_variable changed_;
    Counters counters_;
    bool running_ = false;
    bool keyframe_requested_ = false;
    bool finished_ = false;
};

}  // namespace vesper::tools
