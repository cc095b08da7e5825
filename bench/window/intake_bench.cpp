// How many datagrams a player takes in a second: it takes one each time it draws its window. While
// the player shows a picture, sends as much as its socket's buffer holds and measures how long the
// buffer takes to drain. One run, one JSON object on standard output:
//
//   per_second   datagrams taken per second; one figure a burst
#include <CLI/CLI.hpp>

extern "C" {
#include <libavutil/log.h>
}

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "bench/window/marked_stream.h"
#include "bench/window/subject.h"
#include "bench/window/window_watch.h"
#include "net/stream_datagrams.h"
#include "tools/stream/receive_queue.h"

using vesper::bench::MarkedStream;
using vesper::bench::StreamPicture;
using vesper::bench::Subject;
using vesper::bench::WindowWatch;
using vesper::tools::receive_queue;

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kOpenLimit = std::chrono::seconds(30);
constexpr auto kOpeningPause = std::chrono::milliseconds(100);  // between two pictures
constexpr auto kRest = std::chrono::milliseconds(500);          // between two bursts
constexpr auto kPoll = std::chrono::microseconds(200);

// A socket buffer of Linux's default size holds 92 datagrams of 1440 bytes.
constexpr int kBurst = 90;

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "intake_bench: %s\n", what);
    std::exit(EXIT_FAILURE);
}

void wait_until_taken(std::uint16_t port) {
    for (;;) {
        const auto queue = receive_queue(port);
        if (!queue) {
            fail("the player's socket is gone");
        }
        if (queue->waiting == 0) {
            return;
        }
        std::this_thread::sleep_for(kPoll);
    }
}

void send(Subject& subject, const StreamPicture& picture) {
    subject.wire().send(picture.frame, {}, {});
}

int datagrams_of(const StreamPicture& picture) {
    return (static_cast<int>(picture.frame.size()) + vesper::kMaxFragmentPayload - 1) /
           vesper::kMaxFragmentPayload;
}

void show_opening(Subject& subject, const MarkedStream& stream, const WindowWatch& watch) {
    const auto limit = Clock::now() + kOpenLimit;
    for (std::size_t i = 0; !watch.opened(); i = (i + 1) % stream.opening.size()) {
        if (!subject.is_running() || Clock::now() > limit) {
            fail("no picture came");
        }
        send(subject, stream.opening[i]);
        std::this_thread::sleep_for(kOpeningPause);
    }
}

// Sends the pictures from `next` on that fit into a burst; datagrams a second.
double take_burst(Subject& subject, const MarkedStream& stream, std::size_t& next) {
    int sent = 0;
    const auto start = Clock::now();
    while (sent + datagrams_of(stream.loop[next]) <= kBurst) {
        send(subject, stream.loop[next]);
        sent += datagrams_of(stream.loop[next]);
        next = (next + 1) % stream.loop.size();
    }
    wait_until_taken(subject.port());
    return sent / std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): what is thrown ends the run, as it should
int main(int argc, char** argv) {
    CLI::App app("Measures how many datagrams a player takes in a second.");
    std::string name = "player";
    int kilobits = 2500;
    int bursts = 15;
    app.add_option("--subject", name)->check(CLI::IsMember({"player", "player_opengl"}));
    app.add_option("--kilobits", kilobits, "A second")
        ->capture_default_str()
        ->check(CLI::Range(100, 20'000));
    app.add_option("--bursts", bursts)->capture_default_str()->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);
    av_log_set_level(AV_LOG_QUIET);

    const MarkedStream stream = vesper::bench::encode_marked_stream({.bitrate = 1000 * kilobits});
    std::vector<double> rates;
    {
        Subject subject(name);
        {
            // Only until there is a picture: watching costs time in the X server.
            const WindowWatch watch(1);
            show_opening(subject, stream, watch);
        }
        std::size_t next = 0;
        for (int burst = 0; burst < bursts; ++burst) {
            std::this_thread::sleep_for(kRest);
            wait_until_taken(subject.port());
            rates.push_back(take_burst(subject, stream, next));
            if (!subject.is_running()) {
                fail("the player ended");
            }
        }
    }
    std::printf("{\"subject\": \"%s\", \"per_second\": [", name.c_str());
    for (std::size_t i = 0; i < rates.size(); ++i) {
        std::printf("%s%.1f", i == 0 ? "" : ", ", rates[i]);
    }
    std::printf("]}\n");
    return EXIT_SUCCESS;
}
