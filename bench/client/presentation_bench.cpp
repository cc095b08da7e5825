// Time of one render(), with and without a new picture, compared with the bare SDL calls on the
// same window. Needs a display.
#include <SDL2/SDL.h>
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/support/processor_time.h"
#include "client/picture_format.h"
#include "client/video_receiver.h"
#include "tests/support/video_receiver_peer.h"

using vesper::client::VideoReceiver;
using vesper::client::VideoReceiverPeer;

namespace {

struct PictureSize {
    int width;   // pixels
    int height;  // pixels
};

// A window as the player has it, its control bar hidden.
struct Window {
    explicit Window(PictureSize size) {
        if (!receiver.init_for_udp(size.width, size.height)) {
            std::exit(EXIT_FAILURE);
        }
        receiver.set_overlay_callback([](SDL_Renderer*, int, int) {});
    }

    VideoReceiver receiver;
    VideoReceiverPeer peer{receiver};
};

// Of one presentation, all threads: software OpenGL has some of its own.
void report_processor_time(benchmark::State& state, double start) {
    state.counters["processor_us"] =
        1e6 * (vesper::bench::process_seconds() - start) / static_cast<double>(state.iterations());
}

void player(benchmark::State& state, PictureSize size, bool new_picture) {
    Window window(size);
    const double start = vesper::bench::process_seconds();
    for (auto _ : state) {
        window.peer.picture_ready() = new_picture;
        window.receiver.render();
    }
    report_processor_time(state, start);
}

void bare_calls(benchmark::State& state, PictureSize size, bool new_picture) {
    Window window(size);
    SDL_Renderer* renderer = window.peer.renderer();
    SDL_Texture* texture = window.peer.texture();
    const double start = vesper::bench::process_seconds();
    for (auto _ : state) {
        if (new_picture) {
            SDL_UpdateTexture(texture, nullptr, window.peer.picture().data(),
                              vesper::client::picture_pitch(size.width));
        }
        SDL_RenderClear(renderer);
        SDL_RenderCopy(renderer, texture, nullptr, nullptr);
        int width = 0;
        int height = 0;
        SDL_GetWindowSize(window.peer.window(), &width, &height);
        SDL_RenderPresent(renderer);
    }
    report_processor_time(state, start);
}

void add(PictureSize size, bool new_picture) {
    const std::string name = "present/" + std::to_string(size.width) + "x" +
                             std::to_string(size.height) +
                             (new_picture ? "/new_picture" : "/same_picture");
    const auto add_one = [&](const char* who, auto* function) {
        benchmark::RegisterBenchmark((name + who).c_str(), function, size, new_picture)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    };
    add_one("/player", player);
    add_one("/floor", bare_calls);
}

}  // namespace

int main(int argc, char** argv) {
    if (SDL_Init(SDL_INIT_VIDEO) != 0) {
        std::fprintf(stderr, "%s\n", SDL_GetError());
        return EXIT_FAILURE;
    }
    for (const PictureSize size : {PictureSize{640, 360}, {1280, 720}, {1920, 1080}}) {
        add(size, true);
        add(size, false);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    SDL_Quit();
    return EXIT_SUCCESS;
}
