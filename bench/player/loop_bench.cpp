// Passes a second of the whole player, idle and with a datagram of 1440 bytes always waiting,
// compared with a bare program that makes the same calls of SDL and the system. The flood's
// datagrams are fragments of frames that never complete. Also reported: processor time of one pass.
//
// With the renderer that SDL chooses on the display, with its software renderer there, and with the
// software renderer and no display at all (SDL's dummy driver).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "bench/player/pass_log.h"
#include "bench/support/processor_time.h"
#include "net/stream_datagrams.h"
#include "net/udp_socket.h"
#include "tests/support/child_process.h"
#include "tools/stream/free_port.h"

using vesper::bench::PassLog;
using vesper::bench::processor_seconds;
using vesper::test::ChildProcess;

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kWindow = std::chrono::milliseconds(400);  // one iteration
constexpr int kIterations = 3;
// The control bar is up for the first two seconds, because the window opens under the pointer; the
// floor draws none.
constexpr auto kWarmUp = std::chrono::milliseconds(2500);
constexpr auto kStartLimit = std::chrono::seconds(20);

// Enough datagrams ahead that one always waits, few enough to fit a default socket buffer.
constexpr std::uint64_t kFloodAhead = 32;
constexpr auto kFloodPause = std::chrono::milliseconds(1);

// A pass log in a temporary file, deleted with the object.
class OwnPassLog {
  public:
    OwnPassLog() {
        const int descriptor = ::mkstemp(path_.data());
        if (descriptor < 0 || ::ftruncate(descriptor, sizeof(PassLog)) != 0) {
            std::perror("pass log");
            std::exit(EXIT_FAILURE);
        }
        log_ = static_cast<PassLog*>(
            ::mmap(nullptr, sizeof(PassLog), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0));
        ::close(descriptor);
    }
    ~OwnPassLog() {
        ::munmap(log_, sizeof(PassLog));
        ::unlink(path_.c_str());
    }
    OwnPassLog(const OwnPassLog&) = delete;
    OwnPassLog& operator=(const OwnPassLog&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] const PassLog& operator*() const { return *log_; }
    [[nodiscard]] const PassLog* operator->() const { return log_; }

  private:
    std::string path_ = "/tmp/vesper-passes-XXXXXX";
    PassLog* log_ = nullptr;
};

// Keeps datagrams waiting at `port` for the lifetime of the object.
class Flood {
  public:
    Flood(const PassLog& log, std::uint16_t port)
        : thread_([this, &log, port](const std::stop_token& stop) { run(stop, log, port); }) {}

  private:
    void run(const std::stop_token& stop, const PassLog& log, std::uint16_t port) {
        vesper::UDPSocket socket;
        if (!socket.bind(0)) {
            return;
        }
        std::uint64_t sent = log.passes;
        while (!stop.stop_requested()) {
            for (; sent < log.passes + kFloodAhead; ++sent) {
                write_fragment(sent);
                socket.send(datagram_.data(), datagram_.size(), vesper::kParentHost, port);
            }
            std::this_thread::sleep_for(kFloodPause);
        }
    }

    // All fragments of the longest frame but its last, then the next frame's.
    void write_fragment(std::uint64_t n) {
        constexpr std::uint64_t kSent = vesper::kMaxFragmentsPerFrame - 1;
        vesper::write_packet_header({}, datagram_.data());
        vesper::write_video_fragment_header(
            {.frame_id = static_cast<std::uint32_t>(n / kSent + 1),
             .fragment_index = static_cast<std::uint16_t>(n % kSent),
             .fragment_count = vesper::kMaxFragmentsPerFrame,
             .payload_size = vesper::kMaxFragmentPayload},
            datagram_.data());
    }

    std::array<std::uint8_t, vesper::kVideoPayloadOffset + vesper::kMaxFragmentPayload> datagram_{};
    std::jthread thread_;
};

// False when the loop does not start.
bool warm_up(const PassLog& log, ChildProcess& process) {
    const auto limit = Clock::now() + kStartLimit;
    while (log.passes == 0) {
        if (Clock::now() > limit || process.ending()) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    std::this_thread::sleep_for(kWarmUp);
    return !process.ending();
}

enum class Who { kPlayer, kFloor };

std::vector<std::string> command_of(Who who, std::uint16_t port) {
    const std::string number = std::to_string(port);
    if (who == Who::kFloor) {
        return {VESPER_BARE_LOOP, number, "1280", "720"};
    }
    return {VESPER_PLAYER, "--port", number, "--width", "1280", "--height", "720"};
}

// What SDL draws with. Empty strings leave the choice to SDL alone: with a variable that is set,
// the player does not choose either, as the floor does not.
struct Drivers {
    const char* name;
    const char* video;
    const char* renderer;
    const char* framebuffer_acceleration;
};

void run(benchmark::State& state, Who who, Drivers drivers, bool flooded) {
    OwnPassLog log;
    const std::uint16_t port = vesper::tools::free_port();
    ChildProcess::Environment environment = {
        {vesper::bench::kPassLogVariable, log.path()},
        {"SDL_VIDEODRIVER", drivers.video},
        {"SDL_RENDER_DRIVER", drivers.renderer},
        {"SDL_FRAMEBUFFER_ACCELERATION", drivers.framebuffer_acceleration},
        {"SDL_AUDIODRIVER", "dummy"}};
    vesper::test::preload(environment, VESPER_PASS_LOG_LIBRARY);
    ChildProcess process(command_of(who, port), environment);
    if (!warm_up(*log, process)) {
        state.SkipWithError("the loop does not run");
        return;
    }
    std::optional<Flood> flood;
    if (flooded) {
        flood.emplace(*log, port);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const std::uint64_t first = log->passes;
    const double first_seconds = processor_seconds(process.pid());
    for (auto _ : state) {
        const std::uint64_t before = log->passes;
        std::this_thread::sleep_for(kWindow);
        const std::uint64_t after = log->passes;
        const std::int64_t ns =
            log->times[(after - 1) % PassLog::kTimes] - log->times[(before - 1) % PassLog::kTimes];
        // Time of one pass, however many fell into the window.
        state.SetIterationTime(1e-9 * static_cast<double>(ns) /
                               static_cast<double>(after - before));
    }
    const double passes = static_cast<double>(log->passes - first);
    state.counters["processor_us"] =
        1e6 * (processor_seconds(process.pid()) - first_seconds) / passes;
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

int main(int argc, char** argv) {
    for (const Drivers& drivers : {Drivers{"display", "x11", "", ""},
                                   {"display_software", "x11", "software", "0"},
                                   {"no_display", "dummy", "software", "0"}}) {
        for (const bool flooded : {false, true}) {
            const std::string name =
                std::string("loop/") + drivers.name + (flooded ? "/flood" : "/idle");
            const auto add = [&](const char* suffix, Who who) {
                benchmark::RegisterBenchmark((name + suffix).c_str(), run, who, drivers, flooded)
                    ->UseManualTime()
                    ->Iterations(kIterations)
                    ->Unit(benchmark::kMillisecond);
            };
            add("/player", Who::kPlayer);
            add("/floor", Who::kFloor);
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
