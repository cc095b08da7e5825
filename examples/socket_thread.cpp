// An application whose socket has a thread of its own, which takes what arrives at once, whatever
// the main thread is busy with. Shows the stream that comes to 127.0.0.1:PORT and asks
// 127.0.0.1:REPLY_PORT for keyframes.    Usage: socket_thread PORT REPLY_PORT
#include <SDL2/SDL.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <mutex>
#include <stop_token>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "client/video_receiver.h"
#include "net/stream_datagrams.h"
#include "net/udp_socket.h"

namespace {

using Datagram = std::vector<std::uint8_t>;

// Ten times the default: a keyframe may come at once.
constexpr int kReceiveBuffer = 2'000'000;  // bytes; the system may grant less

// The end of the program is noticed within this time.
constexpr int kReceiveWait = 20;  // ms

// Sound that waited longer would be late for the rest of the stream: nothing shortens the queue.
constexpr std::size_t kMostSound = 10;  // packets, of 20 ms

// As long as this object lives, the socket belongs to its thread alone. Video goes into the
// receiver from there; sound waits for the main thread.
class SocketThread {
  public:
    // Both must outlive the object.
    SocketThread(vesper::UDPSocket& socket, vesper::client::VideoReceiver& receiver,
                 std::uint16_t reply_port)
        : socket_(socket),
          receiver_(receiver),
          reply_port_(reply_port),
          thread_([this](const std::stop_token& stop) { run(stop); }) {}

    // The sound that has arrived since the last call, oldest first.
    std::vector<Datagram> take_sound() {
        const std::lock_guard lock(sound_mutex_);
        return std::exchange(sound_, {});
    }

  private:
    void run(const std::stop_token& stop) {
        std::array<std::uint8_t, 65536> datagram;
        while (!stop.stop_requested()) {
            const int length = socket_.recv(datagram.data(), datagram.size(), kReceiveWait);
            if (length >= vesper::kPacketHeaderSize) {
                take(datagram.data(), length);
            }
            if (receiver_.needs_keyframe_request()) {
                socket_.send(vesper::kKeyframeRequest.data(), vesper::kKeyframeRequest.size(),
                             vesper::kParentHost, reply_port_);
            }
        }
    }

    void take(const std::uint8_t* datagram, int length) {
        if ((vesper::read_packet_header(datagram).flags & vesper::kScreenAudioFlag) == 0) {
            receiver_.handle_fragment(datagram, length);
            return;
        }
        const std::lock_guard lock(sound_mutex_);
        if (sound_.size() == kMostSound) {
            sound_.erase(sound_.begin());
        }
        sound_.emplace_back(datagram, datagram + length);
    }

    vesper::UDPSocket& socket_;
    vesper::client::VideoReceiver& receiver_;
    const std::uint16_t reply_port_;
    std::mutex sound_mutex_;
    std::vector<Datagram> sound_;  // guarded by sound_mutex_
    std::jthread thread_;          // last: it uses all of the above, and is joined first
};

bool quit_requested() {
    SDL_Event event;
    while (SDL_PollEvent(&event) != 0) {
        if (event.type == SDL_QUIT) {  // comes when the last window is closed, too
            return true;
        }
    }
    return false;
}

bool show_stream(std::uint16_t port, std::uint16_t reply_port) {
    vesper::UDPSocket socket;
    vesper::client::VideoReceiver receiver;
    if (!socket.bind(port) || !receiver.start(1, "Ada", 640, 360, nullptr)) {
        return false;  // the reason is on standard error
    }
    socket.set_recv_buffer(kReceiveBuffer);
    receiver.enable_audio(true);
    SocketThread socket_thread(socket, receiver, reply_port);  // ends before the receiver does
    while (!quit_requested()) {
        for (const Datagram& sound : socket_thread.take_sound()) {
            receiver.handle_screen_audio(sound.data(), static_cast<int>(sound.size()));
        }
        receiver.update();
        SDL_Delay(5);
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
        SDL_Init(SDL_INIT_VIDEO | SDL_INIT_AUDIO) < 0) {
        return 2;
    }
    socket_init();
    const bool shown = show_stream(port_of(argv[1]), port_of(argv[2]));
    socket_cleanup();
    SDL_Quit();  // the receiver is gone by now
    return shown ? 0 : 1;
}
