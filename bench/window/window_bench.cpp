// The whole path to the screen: starts a program that shows a stream, streams to it in real time,
// and watches its window in the X server. One run, one JSON object on standard output:
//
//   first_picture_ms      process start to the first picture in the window
//   delays_ms             last datagram of a picture sent to its pixels in the window, one a flip
//   whole_delays_ms       the same from its first datagram
//   repeated              share of the pictures that were sent twice
//   missed                flips that were not seen before the square's grey recurred
//   processor_s_per_min   of the program (the X server's share is not in it), all threads
//   peak_memory_mib       resident
//   sampling_ms           mean time between two samples of the window
//
// With several players each gets the same stream; processor time and memory are those of all.
#include <CLI/CLI.hpp>

extern "C" {
#include <libavutil/log.h>
}

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/window/marked_stream.h"
#include "bench/window/subject.h"
#include "bench/window/window_watch.h"
#include "tools/stream/receive_queue.h"
#include "tools/stream/streamer.h"

using vesper::bench::kMarks;
using vesper::bench::kMarksPerSecond;
using vesper::bench::StreamPicture;
using vesper::bench::Subject;
using vesper::bench::WindowWatch;
using vesper::tools::keeps_up;

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr auto kOpenLimit = std::chrono::seconds(30);
constexpr auto kWarmUp = std::chrono::seconds(2);
// After this a mark recurs.
constexpr auto kMarkPeriod = std::chrono::milliseconds(1000) * kMarks / kMarksPerSecond;

// When a picture's first datagram left, and its last one.
struct Sent {
    Clock::time_point first;
    Clock::time_point last;
};

struct Flip {
    int mark;
    std::vector<Sent> sent;  // one for each program
};

// Sends picture after picture, one each frame interval, to every program.
class Sender {
  public:
    // Where `low_delay`, each picture is followed by `repeat` while the program keeps up, as
    // vesper-parent does. The datagrams of a picture are spread over `spread`.
    Sender(std::vector<std::unique_ptr<Subject>>& subjects, Clock::duration frame_interval,
           Clock::duration spread, bool low_delay, const vesper::bench::EncodedFrame& repeat)
        : subjects_(subjects),
          frame_interval_(frame_interval),
          spread_(spread),
          low_delay_(low_delay),
          repeat_(repeat) {}

    // Returns once it is sent: when, for each program.
    std::vector<Sent> send(const StreamPicture& picture) {
        std::this_thread::sleep_until(due_);
        std::vector<Sent> sent;
        for (const auto& subject : subjects_) {
            const auto media_time =
                std::chrono::duration_cast<std::chrono::milliseconds>(due_ - start_);
            const bool repeated = low_delay_ && keeps_up(subject->port());
            Sent times{.first = Clock::now(), .last = {}};
            subject->wire().send(picture.frame, media_time, spread_);
            times.last = Clock::now();
            sent.push_back(times);
            if (repeated) {
                subject->wire().send(repeat_, media_time, {});
            }
            ++pictures_;
            repeats_ += repeated ? 1 : 0;
        }
        due_ += frame_interval_;
        return sent;
    }

    [[nodiscard]] double repeated_share() const {
        return pictures_ == 0 ? 0 : static_cast<double>(repeats_) / static_cast<double>(pictures_);
    }

  private:
    std::vector<std::unique_ptr<Subject>>& subjects_;
    Clock::duration frame_interval_;
    Clock::duration spread_;
    bool low_delay_;
    const vesper::bench::EncodedFrame& repeat_;
    long pictures_ = 0;
    long repeats_ = 0;
    Clock::time_point start_ = Clock::now();
    Clock::time_point due_ = start_;
};

void print_list(const char* name, const std::vector<double>& numbers) {
    std::printf("\"%s\": [", name);
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        std::printf("%s%.3f", i == 0 ? "" : ", ", numbers[i]);
    }
    std::printf("]");
}

[[noreturn]] void fail(const char* what) {
    std::fprintf(stderr, "window_bench: %s\n", what);
    std::exit(EXIT_FAILURE);
}

void require_running(std::vector<std::unique_ptr<Subject>>& subjects) {
    for (const auto& subject : subjects) {
        if (!subject->is_running()) {
            fail("the program ended");
        }
    }
}

double processor_seconds(const std::vector<std::unique_ptr<Subject>>& subjects) {
    double sum = 0;
    for (const auto& subject : subjects) {
        sum += subject->processor_seconds();
    }
    return sum;
}

struct Delays {
    std::vector<double> ms;
    std::vector<double> whole_ms;
    int missed = 0;
};

Delays delays_of(const std::vector<Flip>& flips, const std::vector<WindowWatch::Sighting>& seen) {
    Delays delays;
    for (const Flip& flip : flips) {
        for (std::size_t window = 0; window < flip.sent.size(); ++window) {
            const auto [first, last] = flip.sent[window];
            const auto found = std::find_if(seen.begin(), seen.end(), [&](const auto& sighting) {
                return sighting.window == static_cast<int>(window) && sighting.mark == flip.mark &&
                       sighting.time >= last;
            });
            if (found == seen.end() || found->time - last >= kMarkPeriod) {
                ++delays.missed;
            } else {
                delays.ms.push_back(1e3 * Seconds(found->time - last).count());
                delays.whole_ms.push_back(1e3 * Seconds(found->time - first).count());
            }
        }
    }
    return delays;
}

void stream_opening(Sender& sender, const std::vector<StreamPicture>& opening,
                    const WindowWatch& watch, std::vector<std::unique_ptr<Subject>>& subjects) {
    const auto limit = Clock::now() + kOpenLimit;
    for (std::size_t i = 0; !watch.opened(); i = (i + 1) % opening.size()) {
        require_running(subjects);
        if (Clock::now() > limit) {
            fail("no picture came");
        }
        sender.send(opening[i]);
    }
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): what is thrown ends the run, as it should
int main(int argc, char** argv) {
    CLI::App app("Measures a program that shows a live stream, at its window.");
    std::string name = "player";
    int players = 1;
    int seconds = 20;
    // Two datagrams a picture: a player that draws in software, and takes one datagram for every
    // time it draws, keeps up even on a busy machine.
    int kilobits = 600;
    int frames_per_second = 30;
    app.add_option("--subject", name)->check(CLI::IsMember(vesper::bench::subject_names()));
    app.add_option("--players", players)->check(CLI::Range(1, 4));
    app.add_option("--seconds", seconds)->check(CLI::PositiveNumber);
    app.add_option("--kilobits", kilobits, "A second")->check(CLI::Range(100, 20'000));
    app.add_option("--fps", frames_per_second)->check(CLI::IsMember({30, 60, 120}));
    bool paced = false;
    app.add_flag("--paced", paced,
                 "Spread the datagrams of a picture, as vesper-parent does; otherwise at once");
    CLI11_PARSE(app, argc, argv);
    av_log_set_level(AV_LOG_QUIET);

    const auto stream = vesper::bench::encode_marked_stream(
        {.frames_per_second = frames_per_second, .bitrate = 1000 * kilobits});
    const Clock::duration frame_interval =
        std::chrono::nanoseconds(std::chrono::seconds(1)) / frames_per_second;
    const auto spread = std::chrono::duration_cast<Clock::duration>(
        (paced ? vesper::tools::kSpread : 0.0) * frame_interval / players);
    const WindowWatch watch(players);
    const auto start = Clock::now();
    std::vector<std::unique_ptr<Subject>> subjects;
    subjects.reserve(static_cast<std::size_t>(players));
    for (int i = 0; i < players; ++i) {
        subjects.push_back(std::make_unique<Subject>(name));
    }
    Sender sender(subjects, frame_interval, spread, vesper::bench::sends_twice(name),
                  stream.repeat);
    stream_opening(sender, stream.opening, watch, subjects);

    const auto measure_from = Clock::now() + kWarmUp;
    const auto measure_to = measure_from + std::chrono::seconds(seconds);
    std::vector<Flip> flips;
    double used_before = 0;
    auto used_from = Clock::now();
    std::size_t next = 0;
    while (Clock::now() < measure_to) {
        require_running(subjects);
        if (used_before == 0 && Clock::now() >= measure_from) {
            used_before = processor_seconds(subjects);
            used_from = Clock::now();
        }
        const StreamPicture& picture = stream.loop[next];
        next = (next + 1) % stream.loop.size();
        const auto sent = sender.send(picture);
        if (picture.is_flip && used_before != 0) {
            flips.push_back({.mark = picture.mark, .sent = sent});
        }
    }
    const double used = processor_seconds(subjects) - used_before;
    const double minutes = Seconds(Clock::now() - used_from).count() / 60;
    // The last flip may still be on its way.
    const auto drain_to = Clock::now() + kMarkPeriod / 2;
    while (Clock::now() < drain_to) {
        sender.send(stream.loop[next]);
        next = (next + 1) % stream.loop.size();
    }

    const Delays delays = delays_of(flips, watch.sightings());
    double peak_mib = 0;
    for (const auto& subject : subjects) {
        peak_mib += static_cast<double>(subject->peak_memory_kib()) / 1024;
    }
    std::printf(
        "{\"subject\": \"%s\", \"players\": %d, \"fps\": %d, \"kilobits\": %d, "
        "\"paced\": %s, \"repeated\": %.3f, \"first_picture_ms\": %.1f, "
        "\"processor_s_per_min\": %.3f, \"peak_memory_mib\": %.1f, \"sampling_ms\": %.3f, "
        "\"missed\": %d, ",
        name.c_str(), players, frames_per_second, kilobits, paced ? "true" : "false",
        sender.repeated_share(), 1e3 * Seconds(*watch.opened() - start).count(), used / minutes,
        peak_mib, 1e3 * watch.sampling_interval().count(), delays.missed);
    print_list("delays_ms", delays.ms);
    std::printf(", ");
    print_list("whole_delays_ms", delays.whole_ms);
    std::printf("}\n");
    return EXIT_SUCCESS;
}
