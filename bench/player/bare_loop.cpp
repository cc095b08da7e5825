// The calls of SDL and the system that one pass of the player's loop is made of, and nothing else:
// the floor of the loop. It opens the same window as the player. It runs until it is killed.
//
//   bare_loop PORT WIDTH HEIGHT
#include <SDL2/SDL.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr int kReceiveWait = 5;          // ms, as the player waits
constexpr std::uint32_t kPassPause = 1;  // ms, as the player pauses

int bound_socket(int port) {
    const int descriptor = ::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    ::fcntl(descriptor, F_SETFL, O_NONBLOCK);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        std::perror("bind");
        std::exit(EXIT_FAILURE);
    }
    return descriptor;
}

void receive(int descriptor) {
    static std::array<std::uint8_t, 65536> buffer;
    pollfd readable{.fd = descriptor, .events = POLLIN, .revents = 0};
    if (::poll(&readable, 1, kReceiveWait) > 0) {
        sockaddr_in sender{};
        socklen_t size = sizeof(sender);
        ::recvfrom(descriptor, buffer.data(), buffer.size(), 0,
                   reinterpret_cast<sockaddr*>(&sender), &size);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 || SDL_Init(SDL_INIT_VIDEO | SDL_INIT_AUDIO) != 0) {
        return EXIT_FAILURE;
    }
    const int width = std::atoi(argv[2]);
    const int height = std::atoi(argv[3]);
    SDL_SetHintWithPriority(SDL_HINT_RENDER_SCALE_QUALITY, "linear", SDL_HINT_DEFAULT);
    SDL_DisplayMode mode{};
    SDL_GetCurrentDisplayMode(0, &mode);
    SDL_Window* window = SDL_CreateWindow("Stream", SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED,
                                          std::min(width, mode.w / 2), std::min(height, mode.h / 2),
                                          SDL_WINDOW_SHOWN | SDL_WINDOW_RESIZABLE);
    SDL_Renderer* renderer = SDL_CreateRenderer(window, -1, SDL_RENDERER_ACCELERATED);
    if (renderer == nullptr) {
        renderer = SDL_CreateRenderer(window, -1, SDL_RENDERER_SOFTWARE);
    }
    SDL_Texture* texture = SDL_CreateTexture(renderer, SDL_PIXELFORMAT_ARGB8888,
                                             SDL_TEXTUREACCESS_STREAMING, width, height);
    const int descriptor = bound_socket(std::atoi(argv[1]));
    while (texture != nullptr) {
        SDL_Event event;
        while (SDL_PollEvent(&event) != 0) {
        }
        receive(descriptor);
        SDL_RenderClear(renderer);
        SDL_RenderCopy(renderer, texture, nullptr, nullptr);
        int w = 0;
        int h = 0;
        SDL_GetWindowSize(window, &w, &h);
        SDL_RenderPresent(renderer);
        SDL_Delay(kPassPause);
    }
    return EXIT_FAILURE;
}
