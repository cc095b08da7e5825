#include "tests/e2e/live_stream.h"

#include <algorithm>
#include <memory>
#include <thread>
#include <utility>

#include "net/stream_datagrams.h"

namespace vesper::test {

namespace {

constexpr std::chrono::nanoseconds kFrameInterval =
    std::chrono::nanoseconds(std::chrono::seconds(1)) / 30;
constexpr std::chrono::milliseconds kPacketInterval{20};

// A stream this far behind no longer tries to catch up: the frames in between would be sent in a
// burst.
constexpr std::chrono::seconds kHopelesslyLate{1};

}  // namespace

LiveStream::LiveStream(Parent& parent, std::uint16_t player_port, NextFrame next_frame)
    : parent_(parent), player_port_(player_port), next_frame_(std::move(next_frame)) {}

bool LiveStream::run(std::chrono::milliseconds time, const Network& network) {
    Clock::time_point frame_due = Clock::now();
    Clock::time_point packet_due = frame_due;
    for (auto frames = time / kFrameInterval; frames > 0;) {
        std::this_thread::sleep_until(std::min(frame_due, packet_due));
        take_messages();
        if (const auto late = Clock::now() - std::min(frame_due, packet_due);
            late > kHopelesslyLate) {
            frame_due += late;
            packet_due += late;
            ++counters_.late;
        }
        const bool sound_first = packet_due < frame_due;
        if (!(sound_first ? send_sound(network) : send_frame(network))) {
            return false;
        }
        if (sound_first) {
            packet_due += kPacketInterval;
        } else {
            frame_due += kFrameInterval;
            --frames;
        }
    }
    take_messages();
    return true;
}

void LiveStream::take_messages() {
    for (Message message = parent_.waiting_message(); !message.empty();
         message = parent_.waiting_message()) {
        if (is_keyframe_request(message)) {
            keyframe_wanted_ = true;
            ++counters_.keyframe_requests;
        }
    }
}

bool LiveStream::send_frame(const Network& network) {
    ++counters_.frames;
    return send(next_frame_(std::exchange(keyframe_wanted_, false)), network);
}

bool LiveStream::send_sound(const Network& network) {
    return send({sound_.packetize(tone_.packets(1).front())}, network);
}

bool LiveStream::send(const std::vector<tools::Datagram>& datagrams, const Network& network) {
    std::vector<tools::Datagram> arriving;
    for (const tools::Datagram& datagram : datagrams) {
        const std::vector<tools::Datagram> passed = network(datagram);
        counters_.impaired += passed == std::vector<tools::Datagram>{datagram} ? 0 : 1;
        arriving.insert(arriving.end(), passed.begin(), passed.end());
    }
    counters_.sent += datagrams.size();
    return parent_.send(arriving, player_port_);
}

LiveStream::Network perfect_network() {
    return
        [](tools::Datagram datagram) { return std::vector<tools::Datagram>{std::move(datagram)}; };
}

LiveStream::Network impaired(const tools::ImpairmentSettings& settings) {
    const auto impairments = std::make_shared<tools::Impairments>(settings);
    return [impairments](tools::Datagram datagram) {
        std::vector<tools::Datagram> arriving;
        for (tools::Departure& departure : impairments->pass(std::move(datagram), {})) {
            arriving.push_back(std::move(departure.datagram));
        }
        return arriving;
    };
}

}  // namespace vesper::test
