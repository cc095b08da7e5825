// What one pass of the main loop allocates on the heap, observed in the whole process.
#include <SDL2/SDL.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "audio/opus_codec.h"
#include "net/stream_datagrams.h"
#include "net/udp_socket.h"
#include "tests/support/allocation_log.h"
#include "tests/support/captured_output.h"
#include "tests/support/fragment_builder.h"
#include "tests/support/hook.h"
#include "tools/stream/free_port.h"
#include "tools/stream/packetizer.h"

using SteadyTime = std::chrono::steady_clock::time_point;

VESPER_HOOK(SDL_Delay, void, (Uint32 ms), (ms))
VESPER_HOOK(SDL_Quit, void, (), ())
// std::chrono::steady_clock::now() of libstdc++.
VESPER_HOOK(_ZNSt6chrono3_V212steady_clock3nowEv, SteadyTime, (), ())

int player_main(int argc, char** argv);

namespace vesper {
namespace {

using test::AllocationLog;
using test::FragmentBuilder;
using testing::Each;
using testing::SizeIs;

using Bytes = std::vector<std::uint8_t>;

// Runs the player's main() without a display and a sound card. A pass ends with SDL_Delay(), where
// the next pass's datagram is sent. Time stands still, so no frame ever waits too long.
class MainLoop : public test::HookedTest {
  protected:
    MainLoop() {
        ::setenv("SDL_VIDEODRIVER", "dummy", 1);
        ::setenv("SDL_AUDIODRIVER", "dummy", 1);
        // The receiver's clock is stopped, so that no frame becomes overdue on a slow machine.
        hook__ZNSt6chrono3_V212steady_clock3nowEv = [] { return SteadyTime(); };
    }

    // How often each pass allocated: one pass for each of `datagrams`; an empty one is not sent.
    // The first two passes allocate what is made once (the bar disappears, the table of frames is
    // created) and are not counted.
    std::vector<std::size_t> allocations_of_passes(const std::vector<Bytes>& datagrams) {
        constexpr std::size_t kSettlingPasses = 2;
        UDPSocket sender;
        EXPECT_TRUE(sender.bind(0));
        const std::uint16_t port = tools::free_port();
        std::vector<std::size_t> counts;
        counts.reserve(datagrams.size());
        AllocationLog log;
        std::size_t passes = 0;
        hook_SDL_Delay = [&](Uint32) {
            test::watch_allocations(nullptr);
            if (passes > kSettlingPasses && counts.size() < datagrams.size()) {
                counts.push_back(log.allocations().size());
            }
            log = AllocationLog();
            const Bytes first_frame = FragmentBuilder().frame(1).index(0).of(2).build();
            if (passes < kSettlingPasses) {
                sender.send(first_frame.data(), first_frame.size(), kParentHost, port);
            } else if (passes - kSettlingPasses < datagrams.size()) {
                const Bytes& next = datagrams[passes - kSettlingPasses];
                if (!next.empty()) {
                    sender.send(next.data(), next.size(), kParentHost, port);
                }
            } else {
                SDL_Event quit{};
                quit.type = SDL_QUIT;
                SDL_PushEvent(&quit);
            }
            ++passes;
            if (counts.size() < datagrams.size()) {
                test::watch_allocations(&log);
            }
        };
        run_player(port);
        return counts;
    }

  private:
    static void run_player(std::uint16_t port) {
        std::string number = std::to_string(port);
        std::vector<std::string> words = {"vesper-player", "--port", number,       "--width", "64",
                                          "--height",      "48",     "--has-audio"};
        std::vector<char*> arguments;
        arguments.reserve(words.size() + 1);
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        // In the player, what the receiver leaves ends with the process; this process goes on.
        hook_SDL_Quit = [] {};
        hook__ZNSt6chrono3_V212steady_clock3nowEv = [] { return SteadyTime(); };
        const auto printed = test::printed_by(
            [&] { EXPECT_EQ(player_main(static_cast<int>(words.size()), arguments.data()), 0); });
        __real_SDL_Quit();
        EXPECT_EQ(printed.err, "");
    }
};

TEST_F(MainLoop, APassWithoutADatagramAllocatesNothing) {
    const auto counts = allocations_of_passes(std::vector<Bytes>(20));
    ASSERT_THAT(counts, SizeIs(20));
    EXPECT_THAT(counts, Each(0U));
}

TEST_F(MainLoop, APassWithAFragmentOfAKnownFrameAllocatesNothing) {
    const auto of_100 = [](int index) {
        return FragmentBuilder().frame(2).index(index).of(100).payload_of_size(1400).build();
    };
    std::vector<Bytes> datagrams = {of_100(0)};
    for (int i = 1; i < 20; ++i) {
        datagrams.push_back(of_100(i));
        datagrams.push_back(of_100(i));  // its copy
    }
    const auto counts = allocations_of_passes(datagrams);
    ASSERT_THAT(counts, SizeIs(39));
    EXPECT_EQ(counts[0], 4U) << "the frame's entry and its three lists";
    EXPECT_THAT(std::vector(counts.begin() + 1, counts.end()), Each(0U));
}

TEST_F(MainLoop, APassWithASoundPacketAllocatesNothing) {
    OpusEncoderWrapper encoder;
    ASSERT_TRUE(encoder.init(48'000, 2, OPUS_APPLICATION_AUDIO));
    const std::vector<short> silence(1920);
    std::array<unsigned char, 1400> packet{};
    tools::AudioPacketizer packetizer;
    std::vector<Bytes> datagrams;
    for (int i = 0; i < 20; ++i) {
        const int size =
            encoder.encode(silence.data(), 960, packet.data(), static_cast<int>(packet.size()));
        ASSERT_GT(size, 0);
        datagrams.push_back(
            packetizer.packetize(std::span(packet).first(static_cast<std::size_t>(size))));
    }
    const auto counts = allocations_of_passes(datagrams);
    ASSERT_THAT(counts, SizeIs(20));
    EXPECT_THAT(counts, Each(0U));
}

TEST_F(MainLoop, APassWithAnUnusableDatagramAllocatesNothing) {
    const Bytes cut(27);
    const Bytes empty_header(28);
    const Bytes no_payload = FragmentBuilder().declared_payload_size(0).build();
    const auto counts = allocations_of_passes({cut, empty_header, no_payload, Bytes(65'507)});
    ASSERT_THAT(counts, SizeIs(4));
    EXPECT_THAT(counts, Each(0U));
}

}  // namespace
}  // namespace vesper
