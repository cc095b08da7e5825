#include "bench/window/wire.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "net/stream_datagrams.h"
#include "net/udp_socket.h"
#include "tools/stream/free_port.h"
#include "tools/stream/packetizer.h"

namespace vesper::bench {

namespace {

class BoundSocket {
  public:
    explicit BoundSocket(std::uint16_t to_port) : to_port_(to_port) {
        if (!socket_.bind(0)) {
            std::exit(EXIT_FAILURE);
        }
    }
    void send(std::span<const std::uint8_t> datagram) {
        socket_.send(datagram.data(), datagram.size(), kParentHost, to_port_);
    }

  private:
    UDPSocket socket_;
    std::uint16_t to_port_;
};

// When each datagram of a frame is due.
class Pace {
  public:
    Pace(std::ptrdiff_t datagrams, Wire::Clock::duration spread) : spacing_(spread / datagrams) {}

    void wait() {
        if (spacing_ > Wire::Clock::duration::zero()) {
            std::this_thread::sleep_until(due_);
            due_ += spacing_;
        }
    }

  private:
    Wire::Clock::duration spacing_;
    Wire::Clock::time_point due_ = Wire::Clock::now();
};

class StreamWire : public Wire {
  public:
    explicit StreamWire(std::uint16_t port) : socket_(port) {}

    void send(std::span<const std::uint8_t> frame, std::chrono::milliseconds,
              Clock::duration spread) override {
        const std::vector<tools::Datagram> datagrams = packetizer_.packetize(frame);
        Pace pace(std::ssize(datagrams), spread);
        for (const tools::Datagram& datagram : datagrams) {
            pace.wait();
            socket_.send(datagram);
        }
    }

  private:
    BoundSocket socket_;
    tools::VideoPacketizer packetizer_;
};

class RtpWire : public Wire {
  public:
    explicit RtpWire(std::uint16_t port) : socket_(port) {}

    void send(std::span<const std::uint8_t> frame, std::chrono::milliseconds media_time,
              Clock::duration spread) override {
        constexpr std::size_t kPayload = kMaxFragmentPayload;  // the same cuts as the stream's
        const auto timestamp = static_cast<std::uint32_t>(media_time.count() * kTicksPerMs);
        Pace pace(static_cast<std::ptrdiff_t>((frame.size() + kPayload - 1) / kPayload), spread);
        for (std::size_t at = 0; at < frame.size(); at += kPayload) {
            pace.wait();
            const auto part = frame.subspan(at, std::min(kPayload, frame.size() - at));
            socket_.send(packet(part, timestamp, at == 0, at + part.size() == frame.size()));
        }
    }

  private:
    static constexpr int kTicksPerMs = 90;  // RTP's clock for video: 90 kHz

    std::vector<std::uint8_t> packet(std::span<const std::uint8_t> part, std::uint32_t timestamp,
                                     bool first, bool last) {
        constexpr std::uint8_t kVersion2 = 0x80;
        constexpr std::uint8_t kPayloadType = 96;
        constexpr std::uint8_t kMarker = 0x80;            // last packet of the frame
        constexpr std::uint8_t kStartOfPartition = 0x10;  // RFC 7741, section 4.2
        std::vector<std::uint8_t> bytes = {
            kVersion2, static_cast<std::uint8_t>(kPayloadType | (last ? kMarker : 0))};
        const auto add = [&bytes](std::uint32_t value, int size) {
            for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
                bytes.push_back(static_cast<std::uint8_t>(value >> shift));
            }
        };
        add(sequence_++, 2);
        add(timestamp, 4);
        add(1, 4);  // synchronisation source
        add(first ? kStartOfPartition : 0, 1);
        bytes.insert(bytes.end(), part.begin(), part.end());
        return bytes;
    }

    BoundSocket socket_;
    std::uint16_t sequence_ = 0;
};

}  // namespace

std::unique_ptr<Wire> make_stream_wire(std::uint16_t port) {
    return std::make_unique<StreamWire>(port);
}

std::unique_ptr<Wire> make_rtp_wire(std::uint16_t port) {
    return std::make_unique<RtpWire>(port);
}

std::uint16_t free_rtp_port() {
    std::uint16_t port = 0;
    do {
        port = tools::free_port();
    } while (port % 2 != 0);
    return port;
}

}  // namespace vesper::bench
