// The real player for a long time: a stream of 1280x720 pixels at 30 frames/s with sound, 2 per
// cent of its datagrams lost. Its memory stays what it is, it prints nothing that the loss does not
// explain, and picture and sound are right at the end.
//
// One minute unless VESPER_SOAK_MINUTES sets another time. Not built with sanitizers: they retain
// freed memory, so that it grows without a leak.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "tests/e2e/live_stream_fixture.h"
#include "tests/e2e/played_sound.h"
#include "tools/stream/media_source.h"

namespace vesper::test {

namespace {

using std::chrono::seconds;

constexpr tools::Vp8Settings kStream;  // as the stand-in parent streams
constexpr std::uint64_t kSeed = 7;
constexpr double kLoss = 2;  // per cent

// What memory may grow by once everything that is made on demand has been made: decoder, converter,
// queues and the allocator's arenas. A player without leaks stays within some sixty KiB. At the
// stream's full rate this limit finds a leak of 1.7 KB per frame, or of 1 KB per sound packet, in
// the one minute of every test run; in thirty minutes, of 40 bytes.
constexpr long kGrowthLimit = 2048;  // KiB

// How long that takes at most; a third of a short soak.
constexpr seconds kSettlingTime{60};

constexpr seconds kShortestInterval{10};
constexpr int kMostIntervals = 30;

seconds soak_time() {
    const char* minutes = std::getenv("VESPER_SOAK_MINUTES");
    return std::chrono::minutes(minutes == nullptr ? 1 : std::max(std::atoi(minutes), 1));
}

// Of a running process, in KiB; 0 when it cannot be read.
long resident_memory(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    long kibibytes = 0;
    for (std::string line; std::getline(status, line) && kibibytes == 0;) {
        (void)std::sscanf(line.c_str(), "VmRSS: %ld kB", &kibibytes);
    }
    return kibibytes;
}

}  // namespace

class Soak : public LiveStreamTest {
  protected:
    Soak() : LiveStreamTest(kStream) {}

    void SetUp() override {
        ASSERT_TRUE(source_.open_test_picture({.width = kStream.width,
                                               .height = kStream.height,
                                               .frames_per_second = kStream.frames_per_second,
                                               .sound = false}));
        sound_.redirect(environment);
        failure_text = sound_.driver_text();
        start_stream();
        std::printf("seed %llu, loss %.0f%%\n", static_cast<unsigned long long>(kSeed), kLoss);
    }

    [[nodiscard]] tools::Picture next_picture() override { return source_.next_picture(); }

    // Streams for `time` and prints what has come of the stream so far. The player's resident
    // memory then, in KiB.
    long soak(seconds time) {
        stream(time, network_);
        sound_.forget();
        soaked_ += time;
        const long memory = resident_memory(player->pid());
        const LiveStream::Counters& counters = live.counters();
        std::printf(
            "%5lld s: %ld KiB resident, %llu frames, %llu datagrams, %llu lost, %llu keyframe "
            "requests, %llu times late\n",
            static_cast<long long>(soaked_.count()), memory,
            static_cast<unsigned long long>(counters.frames),
            static_cast<unsigned long long>(counters.sent),
            static_cast<unsigned long long>(counters.impaired),
            static_cast<unsigned long long>(counters.keyframe_requests),
            static_cast<unsigned long long>(counters.late));
        std::fflush(stdout);
        return memory;
    }

    // Streams over a perfect network, and expects the tone in the last second.
    void expect_good_sound() {
        constexpr std::size_t kLastSecond = 50;  // blocks of 20 ms
        SoundBlocks heard;
        ASSERT_TRUE(eventually([&] {
            stream(seconds(1), perfect_network());
            heard = sound_.heard();
            return heard.size() >= kLastSecond;
        }));
        heard.erase(heard.begin(), heard.end() - kLastSecond);
        expect_tone(heard);
        std::printf("sound at the end: %.1f Hz, level %.0f\n", frequency(heard),
                    root_mean_square(heard));
    }

  private:
    PlayedSound sound_{directory.path() / "sound.pcm"};
    tools::MediaSource source_;
    const LiveStream::Network network_ = impaired({.loss = kLoss, .seed = kSeed});
    seconds soaked_{0};
};

TEST_F(Soak, MemoryStaysFlatAndPictureAndSoundAreRightAtTheEnd) {
    const seconds settling = std::min(kSettlingTime, soak_time() / 3);
    const seconds interval = std::max(kShortestInterval, soak_time() / kMostIntervals);
    const long settled = soak(settling);
    ASSERT_GT(settled, 0);
    for (seconds left = soak_time() - settling; left.count() > 0; left -= interval) {
        const long memory = soak(std::min(left, interval));
        ASSERT_LE(memory - settled, kGrowthLimit)
            << "KiB more than after " << settling.count() << " s";
    }
    EXPECT_GT(live.counters().impaired, 0U);
    expect_good_sound();
    expect_good_picture();
    expect_explained_end();
}

}  // namespace vesper::test
