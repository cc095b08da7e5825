// A stream that is encoded already, sent to the player as it is: VP8 frames and Opus packets bit
// for bit, at the times of their timestamps. Anything else is decoded, and encoded like a live
// stream.
//
// Two threads, so that a slow or silent input never delays what has already arrived:
//
//   reader   input -> timeline -> (Opus packets split, other sound encoded) -> queues
//   sender   queues, each packet at its time -> (other video encoded) -> datagrams -> link
//
// A file is read a little ahead of its time and waits for us. A live input does not wait: its
// packets are sent as they arrive.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tools/stream/decoder.h"
#include "tools/stream/feed.h"
#include "tools/stream/keyframe_limit.h"
#include "tools/stream/link.h"
#include "tools/stream/media_input.h"
#include "tools/stream/pace.h"
#include "tools/stream/packetizer.h"
#include "tools/stream/sound_encoder.h"
#include "tools/stream/streamer.h"
#include "tools/stream/timeline.h"
#include "tools/stream/vp8_encoder.h"

struct AVPacket;

namespace vesper::tools {

struct RelaySettings {
    std::string input;  // as MediaInput opens it
    bool loop = false;  // at its end the input restarts
    bool sound = true;  // whether any is wanted
    // Where pictures of another size begin: wait for another player, or continue with the old one.
    bool new_player_for_new_size = true;
    StreamSettings stream{};  // for what has to be encoded; burst and low_delay for all
};

class Relay : public Feed {
  public:
    // `link` outlives the relay.
    Relay(RelaySettings settings, Link& link);
    // Stops.
    ~Relay() override;
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    // Begins to open and to read; once. state() reports the result: a relay is ready once its first
    // keyframe has arrived.
    void open();

    [[nodiscard]] State state() const override;
    [[nodiscard]] std::vector<std::string> take_lines() override;
    [[nodiscard]] PictureSize picture_size() const override;
    [[nodiscard]] bool has_sound() const override;
    void start() override;
    // Without an encoder of our own there is no keyframe to send: an earlier one would show the
    // past.
    void request_keyframe() override;
    [[nodiscard]] bool needs_new_player() const override;
    void go_on() override;
    [[nodiscard]] bool finished() const override;
    void stop() override;
    [[nodiscard]] Counters counters() const override;

  private:
    using Time = Timeline::Time;

    struct PacketDeleter {
        void operator()(AVPacket* packet) const;
    };
    using Packet = std::unique_ptr<AVPacket, PacketDeleter>;

    // What leaves at one time.
    struct Item {
        Time time{};
        Clock::time_point due;            // of a live input
        std::vector<std::uint8_t> bytes;  // a VP8 frame or an Opus packet
        Packet to_encode;                 // or else a packet of other video, stamped with `time`
        std::optional<PictureSize> size;  // of a VP8 keyframe
    };
    using Queue = std::deque<Item>;

    // The reader's.
    void read();
    [[nodiscard]] bool set_up_streams();
    [[nodiscard]] bool set_up_pictures();
    void set_up_sound();
    [[nodiscard]] bool reencode_sound(const std::string& reason);
    void take(AVPacket& packet);
    void report_missing_keyframe(Clock::time_point now);
    void take_picture(AVPacket& packet, Item item);
    void take_sound(AVPacket& packet, const Item& item);
    void queue_encoded(const std::vector<SoundEncoder::Encoded>& packets,
                       Clock::time_point arrival);
    void queue_item(Queue& queue, Item item, Clock::time_point arrival);
    [[nodiscard]] bool is_only_a_pause(int result) const;
    [[nodiscard]] bool begin_next_round(int reason);
    void tell_of_the_end(int reason);
    void note_arrival(Clock::time_point now);
    void fail(const std::string& what);
    [[nodiscard]] bool give_up();
    [[nodiscard]] static std::size_t size_of(const Item& item);
    [[nodiscard]] bool is_full() const;

    // The sender's.
    void send();
    [[nodiscard]] Queue* next_queue();
    [[nodiscard]] Clock::time_point due_of(const Item& item, Clock::time_point now);
    [[nodiscard]] bool is_at_new_size(const Item& item) const;
    void wait_for_new_player(std::unique_lock<std::mutex>& lock);
    [[nodiscard]] bool is_left_out(const Queue& queue, const Item& item, Clock::time_point due,
                                   Clock::time_point now) const;
    [[nodiscard]] Clock::duration time_to_next_picture(const Item& item);
    void report_silence(Clock::time_point now);
    void send_picture(const Item& item, Clock::time_point due, Clock::duration room);
    [[nodiscard]] bool may_repeat() const;
    void send_frame(const std::vector<std::uint8_t>& frame, int times, Clock::time_point due,
                    Clock::duration room);
    void send_rest();
    void send_encoded(std::vector<Picture> pictures, Clock::time_point due, Clock::duration room);
    void encode_and_send(bool keyframe, Clock::time_point due, Clock::duration room);

    // Any thread; the mutex is not held.
    void report(const std::string& text);
    void report_too_large(std::size_t frame);  // bytes

    const RelaySettings settings_;
    Link& link_;

    // The reader's own; what it sets up before it is ready is then read by all.
    MediaInput input_;
    bool is_live_ = false;
    bool copies_pictures_ = false;
    std::optional<SoundEncoder> sound_encoder_;  // where sound is not copied
    Timeline timeline_{false};
    LivePace live_pace_;
    std::optional<std::int64_t> last_timestamp_[2];  // microseconds, of pictures and sound
    std::int64_t furthest_ = 0;   // latest timestamp of the round, in microseconds
    bool took_in_round_ = false;  // a packet has arrived since the input was last opened
    bool damage_reported_ = false;
    bool end_reported_ = false;  // that a round ended early
    bool missing_keyframe_reported_ = false;
    bool missing_sound_reported_ = false;
    std::optional<Clock::time_point> first_arrival_;
    std::int64_t received_ = 0;  // bytes, when data last arrived
    std::thread reader_;

    // The sender's own.
    VideoPacketizer video_packetizer_;
    AudioPacketizer sound_packetizer_;
    Decoder decoder_;                      // of video that is no VP8
    Vp8Encoder video_encoder_;             // of the same
    std::vector<std::uint8_t> repeat_;     // the frame that repeats the previous one of the same
    Picture picture_;                      // the newest of the same
    Clock::time_point last_datagram_due_;  // of the newest frame
    std::optional<Time> last_picture_;     // time of the newest
    Clock::duration last_interval_{};      // between the last two pictures, as they are spread
    Clock::duration last_step_ = Timeline::kUsualStep;  // between two pictures that differ in time
    Clock::time_point last_due_;                        // of the newest picture
    bool rest_sent_ = false;                            // what the decoder held back has been sent
    bool behind_ = false;                               // the last picture was left out
    bool missing_picture_reported_ = false;
    std::thread sender_;

    std::atomic<bool> stopping_ = false;
    std::atomic<Clock::rep> last_progress_ = 0;  // of opening: when data last arrived

    mutable std::mutex mutex_;  // guards the rest
    std::condition_variable changed_;
    State state_ = State::kOpening;
    std::vector<std::string> lines_;
    Counters counters_;
    PictureSize size_;
    bool has_pictures_ = false;
    bool has_sound_ = false;
    Queue pictures_;
    Queue sounds_;
    std::size_t queued_bytes_ = 0;
    bool read_all_ = false;
    bool finished_ = false;
    bool needs_new_player_ = false;
    FilePace file_pace_;
    KeyframeLimit keyframe_limit_;
    bool request_reported_ = false;
    Clock::time_point last_arrival_;
    bool silence_reported_ = false;
};

}  // namespace vesper::tools
