// examples/voice.cpp, which hears a tone and hears itself.
#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <fstream>
#include <numbers>
#include <string>

#include "tests/e2e/played_sound.h"
#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/temporary_folder.h"
#include "tools/stream/free_port.h"

namespace vesper::test {

namespace {

constexpr double kFrequency = 440.0;  // Hz
constexpr double kAmplitude = 8000.0;
constexpr int kRate = 48'000;  // Hz

// Both channels of a tone, as SDL's disk driver reads it for a microphone.
void write_tone(const std::string& file, int seconds) {
    std::ofstream out(file, std::ios::binary);
    for (int i = 0; i < seconds * kRate; ++i) {
        const double phase = 2 * std::numbers::pi * kFrequency * i / kRate;
        const auto value = static_cast<short>(kAmplitude * std::sin(phase));
        for (int channel = 0; channel < 2; ++channel) {
            out.write(reinterpret_cast<const char*>(&value), sizeof(value));
        }
    }
}

}  // namespace

TEST(Voice, PlaysWhatTheMicrophoneHears) {
    constexpr std::size_t kBlocks = 50;  // one second
    const TemporaryFolder folder;
    const std::string microphone = folder.path() / "microphone.pcm";
    write_tone(microphone, 60);
    const PlayedSound sound(folder.path() / "loudspeaker.pcm");
    ChildProcess::Environment environment;
    sound.redirect(environment);
    environment["SDL_DISKAUDIOFILEIN"] = microphone;
    environment["SDL_DISKAUDIODELAY"] = "20";  // a microphone hears no faster than it is
    const std::string port = std::to_string(tools::free_port());
    ChildProcess voice({VESPER_VOICE, port, port}, environment);
    EXPECT_TRUE(eventually([&] {
        return std::filesystem::exists(sound.file()) && sound.heard().size() > kBlocks;
    })) << voice.err();
    voice.send_signal(SIGINT);
    EXPECT_EQ(voice.wait_for_end(), Ending{});

    SoundBlocks steady = sound.heard();
    ASSERT_GT(steady.size(), kBlocks);
    steady.erase(steady.begin(), steady.begin() + 5);  // the codec fades in
    // A machine that stalls leaves packets out, and the tone jumps there.
    EXPECT_NEAR(frequency(steady), kFrequency, 0.05 * kFrequency);
    EXPECT_NEAR(root_mean_square(steady), kAmplitude / std::numbers::sqrt2, 0.2 * kAmplitude);
}

}  // namespace vesper::test
