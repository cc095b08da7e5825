#include "client/audio_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/captured_output.h"
#include "tests/support/sdl_audio_hooks.h"

namespace vesper::client {

// Direction and handle of a device, which no public call returns.
struct AudioDevicePeer {
    static SDL_AudioDeviceID device_id(const AudioDevice& device) { return device.device_id; }
    static AudioDevice::Mode mode(const AudioDevice& device) { return device.mode; }
};

namespace {

using test::kFakeDevice;
using test::kNothing;
using test::Printed;
using test::printed_by;
using testing::ElementsAre;
using testing::IsEmpty;

class AudioDeviceTest : public test::HookedTest {
  protected:
    void SetUp() override { test::use_fake_sound_card(calls); }
    void TearDown() override {
        device.close();  // while the card is still there
        HookedTest::TearDown();
    }

    // Opens the device without noise on the test's own output, and forgets the calls.
    void open_silently(AudioDevice::Mode mode) {
        bool opened = false;
        (void)printed_by([&] { opened = device.open(mode, 48000, 2, 960, nullptr); });
        ASSERT_TRUE(opened);
        calls.clear();
    }

    void refuse_to_open(const char* reason) {
        hook_SDL_OpenAudioDevice = [this, reason](auto...) -> SDL_AudioDeviceID {
            calls.emplace_back("open refused");
            SDL_SetError("%s", reason);
            return 0;
        };
    }

    // The next dequeue call copies at most the bytes of `captured`, which wait in the queue.
    void capture_bytes(const std::vector<Uint8>& captured) {
        hook_SDL_GetQueuedAudioSize = [this, captured](auto) {
            calls.emplace_back("queued size");
            return static_cast<Uint32>(captured.size());
        };
        hook_SDL_DequeueAudio = [this, captured](auto, void* out, Uint32 bytes) {
            calls.push_back("dequeue " + std::to_string(bytes) + " bytes");
            const Uint32 copied = std::min(bytes, static_cast<Uint32>(captured.size()));
            std::memcpy(out, captured.data(), copied);
            return copied;
        };
    }

    std::vector<std::string> calls;
    AudioDevice device;
};

// ---- construction ----

TEST_F(AudioDeviceTest, ANewDeviceIsClosedAndInPlaybackMode) {
    EXPECT_EQ(AudioDevicePeer::device_id(device), 0U);
    EXPECT_EQ(AudioDevicePeer::mode(device), AudioDevice::Playback);
}

TEST_F(AudioDeviceTest, ModesAre32BitNumbersOfTheirOwn) {
    static_assert(sizeof(AudioDevice::Mode) == 4);
    EXPECT_EQ(AudioDevice::Capture, 0);
    EXPECT_EQ(AudioDevice::Playback, 1);
}

// ---- open ----

TEST_F(AudioDeviceTest, OpenAsksForExactlyTheFormatGiven) {
    const auto ask = [this](AudioDevice::Mode mode, const char* name, int wanted_iscapture) {
        hook_SDL_OpenAudioDevice = [&](const char* device_name, int iscapture,
                                       const SDL_AudioSpec* desired, SDL_AudioSpec* obtained,
                                       int allowed_changes) -> SDL_AudioDeviceID {
            EXPECT_STREQ(device_name, name);
            EXPECT_EQ(iscapture, wanted_iscapture);
            EXPECT_EQ(desired->freq, 44100);
            EXPECT_EQ(desired->format, AUDIO_S16LSB);
            EXPECT_EQ(desired->channels, 1);
            EXPECT_EQ(desired->samples, 512);
            EXPECT_EQ(desired->silence, 0);
            EXPECT_EQ(desired->padding, 0);
            EXPECT_EQ(desired->size, 0U);
            EXPECT_EQ(desired->callback, nullptr);
            EXPECT_EQ(desired->userdata, nullptr);
            EXPECT_EQ(obtained->freq, 0);
            EXPECT_EQ(obtained->format, 0);
            EXPECT_EQ(obtained->channels, 0);
            EXPECT_EQ(obtained->samples, 0);
            EXPECT_EQ(allowed_changes, 0);
            calls.emplace_back("asked");
            return kFakeDevice;
        };
        (void)printed_by([&] { EXPECT_TRUE(device.open(mode, 44100, 1, 512, name)); });
    };
    ask(AudioDevice::Playback, nullptr, 0);
    ask(AudioDevice::Capture, "Microphone", 1);
    EXPECT_THAT(calls, ElementsAre("asked", "pause 7 0", "close 7", "asked", "pause 7 0"));
}

TEST_F(AudioDeviceTest, OpenNarrowsChannelsTo8AndSamplesTo16Bits) {
    const Printed printed =
        printed_by([&] { EXPECT_TRUE(device.open(AudioDevice::Playback, 48000, 258, 66496, "")); });
    EXPECT_EQ(printed.out, "[Audio] Opened playback device: 48000 Hz, 2 ch, 960 samples\n");
}

TEST_F(AudioDeviceTest, OpenStoresTheModeBeforeTheAttempt) {
    hook_SDL_OpenAudioDevice = [this](auto...) -> SDL_AudioDeviceID {
        calls.push_back("mode " + std::to_string(AudioDevicePeer::mode(device)));
        return kFakeDevice;
    };
    (void)printed_by(
        [&] { EXPECT_TRUE(device.open(AudioDevice::Capture, 48000, 2, 960, nullptr)); });
    EXPECT_THAT(calls, ElementsAre("mode 0", "pause 7 0"));
}

TEST_F(AudioDeviceTest, OpenedLineNamesTheObtainedFormat) {
    hook_SDL_OpenAudioDevice = [](auto, auto, auto, SDL_AudioSpec* obtained, auto) {
        obtained->freq = 44100;
        obtained->channels = 6;
        obtained->samples = 4096;
        return kFakeDevice;
    };
    const auto open = [this](AudioDevice::Mode mode) {
        return printed_by([&] { EXPECT_TRUE(device.open(mode, 48000, 2, 960, nullptr)); });
    };
    EXPECT_EQ(open(AudioDevice::Playback),
              (Printed{.out = "[Audio] Opened playback device: 44100 Hz, 6 ch, 4096 samples\n",
                       .err = ""}));
    EXPECT_EQ(open(AudioDevice::Capture),
              (Printed{.out = "[Audio] Opened capture device: 44100 Hz, 6 ch, 4096 samples\n",
                       .err = ""}));
}

TEST_F(AudioDeviceTest, OpenPrintsItsLineAndThenStartsTheDevice) {
    std::string printed_before_start;
    hook_SDL_PauseAudioDevice = [&](SDL_AudioDeviceID id, int pause_on) {
        EXPECT_EQ(id, kFakeDevice);
        EXPECT_EQ(pause_on, 0);
        printed_before_start = test::take_stdout();
    };
    const Printed printed_after_start = printed_by(
        [&] { EXPECT_TRUE(device.open(AudioDevice::Playback, 48000, 2, 960, nullptr)); });
    EXPECT_EQ(printed_before_start,
              "[Audio] Opened playback device: 48000 Hz, 2 ch, 960 samples\n");
    EXPECT_EQ(printed_after_start, kNothing);
    EXPECT_EQ(AudioDevicePeer::device_id(device), kFakeDevice);
}

TEST_F(AudioDeviceTest, FailedOpenReportsTheReasonAndStaysClosedWithTheNewMode) {
    refuse_to_open("no such card");
    EXPECT_EQ(printed_by(
                  [&] { EXPECT_FALSE(device.open(AudioDevice::Capture, 48000, 2, 960, nullptr)); }),
              (Printed{.out = "", .err = "[Audio] Failed to open device: no such card\n"}));
    EXPECT_THAT(calls, ElementsAre("open refused"));  // and never started
    EXPECT_EQ(AudioDevicePeer::device_id(device), 0U);
    EXPECT_EQ(AudioDevicePeer::mode(device), AudioDevice::Capture);
}

TEST_F(AudioDeviceTest, SecondOpenClosesTheFirstDeviceBeforeOpeningTheNewOne) {
    open_silently(AudioDevice::Playback);
    (void)printed_by(
        [&] { EXPECT_TRUE(device.open(AudioDevice::Capture, 16000, 1, 320, "Microphone")); });
    EXPECT_THAT(calls, ElementsAre("close 7", "open capture Microphone", "pause 7 0"));
}

TEST_F(AudioDeviceTest, FailedSecondOpenHasClosedTheFirstDevice) {
    open_silently(AudioDevice::Playback);
    refuse_to_open("busy");
    (void)printed_by(
        [&] { EXPECT_FALSE(device.open(AudioDevice::Capture, 48000, 2, 960, nullptr)); });
    EXPECT_THAT(calls, ElementsAre("close 7", "open refused"));
    EXPECT_EQ(AudioDevicePeer::device_id(device), 0U);
    EXPECT_EQ(AudioDevicePeer::mode(device), AudioDevice::Capture);
}

// ---- close ----

TEST_F(AudioDeviceTest, CloseClosesOnceAndKeepsTheMode) {
    open_silently(AudioDevice::Capture);
    EXPECT_EQ(printed_by([&] {
                  device.close();
                  device.close();
              }),
              kNothing);
    EXPECT_THAT(calls, ElementsAre("close 7"));
    EXPECT_EQ(AudioDevicePeer::device_id(device), 0U);
    EXPECT_EQ(AudioDevicePeer::mode(device), AudioDevice::Capture);
}

TEST_F(AudioDeviceTest, DestructorClosesTheDevice) {
    (void)printed_by([&] {
        AudioDevice short_lived;
        EXPECT_TRUE(short_lived.open(AudioDevice::Playback, 48000, 2, 960, nullptr));
        calls.clear();
    });
    EXPECT_THAT(calls, ElementsAre("close 7"));
}

TEST_F(AudioDeviceTest, DestructorOfAClosedDeviceDoesNothing) {
    std::optional<AudioDevice> never_opened(std::in_place);
    never_opened.reset();
    EXPECT_THAT(calls, IsEmpty());
}

// ---- write_samples ----

TEST_F(AudioDeviceTest, WriteQueuesTwoBytesForEachValue) {
    open_silently(AudioDevice::Playback);
    const std::array<short, 3> samples = {1, -2, 3};
    hook_SDL_QueueAudio = [&](SDL_AudioDeviceID id, const void* data, Uint32 bytes) {
        EXPECT_EQ(id, kFakeDevice);
        EXPECT_EQ(data, samples.data());
        EXPECT_EQ(bytes, 6U);
        calls.emplace_back("queued");
        return 0;
    };
    device.write_samples(samples.data(), 3);
    EXPECT_THAT(calls, ElementsAre("queued"));
}

TEST_F(AudioDeviceTest, WriteIgnoresThatSdlRefuses) {
    open_silently(AudioDevice::Playback);
    hook_SDL_QueueAudio = [this](auto...) {
        calls.emplace_back("refused");
        return -1;
    };
    const short sample = 1;
    EXPECT_EQ(printed_by([&] {
                  device.write_samples(&sample, 1);
                  device.write_samples(&sample, 1);
              }),
              kNothing);
    EXPECT_THAT(calls, ElementsAre("refused", "refused"));
}

TEST_F(AudioDeviceTest, WriteOnACaptureDeviceQueuesNothing) {
    open_silently(AudioDevice::Capture);
    const short sample = 1;
    EXPECT_EQ(printed_by([&] { device.write_samples(&sample, 1); }), kNothing);
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(AudioDeviceTest, WriteBeforeAnyOpenAndAfterCloseQueuesNothing) {
    const short sample = 1;
    EXPECT_EQ(printed_by([&] { device.write_samples(&sample, 1); }), kNothing);
    open_silently(AudioDevice::Playback);
    device.close();
    calls.clear();
    EXPECT_EQ(printed_by([&] { device.write_samples(&sample, 1); }), kNothing);
    EXPECT_THAT(calls, IsEmpty());
}

// ---- read_samples ----

TEST_F(AudioDeviceTest, ReadWith5BytesQueuedReads2Values) {
    open_silently(AudioDevice::Capture);
    capture_bytes({0x01, 0x02, 0xFE, 0xFF, 0x7F});
    std::array<short, 4> out = {9, 9, 9, 9};
    EXPECT_EQ(device.read_samples(out.data(), 4), 2);
    EXPECT_THAT(out, ElementsAre(0x0201, -2, 9, 9));
    EXPECT_THAT(calls, ElementsAre("queued size", "dequeue 4 bytes"));
}

TEST_F(AudioDeviceTest, ReadTakesAtMostMaxSamples) {
    open_silently(AudioDevice::Capture);
    capture_bytes({1, 0, 2, 0, 3, 0, 4, 0});
    std::array<short, 3> out = {9, 9, 9};
    EXPECT_EQ(device.read_samples(out.data(), 2), 2);
    EXPECT_THAT(out, ElementsAre(1, 2, 9));
    EXPECT_THAT(calls, ElementsAre("queued size", "dequeue 4 bytes"));
}

TEST_F(AudioDeviceTest, ReadReturnsTheWholeValuesThatSdlReallyCopied) {
    open_silently(AudioDevice::Capture);
    hook_SDL_GetQueuedAudioSize = [](auto) -> Uint32 { return 8; };
    hook_SDL_DequeueAudio = [](auto...) -> Uint32 { return 5; };
    std::array<short, 4> out{};
    EXPECT_EQ(device.read_samples(out.data(), 4), 2);
}

TEST_F(AudioDeviceTest, ReadCountsTheLargestQueueUnsigned) {
    open_silently(AudioDevice::Capture);
    hook_SDL_GetQueuedAudioSize = [](auto) { return std::numeric_limits<Uint32>::max(); };
    std::array<short, 4> out{};
    EXPECT_EQ(device.read_samples(out.data(), 4), 4);
    EXPECT_THAT(calls, ElementsAre("dequeue 7 8 bytes"));
}

TEST_F(AudioDeviceTest, ReadOfAnEmptyQueueDequeuesNothing) {
    open_silently(AudioDevice::Capture);
    short out = 9;
    EXPECT_EQ(device.read_samples(&out, 1), 0);
    capture_bytes({0x55});  // half a value is none
    EXPECT_EQ(device.read_samples(&out, 1), 0);
    EXPECT_EQ(out, 9);
    EXPECT_THAT(calls, ElementsAre("queued size 7", "queued size"));
}

TEST_F(AudioDeviceTest, ReadOfNoOrANegativeNumberOfSamplesDequeuesNothing) {
    open_silently(AudioDevice::Capture);
    capture_bytes({1, 0, 2, 0});
    short out = 9;
    EXPECT_EQ(device.read_samples(&out, 0), 0);
    EXPECT_EQ(device.read_samples(&out, -1), 0);
    EXPECT_EQ(out, 9);
    EXPECT_THAT(calls, ElementsAre("queued size", "queued size"));
}

TEST_F(AudioDeviceTest, ReadOnAPlaybackOrClosedDeviceCallsNothing) {
    short out = 9;
    EXPECT_EQ(device.read_samples(&out, 1), 0);
    open_silently(AudioDevice::Playback);
    capture_bytes({1, 0});
    EXPECT_EQ(device.read_samples(&out, 1), 0);
    open_silently(AudioDevice::Capture);
    device.close();
    calls.clear();
    EXPECT_EQ(device.read_samples(&out, 1), 0);
    EXPECT_EQ(out, 9);
    EXPECT_THAT(calls, IsEmpty());
}

// ---- queue and pause ----

TEST_F(AudioDeviceTest, QueueAndPauseCallsReachTheOpenDevice) {
    for (const auto mode : {AudioDevice::Playback, AudioDevice::Capture}) {
        open_silently(mode);
        hook_SDL_GetQueuedAudioSize = [this](SDL_AudioDeviceID id) {
            calls.push_back("queued size " + std::to_string(id));
            return 0xFFFFFFFEU;
        };
        EXPECT_EQ(device.get_queued_size(), 0xFFFFFFFEU);
        device.clear_queue();
        device.pause(true);
        device.pause(false);
        EXPECT_THAT(calls, ElementsAre("queued size 7", "clear 7", "pause 7 1", "pause 7 0"));
    }
}

TEST_F(AudioDeviceTest, QueueAndPauseCallsOnAClosedDeviceAreSilentNoOps) {
    EXPECT_EQ(printed_by([&] {
                  EXPECT_EQ(device.get_queued_size(), 0U);
                  device.clear_queue();
                  device.pause(true);
                  device.pause(false);
              }),
              kNothing);
    EXPECT_THAT(calls, IsEmpty());
}

// ---- list_devices ----

TEST_F(AudioDeviceTest, ListHasTheNamesInSdlsOrderAndSkipsTheNameless) {
    for (const auto mode : {AudioDevice::Capture, AudioDevice::Playback}) {
        const int wanted_iscapture = mode == AudioDevice::Capture ? 1 : 0;
        hook_SDL_GetNumAudioDevices = [&](int iscapture) {
            EXPECT_EQ(iscapture, wanted_iscapture);
            return 3;
        };
        hook_SDL_GetAudioDeviceName = [&](int index, int iscapture) {
            EXPECT_EQ(iscapture, wanted_iscapture);
            return std::array<const char*, 3>{"Speakers", nullptr, "Headset"}.at(
                static_cast<std::size_t>(index));
        };
        EXPECT_THAT(AudioDevice::list_devices(mode), ElementsAre("Speakers", "Headset"));
    }
}

TEST_F(AudioDeviceTest, ListIsEmptyWhenSdlReportsANegativeCount) {
    hook_SDL_GetNumAudioDevices = [](int) { return -1; };
    hook_SDL_GetAudioDeviceName = [this](auto...) {
        calls.emplace_back("name");
        return "nobody";
    };
    EXPECT_THAT(AudioDevice::list_devices(AudioDevice::Playback), IsEmpty());
    EXPECT_THAT(calls, IsEmpty());
}

// ---- SDL's dummy driver, nothing hooked ----

class AudioDeviceOnDummyDriver : public test::HookedTest {
  protected:
    void SetUp() override {
        SDL_setenv("SDL_AUDIODRIVER", "dummy", 1);
        ASSERT_EQ(SDL_InitSubSystem(SDL_INIT_AUDIO), 0) << SDL_GetError();
    }
    void TearDown() override { SDL_QuitSubSystem(SDL_INIT_AUDIO); }

    template <typename Condition>
    static bool becomes_true(Condition&& condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!condition() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return condition();
    }
};

TEST_F(AudioDeviceOnDummyDriver, PlaybackDrainsWhatIsWrittenUnlessPaused) {
    AudioDevice device;
    EXPECT_EQ(printed_by([&] {
                  EXPECT_TRUE(device.open(AudioDevice::Playback, 48000, 2, 960, nullptr));
              }).out,
              "[Audio] Opened playback device: 48000 Hz, 2 ch, 960 samples\n");
    const std::vector<short> samples(1920, 1000);

    device.write_samples(samples.data(), 1920);
    EXPECT_TRUE(becomes_true([&] { return device.get_queued_size() == 0; }));

    device.pause(true);
    device.write_samples(samples.data(), 1920);
    device.write_samples(samples.data(), 960);
    EXPECT_EQ(device.get_queued_size(), 5760U);
    device.clear_queue();
    EXPECT_EQ(device.get_queued_size(), 0U);

    device.write_samples(samples.data(), 1920);
    device.pause(false);
    EXPECT_TRUE(becomes_true([&] { return device.get_queued_size() == 0; }));
    device.close();
    EXPECT_EQ(device.get_queued_size(), 0U);
}

TEST_F(AudioDeviceOnDummyDriver, CaptureYieldsSilence) {
    AudioDevice device;
    EXPECT_EQ(printed_by([&] {
                  EXPECT_TRUE(device.open(AudioDevice::Capture, 48000, 1, 480, nullptr));
              }).out,
              "[Audio] Opened capture device: 48000 Hz, 1 ch, 480 samples\n");
    std::vector<short> heard(480, short{99});
    int count = 0;
    EXPECT_TRUE(becomes_true([&] {
        count = std::max(count, device.read_samples(heard.data(), 480));
        return count > 0;
    }));
    heard.resize(static_cast<std::size_t>(count));
    EXPECT_THAT(heard, testing::Each(short{0}));
}

TEST_F(AudioDeviceOnDummyDriver, AFormatThatSdlRefusesIsReportedInSdlsWords) {
    constexpr int kMoreChannelsThanSdlKnows = 9;
    AudioDevice device;
    const Printed printed = printed_by([&] {
        EXPECT_FALSE(
            device.open(AudioDevice::Playback, 48000, kMoreChannelsThanSdlKnows, 960, nullptr));
    });
    EXPECT_STRNE(SDL_GetError(), "");
    EXPECT_EQ(printed.out, "");
    EXPECT_EQ(printed.err, std::string("[Audio] Failed to open device: ") + SDL_GetError() + "\n");
}

TEST_F(AudioDeviceOnDummyDriver, ListNamesTheDriversDevice) {
    EXPECT_EQ(AudioDevice::list_devices(AudioDevice::Playback).size(), 1U);
}

}  // namespace
}  // namespace vesper::client
