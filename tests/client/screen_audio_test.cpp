#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opus.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include "audio/opus_codec.h"
#include "net/stream_datagrams.h"
#include "tests/support/allocation_log.h"
#include "tests/support/captured_output.h"
#include "tests/support/sdl_audio_hooks.h"
#include "tests/support/video_receiver_peer.h"

VESPER_HOOK(opus_decoder_create, OpusDecoder*, (opus_int32 rate, int channels, int* error),
            (rate, channels, error))
VESPER_HOOK(opus_decoder_destroy, void, (OpusDecoder * decoder), (decoder))
VESPER_HOOK(opus_decode, int,
            (OpusDecoder * decoder, const unsigned char* data, opus_int32 len, opus_int16* pcm,
             int frame_size, int decode_fec),
            (decoder, data, len, pcm, frame_size, decode_fec))

namespace vesper::client {
namespace {

using test::kNothing;
using test::Printed;
using test::printed_by;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Bytes = std::vector<std::uint8_t>;
using Samples = std::vector<short>;

constexpr float kInfinity = std::numeric_limits<float>::infinity();

Bytes packet(std::uint32_t sequence, const Bytes& payload = {0xA1, 0xA2, 0xA3}) {
    Bytes datagram(kPacketHeaderSize);
    write_packet_header({.sequence = sequence,
                         .payload_size = static_cast<std::uint16_t>(payload.size()),
                         .flags = kScreenAudioFlag},
                        datagram.data());
    datagram.insert(datagram.end(), payload.begin(), payload.end());
    return datagram;
}

// A receiver whose sound goes to a fake sound card that only records what it receives.
class ScreenAudioBase : public test::HookedTest {
  protected:
    void SetUp() override {
        test::use_fake_sound_card(calls);
        hook_SDL_QueueAudio = [this](auto, const void* data, Uint32 bytes) {
            Samples samples(bytes / 2);
            std::memcpy(samples.data(), data, bytes);
            calls.push_back("write " + std::to_string(samples.size()));
            written.push_back(std::move(samples));
            after_write();
            return 0;
        };
        peer.go_live_without_decoder();
    }

    void TearDown() override {
        (void)printed_by([this] { owner.reset(); });
        HookedTest::TearDown();
    }

    void enable() {
        (void)printed_by([this] { receiver.enable_audio(true); });
        ASSERT_TRUE(peer.audio_enabled());
        calls.clear();
    }

    void deliver(const Bytes& bytes) {
        const Bytes datagram(bytes.begin(), bytes.end());  // no spare capacity to read into
        receiver.handle_screen_audio(datagram.data(), static_cast<int>(datagram.size()));
    }

    // What the packets of these sequence numbers cause.
    std::vector<std::string> calls_for(std::initializer_list<std::uint32_t> sequences) {
        calls.clear();
        for (const std::uint32_t sequence : sequences) {
            deliver(packet(sequence));
        }
        return calls;
    }

    std::vector<std::string> calls;
    std::vector<Samples> written;
    std::function<void()> after_write = [] {};
    std::unique_ptr<VideoReceiver> owner = std::make_unique<VideoReceiver>();
    VideoReceiver& receiver = *owner;
    VideoReceiverPeer peer{receiver};
};

// ... and whose decoder is a recorded one: every packet becomes `decoded`, every concealed frame
// the one value `concealed`.
class ScreenAudio : public ScreenAudioBase {
  protected:
    void SetUp() override {
        ScreenAudioBase::SetUp();
        enable();
        hook_opus_decode = [this](auto, const unsigned char* data, opus_int32 len, opus_int16* pcm,
                                  int frame_size, int decode_fec) {
            EXPECT_EQ(frame_size, 960);
            EXPECT_EQ(decode_fec, 0);
            if (data == nullptr) {
                EXPECT_EQ(len, 0);
                calls.emplace_back("conceal");
                std::fill_n(pcm, 1920, concealed);
                after_conceal();
                return conceal_result;
            }
            calls.emplace_back("decode");
            payload.assign(data, data + len);
            std::copy(decoded.begin(), decoded.end(), pcm);
            after_decode();
            return decode_result;
        };
    }

    // What the device gets of the decoded `samples` at this volume; at most 1920 values, even.
    Samples played(const Samples& samples, float volume) {
        decoded = samples;
        decode_result = static_cast<int>(samples.size() / 2);
        receiver.set_audio_volume(volume);
        written.clear();
        deliver(packet(1));
        return written.empty() ? Samples{} : written.back();
    }

    short scaled(int sample, float volume) {
        return played({static_cast<short>(sample), 0}, volume).at(0);
    }

    void expect_dropped(const Bytes& datagram) {
        peer.last_audio_sequence() = 10;
        EXPECT_EQ(printed_by([&] { deliver(datagram); }), kNothing);
        EXPECT_THAT(calls, IsEmpty());
        EXPECT_EQ(peer.last_audio_sequence(), 10U);
    }

    Samples decoded = Samples(1920, 100);
    short concealed = 50;
    int decode_result = 960;
    int conceal_result = 960;
    std::function<void()> after_decode = [] {};
    std::function<void()> after_conceal = [] {};
    Bytes payload;  // of the packet decoded last
};

// ---- enable_audio ----

class ScreenAudioSetUp : public ScreenAudioBase {
  protected:
    void SetUp() override {
        ScreenAudioBase::SetUp();
        hook_opus_decoder_create = [this](opus_int32 rate, int channels, int* error) {
            calls.push_back("create decoder " + std::to_string(rate) + " " +
                            std::to_string(channels));
            return __real_opus_decoder_create(rate, channels, error);
        };
        hook_opus_decoder_destroy = [this](OpusDecoder* decoder) {
            calls.emplace_back("destroy decoder");
            __real_opus_decoder_destroy(decoder);
        };
    }

    Printed enabling_prints() {
        return printed_by([this] { receiver.enable_audio(true); });
    }
};

const Printed kEnabled{.out =
                           "[Audio] Opened playback device: 48000 Hz, 2 ch, 960 samples\n"
                           "[VideoReceiver] Screen audio enabled (stereo, 48kHz)\n",
                       .err = ""};

TEST_F(ScreenAudioSetUp, EnablingOpensADecoderAndThenTheDefaultDevice) {
    peer.last_audio_sequence() = 7;
    EXPECT_EQ(enabling_prints(), kEnabled);
    EXPECT_THAT(calls, ElementsAre("create decoder 48000 2", "open playback default", "pause 7 0"));
    EXPECT_TRUE(peer.audio_enabled());
    EXPECT_EQ(peer.last_audio_sequence(), 0U);
    EXPECT_EQ(peer.audio_volume(), 1.0F);
}

TEST_F(ScreenAudioSetUp, EnablingAsksForABufferOf960StereoFrames) {
    hook_SDL_OpenAudioDevice = [](auto, auto, const SDL_AudioSpec* desired, auto, auto) {
        EXPECT_EQ(desired->freq, 48000);
        EXPECT_EQ(desired->channels, 2);
        EXPECT_EQ(desired->samples, 960);
        return test::kFakeDevice;
    };
    EXPECT_EQ(enabling_prints().err, "");
}

TEST_F(ScreenAudioSetUp, EnablingKeepsTheVolume) {
    receiver.set_audio_volume(0.25F);
    (void)enabling_prints();
    EXPECT_EQ(peer.audio_volume(), 0.25F);
}

TEST_F(ScreenAudioSetUp, EnablingTwiceOpensOneDevice) {
    (void)enabling_prints();
    calls.clear();
    peer.last_audio_sequence() = 7;
    EXPECT_EQ(enabling_prints(), kNothing);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_TRUE(peer.audio_enabled());
    EXPECT_EQ(peer.last_audio_sequence(), 7U);
}

TEST_F(ScreenAudioSetUp, DisablingDoesNothing) {
    const auto disable = [this] { receiver.enable_audio(false); };
    EXPECT_EQ(printed_by(disable), kNothing);
    EXPECT_FALSE(peer.audio_enabled());
    (void)enabling_prints();
    calls.clear();
    peer.last_audio_sequence() = 7;
    EXPECT_EQ(printed_by(disable), kNothing);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_TRUE(peer.audio_enabled());
    EXPECT_EQ(peer.last_audio_sequence(), 7U);
}

TEST_F(ScreenAudioSetUp, WithoutADecoderNoDeviceIsOpened) {
    hook_opus_decoder_create = [](auto, auto, int* error) -> OpusDecoder* {
        *error = OPUS_ALLOC_FAIL;
        return nullptr;
    };
    peer.last_audio_sequence() = 7;
    EXPECT_EQ(enabling_prints(),
              (Printed{.out = "", .err = "[VideoReceiver] Failed to init screen audio decoder\n"}));
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_FALSE(peer.audio_enabled());
    EXPECT_EQ(peer.last_audio_sequence(), 7U);

    hook_opus_decoder_create = nullptr;
    EXPECT_EQ(enabling_prints(), kEnabled);
}

TEST_F(ScreenAudioSetUp, WithoutADeviceTheDecoderIsGivenBackAfterTheReport) {
    const auto open = hook_SDL_OpenAudioDevice;
    hook_SDL_OpenAudioDevice = [this](auto...) -> SDL_AudioDeviceID {
        calls.emplace_back("open refused");
        SDL_SetError("no such card");
        return 0;
    };
    const auto destroy = hook_opus_decoder_destroy;
    std::string reported_first;
    hook_opus_decoder_destroy = [&](OpusDecoder* decoder) {
        reported_first = test::take_stderr();
        destroy(decoder);
    };
    peer.last_audio_sequence() = 7;
    EXPECT_EQ(enabling_prints(), kNothing);
    EXPECT_EQ(reported_first,
              "[Audio] Failed to open device: no such card\n"
              "[VideoReceiver] Failed to open screen audio playback device\n");
    EXPECT_THAT(calls, ElementsAre("create decoder 48000 2", "open refused", "destroy decoder"));
    EXPECT_FALSE(peer.audio_enabled());
    EXPECT_EQ(peer.last_audio_sequence(), 7U);

    hook_SDL_OpenAudioDevice = open;
    hook_opus_decoder_destroy = destroy;
    EXPECT_EQ(enabling_prints(), kEnabled);
}

TEST_F(ScreenAudioSetUp, PacketsAreDroppedWhileDisabled) {
    EXPECT_EQ(printed_by([this] { deliver(packet(5)); }), kNothing);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(peer.last_audio_sequence(), 0U);
}

// ---- what is taken for a packet ----

TEST_F(ScreenAudio, PacketsAreDroppedWhileNotRunning) {
    peer.running() = false;
    expect_dropped(packet(11));
    expect_dropped(packet(100));
}

TEST_F(ScreenAudio, ADatagramOf28BytesOrLessIsDropped) {
    const Bytes whole = packet(11);
    expect_dropped(Bytes(whole.begin(), whole.begin() + 28));
    expect_dropped(Bytes(whole.begin(), whole.begin() + 27));
    expect_dropped({});
    receiver.handle_screen_audio(whole.data(), -1);
    EXPECT_THAT(calls, IsEmpty());
}

TEST_F(ScreenAudio, PayloadSize0IsDroppedWhateverFollows) {
    Bytes datagram = packet(11);
    datagram[24] = 0;
    expect_dropped(datagram);
    expect_dropped(packet(11, {}));
}

TEST_F(ScreenAudio, APayloadSizeBeyondTheBytesPresentIsDropped) {
    Bytes datagram = packet(100);
    datagram[24] = 4;  // of 3
    expect_dropped(datagram);
    datagram[24] = 0xFF;
    datagram[25] = 0xFF;
    expect_dropped(datagram);
}

TEST_F(ScreenAudio, ExactlyThePayloadIsDecoded) {
    deliver(packet(1, {5, 6, 7}));
    EXPECT_THAT(payload, ElementsAre(5, 6, 7));
    Bytes longer = packet(2, {8, 9});
    longer.resize(longer.size() + 100, 0xEE);
    deliver(longer);
    EXPECT_THAT(payload, ElementsAre(8, 9));
    EXPECT_THAT(calls, ElementsAre("decode", "write 1920", "decode", "write 1920"));
}

TEST_F(ScreenAudio, BytesThatAreTheSendersOwnAndTheFlagsChangeNothing) {
    Bytes datagram = packet(12);
    std::fill_n(datagram.begin(), 20, std::uint8_t{0xFF});
    datagram[26] = 0;
    datagram[27] = 0xFF;
    peer.last_audio_sequence() = 11;
    deliver(datagram);
    EXPECT_THAT(calls, ElementsAre("decode", "write 1920"));
    EXPECT_EQ(peer.last_audio_sequence(), 12U);
}

TEST_F(ScreenAudio, FieldsAreLittleEndianAndNeedNoAlignment) {
    Bytes shifted(1 + 28);
    const Bytes sequence_and_size = {0x04, 0x03, 0x02, 0x01, 0x01, 0x01};  // 257 bytes
    std::copy(sequence_and_size.begin(), sequence_and_size.end(), shifted.begin() + 1 + 20);
    shifted.resize(1 + 28 + 257, 0xEE);
    receiver.handle_screen_audio(shifted.data() + 1, 28 + 257);
    EXPECT_EQ(peer.last_audio_sequence(), 0x01020304U);
    EXPECT_THAT(payload, SizeIs(257));
}

// ---- sequence numbers ----

TEST_F(ScreenAudio, TheFirstPacketIsNeverPrecededByConcealment) {
    for (const std::uint32_t first : {0U, 1U, 2U, 1000U, 0xFFFFFFFFU}) {
        peer.last_audio_sequence() = 0;
        EXPECT_THAT(calls_for({first}), ElementsAre("decode", "write 1920"));
        EXPECT_EQ(peer.last_audio_sequence(), first);
    }
}

TEST_F(ScreenAudio, NothingIsConcealedBetweenConsecutivePackets) {
    EXPECT_THAT(calls_for({10, 11}), ElementsAre("decode", "write 1920", "decode", "write 1920"));
}

TEST_F(ScreenAudio, EachLostPacketIsConcealedBeforeTheNextIsDecoded) {
    peer.last_audio_sequence() = 10;
    EXPECT_THAT(calls_for({12}), ElementsAre("conceal", "write 1920", "decode", "write 1920"));
    EXPECT_THAT(written, ElementsAre(Samples(1920, 50), Samples(1920, 100)));
    EXPECT_THAT(calls_for({15}), ElementsAre("conceal", "write 1920", "conceal", "write 1920",
                                             "decode", "write 1920"));
}

TEST_F(ScreenAudio, AtMostThreeLostPacketsAreConcealed) {
    for (const std::uint32_t next : {14U, 15U, 100U, 0xFFFFFFFFU}) {
        peer.last_audio_sequence() = 10;
        EXPECT_THAT(calls_for({next}),
                    ElementsAre("conceal", "write 1920", "conceal", "write 1920", "conceal",
                                "write 1920", "decode", "write 1920"));
        EXPECT_EQ(peer.last_audio_sequence(), next);
    }
}

TEST_F(ScreenAudio, ALatePacketIsPlayedAndMovesTheReferenceBack) {
    EXPECT_THAT(calls_for({10, 12}), ElementsAre("decode", "write 1920", "conceal", "write 1920",
                                                 "decode", "write 1920"));
    EXPECT_THAT(calls_for({11}), ElementsAre("decode", "write 1920"));
    EXPECT_EQ(peer.last_audio_sequence(), 11U);
    EXPECT_THAT(calls_for({12}), ElementsAre("decode", "write 1920"));
}

TEST_F(ScreenAudio, ARepeatedPacketIsPlayedAgain) {
    EXPECT_THAT(calls_for({10, 10}), ElementsAre("decode", "write 1920", "decode", "write 1920"));
}

TEST_F(ScreenAudio, Sequence0ResetsTheReference) {
    EXPECT_THAT(calls_for({10, 0, 500}), ElementsAre("decode", "write 1920", "decode", "write 1920",
                                                     "decode", "write 1920"));
    EXPECT_EQ(peer.last_audio_sequence(), 500U);
}

TEST_F(ScreenAudio, NothingIsConcealedWhereTheSequenceWraps) {
    EXPECT_THAT(calls_for({0xFFFFFFFE, 0xFFFFFFFF, 0, 1}),
                ElementsAre("decode", "write 1920", "decode", "write 1920", "decode", "write 1920",
                            "decode", "write 1920"));
}

TEST_F(ScreenAudio, APacketLostRightAfterTheLargestNumberIsConcealed) {
    peer.last_audio_sequence() = 0xFFFFFFFF;
    EXPECT_THAT(calls_for({1}), ElementsAre("conceal", "write 1920", "decode", "write 1920"));
    peer.last_audio_sequence() = 0xFFFFFFFF;
    EXPECT_THAT(calls_for({9}), ElementsAre("conceal", "write 1920", "conceal", "write 1920",
                                            "conceal", "write 1920", "decode", "write 1920"));
}

TEST_F(ScreenAudio, PacketsLostAroundTheWrapLookLate) {
    peer.last_audio_sequence() = 0xFFFFFFFE;
    EXPECT_THAT(calls_for({2}), ElementsAre("decode", "write 1920"));
    EXPECT_EQ(peer.last_audio_sequence(), 2U);
}

TEST_F(ScreenAudio, TheReferenceMovesAfterTheConcealmentAndBeforeTheDecode) {
    peer.last_audio_sequence() = 10;
    after_conceal = [this] { EXPECT_EQ(peer.last_audio_sequence(), 10U); };
    after_decode = [this] { EXPECT_EQ(peer.last_audio_sequence(), 12U); };
    EXPECT_THAT(calls_for({12}), SizeIs(4));
}

TEST_F(ScreenAudio, AnUndecodablePayloadPlaysNothingAndMovesTheReference) {
    for (const int result : {0, -1, OPUS_INVALID_PACKET, OPUS_BUFFER_TOO_SMALL}) {
        peer.last_audio_sequence() = 10;
        decode_result = result;
        EXPECT_EQ(printed_by([this] {
                      EXPECT_THAT(calls_for({12}), ElementsAre("conceal", "write 1920", "decode"));
                  }),
                  kNothing);
        EXPECT_EQ(peer.last_audio_sequence(), 12U);
    }
}

TEST_F(ScreenAudio, TheResultOfTheConcealmentIsNotExamined) {
    for (const int result : {-1, 0, 480}) {
        conceal_result = result;
        peer.last_audio_sequence() = 10;
        EXPECT_THAT(calls_for({12}), ElementsAre("conceal", "write 1920", "decode", "write 1920"));
    }
}

TEST_F(ScreenAudio, TheDeviceQueueIsNeitherReadNorCleared) {
    (void)calls_for({1, 2, 3, 100, 4, 0, 7});
    EXPECT_THAT(calls, Each(testing::AnyOf("conceal", "decode", "write 1920")));
}

// ---- what is played ----

TEST_F(ScreenAudio, TwoValuesForEachDecodedSampleArePlayed) {
    decode_result = 480;
    EXPECT_THAT(calls_for({1}), ElementsAre("decode", "write 960"));
    EXPECT_THAT(written.back(), Each(short{100}));
    decode_result = 1;
    EXPECT_THAT(calls_for({2}), ElementsAre("decode", "write 2"));
}

TEST_F(ScreenAudio, AllValuesArePlayedInTheirOrder) {
    Samples ramp(1920);
    for (std::size_t i = 0; i < ramp.size(); ++i) {
        ramp[i] = static_cast<short>(34 * static_cast<int>(i) - 32640);
    }
    EXPECT_EQ(played(ramp, 1.0F), ramp);
}

TEST_F(ScreenAudio, VolumeScalesEveryValueOfAPacketAndOfAConcealedFrame) {
    receiver.set_audio_volume(0.5F);
    peer.last_audio_sequence() = 10;
    (void)calls_for({12});
    EXPECT_THAT(written, ElementsAre(Samples(1920, 25), Samples(1920, 50)));
}

TEST_F(ScreenAudio, VolumeIsReadOnceForEveryFrameAfterItsDecoding) {
    peer.last_audio_sequence() = 10;
    float volume = 1.0F;
    after_conceal = after_decode = [&] { receiver.set_audio_volume(volume += 1.0F); };
    after_write = [&] { receiver.set_audio_volume(99.0F); };  // overtaken by the next frame's
    (void)calls_for({14});
    EXPECT_THAT(written, ElementsAre(Samples(1920, 100), Samples(1920, 150), Samples(1920, 200),
                                     Samples(1920, 500)));
}

TEST_F(ScreenAudio, VolumeIsStoredAsItIs) {
    for (const float volume : {0.0F, -2.0F, 1e30F, kInfinity}) {
        receiver.set_audio_volume(volume);
        EXPECT_EQ(peer.audio_volume(), volume);
    }
    receiver.set_audio_volume(std::nanf(""));
    EXPECT_TRUE(std::isnan(peer.audio_volume().load()));
    EXPECT_THAT(calls, IsEmpty());
}

// ---- the arithmetic of the volume ----

TEST_F(ScreenAudio, ScalingSaturatesAt16Bits) {
    EXPECT_EQ(scaled(20000, 2.0F), 32767);
    EXPECT_EQ(scaled(-20000, 2.0F), -32768);
    EXPECT_EQ(scaled(16383, 2.0F), 32766);
    EXPECT_EQ(scaled(16384, 2.0F), 32767);
    EXPECT_EQ(scaled(-16384, 2.0F), -32768);
    EXPECT_EQ(scaled(32767, 1000.0F), 32767);
    EXPECT_EQ(scaled(-32768, 1000.0F), -32768);
}

TEST_F(ScreenAudio, ScalingTruncatesTowardZero) {
    EXPECT_EQ(scaled(-3, 0.5F), -1);
    EXPECT_EQ(scaled(3, 0.5F), 1);
    EXPECT_EQ(scaled(1, 0.99F), 0);
    EXPECT_EQ(scaled(-1, 0.99F), 0);
    EXPECT_EQ(scaled(10, 0.39F), 3);
    EXPECT_EQ(scaled(-10, 0.39F), -3);
}

TEST_F(ScreenAudio, Volume0Silences) {
    EXPECT_THAT(played(Samples(1920, 32767), 0.0F), Each(short{0}));
    EXPECT_THAT(played(Samples(1920, -32768), 0.0F), Each(short{0}));
    EXPECT_THAT(played(Samples(1920, -32768), -0.0F), Each(short{0}));
}

TEST_F(ScreenAudio, ANegativeVolumeInvertsTheWave) {
    EXPECT_EQ(scaled(100, -1.0F), -100);
    EXPECT_EQ(scaled(-100, -0.5F), 50);
    EXPECT_EQ(scaled(-32768, -1.0F), 32767);  // +32768 does not fit
    EXPECT_EQ(scaled(20000, -2.0F), -32768);
}

TEST_F(ScreenAudio, VolumesBeyondEveryIntegerSaturateToo) {
    EXPECT_EQ(scaled(1, 1e30F), 32767);
    EXPECT_EQ(scaled(-1, 1e30F), -32768);
    EXPECT_EQ(scaled(32767, 3e38F), 32767);  // the product is infinite
    EXPECT_EQ(scaled(1, kInfinity), 32767);
    EXPECT_EQ(scaled(-1, kInfinity), -32768);
    EXPECT_EQ(scaled(1, -kInfinity), -32768);
    EXPECT_EQ(scaled(-1, -kInfinity), 32767);
    EXPECT_EQ(scaled(0, kInfinity), 0);
}

TEST_F(ScreenAudio, AVolumeThatIsNotANumberSilences) {
    EXPECT_THAT(played(Samples(1920, 1234), std::nanf("")), Each(short{0}));
}

TEST_F(ScreenAudio, OnlyAVolumeOfExactly1LeavesTheSamplesUntouched) {
    const Samples extremes = {-32768, 32767, -1, 1, 0, 12345};
    EXPECT_EQ(played(extremes, 1.0F), extremes);
    EXPECT_THAT(played(extremes, std::nextafter(1.0F, 0.0F)),
                ElementsAre(-32767, 32766, 0, 0, 0, 12344));
}

// ---- stopping meanwhile ----

TEST_F(ScreenAudio, NothingIsWrittenOnceStoppedDuringTheDecode) {
    after_decode = [this] { peer.running() = false; };
    EXPECT_THAT(calls_for({10}), ElementsAre("decode"));
    EXPECT_EQ(peer.last_audio_sequence(), 10U);
}

TEST_F(ScreenAudio, NothingMoreHappensOnceStoppedDuringTheConcealment) {
    peer.last_audio_sequence() = 10;
    after_conceal = [this] { peer.running() = false; };
    EXPECT_THAT(calls_for({100}), ElementsAre("conceal"));
    EXPECT_EQ(peer.last_audio_sequence(), 10U);
}

TEST_F(ScreenAudio, EveryWriteAsksAgainWhetherItIsStillRunning) {
    peer.last_audio_sequence() = 10;
    after_write = [this] { peer.running() = written.size() < 2; };
    EXPECT_THAT(calls_for({100}),
                ElementsAre("conceal", "write 1920", "conceal", "write 1920", "conceal"));

    peer.running() = true;
    peer.last_audio_sequence() = 10;
    after_write = [this] { peer.running() = false; };
    EXPECT_THAT(calls_for({12}), ElementsAre("conceal", "write 1920", "decode"));
}

// ---- real Opus packets ----

constexpr int kRate = 48000;
constexpr double kAmplitude = 10000.0;

// Two tones, 440 Hz on the left and 1000 Hz on the right; `position` counts from the start of time.
short tone(std::size_t position, bool right) {
    const double frequency = right ? 1000.0 : 440.0;
    return static_cast<short>(
        std::lround(kAmplitude * std::sin(2.0 * std::numbers::pi * frequency *
                                          static_cast<double>(position) / kRate)));
}

class ScreenAudioWithOpus : public ScreenAudioBase {
  protected:
    void SetUp() override {
        ScreenAudioBase::SetUp();
        enable();
        ASSERT_TRUE(encoder.init(kRate, 2, OPUS_APPLICATION_AUDIO));
        encoder.set_bitrate(128'000);
    }

    // The next `frame_size` samples of the tones as one Opus packet.
    Bytes next_opus_packet(std::size_t frame_size = 960) {
        Samples pcm(2 * frame_size);
        for (std::size_t i = 0; i < frame_size; ++i, ++position) {
            pcm[2 * i] = tone(position, false);
            pcm[2 * i + 1] = tone(position, true);
        }
        Bytes opus(1400);
        const int size = encoder.encode(pcm.data(), static_cast<int>(frame_size), opus.data(),
                                        static_cast<int>(opus.size()));
        EXPECT_GT(size, 0);
        opus.resize(static_cast<std::size_t>(std::max(size, 0)));
        return opus;
    }

    OpusEncoderWrapper encoder;
    std::size_t position = 0;
};

// Ratio of the tone's power to that of the difference, after the codec's start-up.
TEST_F(ScreenAudioWithOpus, ATonePlaysAsItWasEncoded) {
    constexpr std::size_t kDelay = 312;     // samples: the 6.5 ms look-ahead of RFC 6716
    constexpr std::size_t kStartUp = 9600;  // samples: the first 200 ms
    Samples heard;
    for (std::uint32_t sequence = 1; sequence <= 50; ++sequence) {
        deliver(packet(sequence, next_opus_packet()));
        ASSERT_THAT(written, SizeIs(sequence));
        ASSERT_THAT(written.back(), SizeIs(1920));
        heard.insert(heard.end(), written.back().begin(), written.back().end());
    }
    for (const bool right : {false, true}) {
        double signal = 0;
        double noise = 0;
        for (std::size_t i = kStartUp; i < heard.size() / 2; ++i) {
            const double wanted = tone(i - kDelay, right);
            const double difference = heard[2 * i + (right ? 1 : 0)] - wanted;
            signal += wanted * wanted;
            noise += difference * difference;
        }
        const double ratio = 10.0 * std::log10(signal / noise);
        RecordProperty(right ? "right_dB" : "left_dB", std::to_string(ratio));
        EXPECT_GT(ratio, 30.0) << "dB, " << (right ? "right" : "left");
    }
}

TEST_F(ScreenAudioWithOpus, ConcealmentContinuesTheTone) {
    for (std::uint32_t sequence = 1; sequence <= 10; ++sequence) {
        deliver(packet(sequence, next_opus_packet()));
    }
    written.clear();
    deliver(packet(12, next_opus_packet()));
    ASSERT_THAT(written, SizeIs(2));
    ASSERT_THAT(written[0], SizeIs(1920));
    EXPECT_GT(*std::max_element(written[0].begin(), written[0].end()), kAmplitude / 4);
}

TEST_F(ScreenAudioWithOpus, APacketOf10MsPlays960Values) {
    deliver(packet(1, next_opus_packet(480)));
    EXPECT_THAT(calls, ElementsAre("write 960"));
}

// Whatever the packets hold, and so the delay grows where they hold less.
TEST_F(ScreenAudioWithOpus, ALostPacketOf5MsIsConcealedBy20Ms) {
    deliver(packet(1, next_opus_packet(240)));
    (void)next_opus_packet(240);
    deliver(packet(3, next_opus_packet(240)));
    EXPECT_THAT(calls, ElementsAre("write 480", "write 1920", "write 480"));
}

TEST_F(ScreenAudioWithOpus, APacketOvertakenByTheNextCostsTwoConcealedOnes) {
    const Bytes first = packet(1, next_opus_packet());
    const Bytes second = packet(2, next_opus_packet());
    const Bytes third = packet(3, next_opus_packet());
    const Bytes fourth = packet(4, next_opus_packet());
    for (const Bytes& datagram : {first, third, second, fourth}) {
        deliver(datagram);
    }
    EXPECT_THAT(calls, SizeIs(6));
}

TEST_F(ScreenAudioWithOpus, OneChannelIsPlayedInBoth) {
    ASSERT_TRUE(encoder.init(kRate, 1, OPUS_APPLICATION_AUDIO));
    deliver(packet(1, next_opus_packet()));
    deliver(packet(2, next_opus_packet()));
    ASSERT_THAT(written, SizeIs(2));
    ASSERT_THAT(written[1], SizeIs(1920));
    EXPECT_GT(*std::max_element(written[1].begin(), written[1].end()), kAmplitude / 4);
    for (std::size_t i = 0; i < 1920; i += 2) {
        ASSERT_EQ(written[1][i], written[1][i + 1]);
    }
}

TEST_F(ScreenAudioWithOpus, APacketLongerThan20MsIsDroppedAndMovesTheReference) {
    deliver(packet(10, next_opus_packet(1920)));
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(peer.last_audio_sequence(), 10U);
}

TEST_F(ScreenAudioWithOpus, ABrokenPayloadIsDroppedSilentlyAndMovesTheReference) {
    EXPECT_EQ(printed_by([this] { deliver(packet(10, {0xFF, 0xFF})); }), kNothing);
    EXPECT_THAT(calls, IsEmpty());
    EXPECT_EQ(peer.last_audio_sequence(), 10U);
}

TEST_F(ScreenAudioWithOpus, ADatagramAllocatesNothing) {
    receiver.set_audio_volume(0.5F);
    deliver(packet(10, next_opus_packet()));
    const Bytes datagram = packet(14, next_opus_packet());
    int writes = 0;
    hook_SDL_QueueAudio = [&](auto...) {
        ++writes;
        return 0;
    };
    const auto log = test::allocations_of(
        [&] { receiver.handle_screen_audio(datagram.data(), static_cast<int>(datagram.size())); });
    EXPECT_THAT(log.allocations(), IsEmpty());
    EXPECT_EQ(writes, 4);
}

// Nothing hooked: libopus decodes, SDL's dummy driver plays.
TEST(ScreenAudioOnDummyDriver, PacketsWaitInTheDeviceQueueAndThenPlay) {
    SDL_setenv("SDL_AUDIODRIVER", "dummy", 1);
    ASSERT_EQ(SDL_InitSubSystem(SDL_INIT_AUDIO), 0) << SDL_GetError();
    {
        VideoReceiver receiver;
        VideoReceiverPeer peer(receiver);
        peer.go_live_without_decoder();
        OpusEncoderWrapper encoder;
        ASSERT_TRUE(encoder.init(kRate, 2, OPUS_APPLICATION_AUDIO));
        const Samples silence(1920);
        Bytes opus(1400);
        opus.resize(static_cast<std::size_t>(
            std::max(1, encoder.encode(silence.data(), 960, opus.data(), 1400))));

        EXPECT_EQ(printed_by([&] { receiver.enable_audio(true); }), kEnabled);
        peer.audio_device().pause(true);
        for (const std::uint32_t sequence : {1U, 2U, 4U}) {  // the third is concealed
            const Bytes datagram = packet(sequence, opus);
            receiver.handle_screen_audio(datagram.data(), static_cast<int>(datagram.size()));
        }
        EXPECT_EQ(peer.audio_device().get_queued_size(), 4U * 3840U);

        peer.audio_device().pause(false);
        const Uint32 start = SDL_GetTicks();
        while (peer.audio_device().get_queued_size() > 0 && SDL_GetTicks() - start < 60'000) {
            SDL_Delay(5);
        }
        EXPECT_EQ(peer.audio_device().get_queued_size(), 0U);
        (void)printed_by([&] { receiver.stop(); });
    }
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
}

}  // namespace
}  // namespace vesper::client
