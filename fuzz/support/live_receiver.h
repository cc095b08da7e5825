// A receiver as the player runs it, with window, decode thread and sound, and the rules that hold
// for any input.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>

#include "client/video_receiver.h"
#include "tests/support/video_receiver_peer.h"

namespace vesper::fuzz {

// Called once, before the first receiver: SDL with its dummy video driver, no lines of libavcodec.
void prepare_process();

// One for each input, so that nothing of an earlier input is left. Every operation ends the run if
// a rule is broken.
class LiveReceiver {
  public:
    LiveReceiver(int width, int height);

    // Passes a datagram to the handler that the player would choose.
    void receive(std::span<const std::uint8_t> datagram);

    // Returns when the decode thread has dealt with everything queued so far.
    void settle();

    // Makes every partial frame older.
    void age(std::chrono::milliseconds by);

    // The rules of reassembly, ring and picture.
    void check();

    // After any input, unless it ended the stream: a keyframe brings a picture, and a sound packet
    // is heard.
    void check_still_plays();

    [[nodiscard]] client::VideoReceiver& receiver() { return receiver_; }

  private:
    void check_partial_frames();
    void check_fragments(std::uint32_t frame_id);
    void check_ring();
    void check_picture();
    void wait_for_empty_ring();
    void check_plays_video();
    void check_plays_sound();
    [[nodiscard]] std::optional<std::uint32_t> unused_frame_id();
    [[nodiscard]] bool shows_good_picture();

    client::VideoReceiver receiver_;
    client::VideoReceiverPeer peer_{receiver_};
    std::uint32_t last_completed_seen_ = 0;
};

}  // namespace vesper::fuzz
