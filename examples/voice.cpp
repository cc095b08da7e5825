// Sound alone: sends what the microphone hears to 127.0.0.1:PEER_PORT, as the packets of a stream's
// sound, and plays those that come to 127.0.0.1:PORT. With both ports the same you hear yourself.
// Ends with Ctrl-C.    Usage: voice PORT PEER_PORT
#include <SDL2/SDL.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <string_view>

#include "audio/opus_codec.h"
#include "client/audio_device.h"
#include "net/stream_datagrams.h"
#include "net/udp_socket.h"

namespace {

using vesper::client::AudioDevice;

constexpr int kRate = 48'000;    // Hz
constexpr int kChannels = 2;     // SDL turns a mono microphone into two
constexpr int kPacket = 960;     // samples of each channel, 20 ms
constexpr int kMostBytes = 400;  // of a packet: far more than 48 kbit/s needs

// Late sound is worse than none: a longer queue is thrown away, or the delay would stay.
constexpr std::size_t kMostQueued = sizeof(short) * 5 * kPacket * kChannels;  // bytes, 100 ms

using Samples = std::array<short, std::size_t{kPacket} * kChannels>;

class Sender {
  public:
    bool open() {
        return encoder_.init(kRate, kChannels, OPUS_APPLICATION_VOIP) &&
               microphone_.open(AudioDevice::Capture, kRate, kChannels, kPacket, nullptr);
    }

    // Sends what the microphone has heard, once it fills a packet.
    void send(vesper::UDPSocket& socket, std::uint16_t peer_port) {
        filled_ += microphone_.read_samples(samples_.data() + filled_,
                                            static_cast<int>(samples_.size()) - filled_);
        if (filled_ < static_cast<int>(samples_.size())) {
            return;
        }
        filled_ = 0;
        std::array<std::uint8_t, vesper::kPacketHeaderSize + kMostBytes> datagram{};
        const int size = encoder_.encode(samples_.data(), kPacket,
                                         datagram.data() + vesper::kPacketHeaderSize, kMostBytes);
        if (size > 0) {
            vesper::write_packet_header({.sequence = ++sequence_,
                                         .payload_size = static_cast<std::uint16_t>(size),
                                         .flags = vesper::kScreenAudioFlag},
                                        datagram.data());
            socket.send(datagram.data(),
                        std::size_t{vesper::kPacketHeaderSize} + static_cast<std::size_t>(size),
                        vesper::kParentHost, peer_port);
        }
    }

  private:
    AudioDevice microphone_;
    vesper::OpusEncoderWrapper encoder_;
    Samples samples_{};
    int filled_ = 0;  // values of samples_
    std::uint32_t sequence_ = 0;
};

class Listener {
  public:
    bool open() {
        return decoder_.init(kRate, kChannels) &&
               loudspeaker_.open(AudioDevice::Playback, kRate, kChannels, kPacket, nullptr);
    }

    void play(const std::uint8_t* datagram, int length) {
        if (length < vesper::kPacketHeaderSize) {
            return;
        }
        const vesper::PacketHeader header = vesper::read_packet_header(datagram);
        if (header.payload_size > length - vesper::kPacketHeaderSize ||
            (header.flags & vesper::kScreenAudioFlag) == 0 || header.sequence <= last_) {
            return;  // not ours, or late: the packets after it have been played
        }
        // Nothing precedes the first packet; at most three lost packets are concealed.
        const std::uint32_t lost = last_ == 0 ? 0 : header.sequence - last_ - 1;
        for (std::uint32_t i = 0; i < std::min(lost, 3U); ++i) {
            queue(decoder_.decode_plc(samples_.data(), kPacket));
        }
        last_ = header.sequence;
        queue(decoder_.decode(datagram + vesper::kPacketHeaderSize, header.payload_size,
                              samples_.data(), kPacket));
    }

  private:
    // `decoded` samples of each channel, or an error of the decoder.
    void queue(int decoded) {
        if (loudspeaker_.get_queued_size() > kMostQueued) {
            loudspeaker_.clear_queue();
        }
        loudspeaker_.write_samples(samples_.data(), std::max(decoded, 0) * kChannels);
    }

    AudioDevice loudspeaker_;
    vesper::OpusDecoderWrapper decoder_;
    Samples samples_{};
    std::uint32_t last_ = 0;  // sequence number played last; 0: none yet
};

bool quit_requested() {
    SDL_PumpEvents();
    return SDL_HasEvent(SDL_QUIT) == SDL_TRUE;  // SDL turns SIGINT and SIGTERM into one
}

bool talk(std::uint16_t port, std::uint16_t peer_port) {
    vesper::UDPSocket socket;
    Sender sender;
    Listener listener;
    if (!socket.bind(port) || !sender.open() || !listener.open()) {
        return false;
    }
    while (!quit_requested()) {
        sender.send(socket, peer_port);
        std::array<std::uint8_t, 1500> datagram{};
        listener.play(datagram.data(), socket.recv(datagram.data(), datagram.size(), 5));
    }
    return true;
}

// 0 if `text` is no port.
std::uint16_t port_of(std::string_view text) {
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    return std::from_chars(text.data(), end, port).ptr == end ? port : 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3 || port_of(argv[1]) == 0 || port_of(argv[2]) == 0 ||
        SDL_Init(SDL_INIT_AUDIO | SDL_INIT_EVENTS) < 0) {
        return 2;
    }
    socket_init();
    const bool talked = talk(port_of(argv[1]), port_of(argv[2]));
    socket_cleanup();
    SDL_Quit();  // the devices are closed by now
    return talked ? 0 : 1;
}
