// Feeds random streams to a receiver and to the model beside it, and compares after each datagram
// all that can be seen of them.
//
//   fuzz_reassembly [--datagrams N | --seconds N] [--seed N]
//
// A difference ends it with the seed of the stream that showed it: given alone, that stream runs
// first. It takes the clock's place at link time, so that time passes as the stream has it, and
// standard error's, so that lines cost next to nothing.
#include <malloc.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "client/frame_ring.h"
#include "client/video_receiver.h"
#include "fuzz/reassembly/model.h"
#include "fuzz/reassembly/random_stream.h"
#include "tests/support/video_receiver_peer.h"

namespace {

using vesper::client::kFrameQueueSlots;
using vesper::client::next_slot;
using vesper::client::VideoReceiver;
using vesper::client::VideoReceiverPeer;
using vesper::fuzz::RandomStream;
using vesper::fuzz::ReassemblyModel;
using vesper::fuzz::RulesMet;
using vesper::fuzz::Time;

Time current_time;
std::uint64_t notifications = 0;
std::string printed;  // on standard error
std::FILE* terminal = nullptr;

}  // namespace

// In place of std::chrono::steady_clock::now() and std::condition_variable::notify_one().
Time now_in_the_stream() asm("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
Time now_in_the_stream() {
    return current_time;
}
void count_notification(std::condition_variable* decode_thread) asm(
    "__wrap__ZNSt18condition_variable10notify_oneEv");
void count_notification(std::condition_variable* /*decode_thread*/) {
    ++notifications;
}

namespace {

// A stream whose writes only become text in memory.
std::FILE* stream_into(std::string* text) {
    cookie_io_functions_t functions{};
    functions.write = [](void* cookie, const char* bytes, std::size_t size) {
        if (cookie != nullptr) {
            static_cast<std::string*>(cookie)->append(bytes, size);
        }
        return static_cast<ssize_t>(size);
    };
    std::FILE* const stream = fopencookie(text, "w", functions);
    std::setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

// Lines about dropped frames come in whichever order the receiver's table has.
std::vector<std::string> sorted_lines(const std::string& text, std::size_t sorted_count) {
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = text.find('\n', start);
        const std::size_t next = end == std::string::npos ? text.size() : end + 1;
        lines.push_back(text.substr(start, next - start));
        start = next;
    }
    std::sort(lines.begin(),
              lines.begin() + static_cast<std::ptrdiff_t>(std::min(sorted_count, lines.size())));
    return lines;
}

class Comparison {
  public:
    Comparison(std::uint64_t seed, RulesMet& met) : seed_(seed), stream_(seed), model_(met) {
        peer_.go_live_without_decoder();
        notifications = 0;
        printed.clear();
        // Anywhere: only differences count.
        current_time = Time(std::chrono::hours(24 + stream_.below(100)));
    }

    ~Comparison() {
        // Nothing to stop, and stopping takes its time.
        peer_.cleanup_done() = true;
    }

    Comparison(const Comparison&) = delete;
    Comparison& operator=(const Comparison&) = delete;

    void run() {
        for (datagram_ = 0; datagram_ < stream_.length(); ++datagram_) {
            pass_time();
            act_as_the_others();
            const auto datagram = stream_.next();
            receiver_.handle_fragment(datagram.data(), static_cast<int>(datagram.size()));
            model_.take(datagram, current_time, possibly_evicted());
            compare();
        }
        drain();
        compare_frames();
    }

    [[nodiscard]] std::size_t length() const { return stream_.length(); }

  private:
    void require(bool holds, const char* rule) const {
        if (holds) {
            return;
        }
        std::fprintf(terminal,
                     "Datagram %zu of the stream with --seed %llu: receiver and model differ in "
                     "%s.\n",
                     datagram_, static_cast<unsigned long long>(seed_), rule);
        for (const std::string& line : model_.lines) {
            std::fprintf(terminal, "model:    %s", line.c_str());
        }
        std::fprintf(terminal, "receiver: %s\n", printed.c_str());
        std::_Exit(1);
    }

    void pass_time() {
        using namespace std::chrono_literals;
        current_time += stream_.pace();
        if (!stream_.chance(stream_.pauses())) {
            return;
        }
        if (stream_.chance(300) || model_.frames.empty()) {
            current_time += std::chrono::nanoseconds(stream_.below(300'000'000));
        } else {
            // The oldest frame there is, or a younger one, to the very limit, and to 1 ns above it.
            auto position = model_.frames.begin();
            std::advance(position, static_cast<std::ptrdiff_t>(stream_.below(
                                       std::min<std::size_t>(model_.frames.size(), 5))));
            const Time limit =
                position->second.first_seen + 250ms + std::chrono::nanoseconds(stream_.below(2));
            current_time = std::max(current_time, limit);
        }
    }

    // The main loop, the decode thread, and whoever stops the receiver.
    void act_as_the_others() {
        if (!stream_.chance(60)) {
            return;
        }
        switch (stream_.below(8)) {
            case 0:
            case 1:
            case 2:
                require(receiver_.needs_keyframe_request() == model_.keyframe_needed,
                        "the keyframe wish");
                model_.keyframe_needed = false;
                break;
            case 3:
                peer_.keyframe_needed() = true;
                model_.keyframe_needed = true;
                break;
            case 4:
                model_.running = stream_.chance(900);
                peer_.running() = model_.running;
                break;
            default:
                drain();
        }
    }

    // As the decode thread does.
    void drain() {
        require(peer_.queue_count() == model_.ring.size(), "the number of queued frames");
        for (; peer_.queue_count() > 0; --peer_.queue_count()) {
            const auto frame = std::exchange(peer_.frame_queue()[peer_.queue_head()], {});
            require(is_same(frame, model_.ring.front()), "a queued frame");
            model_.ring.pop_front();
            peer_.queue_head() = next_slot(peer_.queue_head());
        }
    }

    static bool is_same(const std::vector<std::uint8_t>& frame, const std::string& expected) {
        return frame.size() == expected.size() && frame.capacity() == frame.size() &&
               std::memcmp(frame.data(), expected.data(), frame.size()) == 0;
    }

    // The frames that left the receiver without a line, if there is reason to evict: those that
    // end in another way as well are first.
    std::vector<std::uint32_t> possibly_evicted() {
        std::vector<std::uint32_t> gone;
        if (model_.frames.size() <= 30 || !model_.is_full()) {
            return gone;
        }
        for (const auto& [id, frame] : model_.frames) {
            if (!peer_.partial_frames().contains(id) &&
                printed.find("Dropped frame " + std::to_string(id) + ":") == std::string::npos) {
                gone.push_back(id);
            }
        }
        return gone;
    }

    void compare() {
        require(peer_.last_completed_frame_id() == model_.last_completed,
                "the number of the last completed frame");
        require(peer_.keyframe_needed() == model_.keyframe_needed, "the keyframe wish");
        require(notifications == model_.frames_completed, "the calls to the decode thread");
        compare_lines();
        compare_ring();
        require(peer_.partial_frames().size() == model_.frames.size(), "the number of frames");
        if (model_.frames_changed) {
            compare_frames();
        }
    }

    void compare_lines() const {
        if (printed.empty() && model_.lines.empty()) {
            return;
        }
        const bool has_request =
            model_.lines.size() > 1 && model_.lines.back().find("keyframe") != std::string::npos;
        std::vector<std::string> expected = model_.lines;
        const std::size_t dropped = expected.size() - (has_request ? 1 : 0);
        std::sort(expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(dropped));
        require(sorted_lines(printed, dropped) == expected, "the lines");
        printed.clear();
    }

    void compare_ring() {
        require(peer_.queue_count() == model_.ring.size(), "the number of queued frames");
        require(peer_.queue_tail() == model_.frames_completed % kFrameQueueSlots, "the ring's end");
        require((peer_.queue_head() + peer_.queue_count()) % kFrameQueueSlots == peer_.queue_tail(),
                "the ring's beginning");
        require(peer_.frame_queue().size() == (model_.frames_completed > 0 ? kFrameQueueSlots : 0),
                "the ring's size");
        if (model_.completed) {
            const std::size_t newest =
                (peer_.queue_tail() + kFrameQueueSlots - 1) % kFrameQueueSlots;
            require(is_same(peer_.frame_queue()[newest], model_.ring.back()),
                    "the completed frame");
        }
    }

    void compare_frames() {
        require(peer_.partial_frames_bytes() == model_.bytes_held(), "the bytes held");
        for (const auto& [id, frame] : peer_.partial_frames()) {
            const auto position = model_.frames.find(id);
            require(position != model_.frames.end(), "which frames are pending");
            const auto& expected = position->second;
            require(frame.total_fragments == expected.total, "a frame's fragments");
            require(frame.received_fragments == expected.fragments.size(),
                    "the fragments received");
            require(frame.first_seen == expected.first_seen, "the time of a frame's beginning");
            require(frame.data.capacity() == std::size_t{frame.total_fragments} * 1400,
                    "a frame's memory");
        }
    }

    std::uint64_t seed_;
    RandomStream stream_;
    VideoReceiver receiver_;
    VideoReceiverPeer peer_{receiver_};
    ReassemblyModel model_;
    std::size_t datagram_ = 0;
};

struct Options {
    std::uint64_t datagrams = 1'000'000;
    std::uint64_t seconds = 0;  // 0: as many datagrams as given
    std::uint64_t seed = std::random_device()();
};

void print(const RulesMet& met) {
    const auto line = [](const char* what, std::uint64_t count) {
        std::fprintf(terminal, "%14llu  %s\n", static_cast<unsigned long long>(count), what);
    };
    line("malformed", met.malformed);
    line("older than the last completed frame", met.older_than_the_last_completed);
    line("frames begun", met.frames_begun);
    line("of them again, after their completion", met.begun_again);
    line("evictions at 60 frames", met.evictions_at_60_frames);
    line("evictions at 52,428,800 bytes", met.evictions_at_the_byte_limit);
    line("fragments beyond their frame", met.beyond_the_frame);
    line("copies", met.copies);
    line("stored with another count than the frame's", met.other_counts);
    line("frames completed", met.frames_completed);
    line("of them of 1000 fragments", met.largest_frames);
    line("pushed out of the ring", met.pushed_out_of_the_ring);
    line("given up at a completion", met.given_up_at_a_completion);
    line("looked at and kept at exactly 250 ms", met.kept_at_exactly_250_ms);
    line("dropped overdue", met.dropped_overdue);
    line("of them 1 ns overdue", met.dropped_1_ns_overdue);
    line("keyframe requests", met.keyframe_requests);
}

}  // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): what is thrown ends the run, as it should
int main(int argc, char** argv) {
    Options options;
    CLI::App app("Random streams through reassembly, beside a model of it.");
    app.add_option("--datagrams", options.datagrams, "How many, at least")->capture_default_str();
    app.add_option("--seconds", options.seconds, "For how long, instead");
    app.add_option("--seed", options.seed, "Of the first stream; the next has the next number");
    CLI11_PARSE(app, argc, argv);
    // Freed memory stays at hand: fresh pages for each large frame cost more than all the rest.
    mallopt(M_MMAP_THRESHOLD, 1 << 24);
    mallopt(M_TRIM_THRESHOLD, 1 << 28);
    terminal = stderr;
    stderr = stream_into(&printed);
    stdout = stream_into(nullptr);

    const std::time_t end = std::time(nullptr) + static_cast<std::time_t>(options.seconds);
    RulesMet met;
    std::uint64_t datagrams = 0;
    std::uint64_t streams = 0;
    while (options.seconds > 0 ? std::time(nullptr) < end : datagrams < options.datagrams) {
        Comparison comparison(options.seed + streams, met);
        comparison.run();
        datagrams += comparison.length();
        ++streams;
    }
    std::fprintf(terminal, "%llu datagrams of %llu streams from --seed %llu: no difference\n",
                 static_cast<unsigned long long>(datagrams),
                 static_cast<unsigned long long>(streams),
                 static_cast<unsigned long long>(options.seed));
    print(met);
    return 0;
}
