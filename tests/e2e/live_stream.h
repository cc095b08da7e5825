// A parent application at work: pictures and sound in real time, keyframes when the player asks for
// them, over a simulated network that may lose or change what they send.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <vector>

#include "tests/e2e/parent.h"
#include "tests/e2e/test_stream.h"
#include "tools/stream/impairments.h"
#include "tools/stream/packetizer.h"

namespace vesper::test {

class LiveStream {
  public:
    // The datagrams of the stream's next frame.
    using NextFrame = std::function<std::vector<tools::Datagram>(bool keyframe)>;

    // A simulated network. Called with each datagram sent; returns the datagrams, in order, that
    // arrive now.
    using Network = std::function<std::vector<tools::Datagram>(tools::Datagram)>;

    struct Counters {
        std::uint64_t frames = 0;
        std::uint64_t keyframe_requests = 0;  // and as many keyframes
        std::uint64_t sent = 0;               // datagrams, before the network
        std::uint64_t impaired = 0;  // of these, all that did not arrive at once, once and whole
        std::uint64_t late = 0;      // times that the stream fell behind and restarted its clock
    };

    // For the player that listens on `player_port` and talks to `parent`, which outlives the
    // object. Sound is sent, too.
    LiveStream(Parent& parent, std::uint16_t player_port, NextFrame next_frame);

    // Streams as many frames as `time` has, and their sound, over `network`. Each frame and packet
    // leaves when it is due and the player has taken what came before: a slow machine takes longer
    // instead of losing more than the network does, so the same seed loses as much anywhere. False
    // when the player stops taking datagrams.
    [[nodiscard]] bool run(std::chrono::milliseconds time, const Network& network);

    // Counts the keyframe requests that have come since.
    void take_messages();

    [[nodiscard]] const Counters& counters() const { return counters_; }

  private:
    using Clock = std::chrono::steady_clock;

    [[nodiscard]] bool send(const std::vector<tools::Datagram>& datagrams, const Network& network);
    [[nodiscard]] bool send_frame(const Network& network);
    [[nodiscard]] bool send_sound(const Network& network);

    Parent& parent_;
    std::uint16_t player_port_;
    NextFrame next_frame_;
    ToneSource tone_;
    tools::AudioPacketizer sound_;
    bool keyframe_wanted_ = false;
    Counters counters_;
};

// The network that changes nothing.
[[nodiscard]] LiveStream::Network perfect_network();

// What the tools' impairments do, all times left out.
[[nodiscard]] LiveStream::Network impaired(const tools::ImpairmentSettings& settings);

}  // namespace vesper::test
