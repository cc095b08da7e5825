// The smallest application with a stream in it: shows the one that comes to 127.0.0.1:PORT and asks
// 127.0.0.1:REPLY_PORT for keyframes.    Usage: minimal_application PORT REPLY_PORT
#include <SDL2/SDL.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <string_view>

#include "client/video_receiver.h"
#include "net/stream_datagrams.h"
#include "net/udp_socket.h"

// More than a full receive buffer holds, yet limited, so that a flood does not freeze the window.
constexpr int kDatagramsPerPass = 200;

void feed(vesper::client::VideoReceiver& receiver, const std::uint8_t* datagram, int length) {
    if (length < vesper::kPacketHeaderSize) {
        return;
    }
    if ((vesper::read_packet_header(datagram).flags & vesper::kScreenAudioFlag) != 0) {
        receiver.handle_screen_audio(datagram, length);
    } else {
        receiver.handle_fragment(datagram, length);
    }
}

bool show_stream(std::uint16_t port, std::uint16_t reply_port) {
    vesper::UDPSocket socket;
    vesper::client::VideoReceiver receiver;
    if (!socket.bind(port) || !receiver.start(1, "Ada", 640, 360, nullptr)) {
        return false;  // the reason is on standard error
    }
    receiver.enable_audio(true);
    std::array<std::uint8_t, 65536> datagram;
    while (true) {
        SDL_Event event;
        while (SDL_PollEvent(&event) != 0) {
            if (event.type == SDL_QUIT) {  // comes when the last window is closed, too
                return true;
            }
        }
        // Waits up to 5 ms for the first datagram, and takes what has arrived.
        for (int taken = 0; taken < kDatagramsPerPass; ++taken) {
            const int length = socket.recv(datagram.data(), datagram.size(), taken == 0 ? 5 : 0);
            if (length <= 0) {
                break;
            }
            feed(receiver, datagram.data(), length);
        }
        if (receiver.needs_keyframe_request()) {
            socket.send(vesper::kKeyframeRequest.data(), vesper::kKeyframeRequest.size(),
                        vesper::kParentHost, reply_port);
        }
        receiver.update();
    }
}

// 0 if `text` is no port.
std::uint16_t port_of(std::string_view text) {
    std::uint16_t port = 0;
    const char* const end = text.data() + text.size();
    return std::from_chars(text.data(), end, port).ptr == end ? port : 0;
}

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
