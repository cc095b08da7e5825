#include "audio/opus_codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opus_multistream.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdarg>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <numbers>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support/captured_output.h"
#include "tests/support/guarded_memory.h"
#include "tests/support/hook.h"

VESPER_HOOK(opus_encoder_create, OpusEncoder*,
            (opus_int32 rate, int channels, int application, int* error),
            (rate, channels, application, error))
VESPER_HOOK(opus_encoder_destroy, void, (OpusEncoder * encoder), (encoder))
VESPER_HOOK(opus_encode, opus_int32,
            (OpusEncoder * encoder, const opus_int16* pcm, int frame_size, unsigned char* out,
             opus_int32 max_bytes),
            (encoder, pcm, frame_size, out, max_bytes))
VESPER_HOOK(opus_decoder_create, OpusDecoder*, (opus_int32 rate, int channels, int* error),
            (rate, channels, error))
VESPER_HOOK(opus_decoder_destroy, void, (OpusDecoder * decoder), (decoder))
VESPER_HOOK(opus_decode, int,
            (OpusDecoder * decoder, const unsigned char* data, opus_int32 len, opus_int16* pcm,
             int frame_size, int fec),
            (decoder, data, len, pcm, frame_size, fec))

// NOLINTBEGIN: the names are the linker's, and the ctl is variadic. Every request that the wrapper
// makes carries one number.
extern "C" int __real_opus_encoder_ctl(OpusEncoder* encoder, int request, ...);
static std::function<int(OpusEncoder*, int request, opus_int32 value)> hook_opus_encoder_ctl;
static const vesper::test::HookRegistration registration_opus_encoder_ctl([] {
    hook_opus_encoder_ctl = nullptr;
});
extern "C" int __wrap_opus_encoder_ctl(OpusEncoder* encoder, int request, ...) {
    va_list arguments;
    va_start(arguments, request);
    const opus_int32 value = va_arg(arguments, opus_int32);
    va_end(arguments);
    return hook_opus_encoder_ctl ? hook_opus_encoder_ctl(encoder, request, value)
                                 : __real_opus_encoder_ctl(encoder, request, value);
}
extern "C" int __wrap_opus_decoder_ctl(OpusDecoder*, int request, ...) {
    ADD_FAILURE() << "the decoder stays at the library's defaults; request " << request;
    return OPUS_OK;
}
// NOLINTEND

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using vesper::OpusDecoderWrapper;
using vesper::OpusEncoderWrapper;
using vesper::test::GuardedMemory;
using vesper::test::printed_by;

const vesper::test::Printed kNothing;
constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr int kFrameSize = 960;  // samples per channel: 20 ms
constexpr std::size_t kFrameValues = kFrameSize * kChannels;
constexpr short kUntouched = 0x5A5A;

using Pcm = std::vector<short>;
using Packet = std::vector<unsigned char>;

// A wrapper only passes these pointers on; nothing may dereference them.
template <typename Handle>
Handle* fake_handle(int number) {
    static std::array<std::max_align_t, 10> places;
    return reinterpret_cast<Handle*>(&places.at(static_cast<std::size_t>(number)));
}

// Records every call that a wrapper makes as one text, and returns numbered states instead of real
// ones.
class RecordedOpus : public vesper::test::HookedTest {
  protected:
    void SetUp() override {
        hook_opus_encoder_create = [this](opus_int32 rate, int channels, int application,
                                          int* error) {
            record("encoder_create", {rate, channels, application, *error});
            *error = create_error_;
            return next<OpusEncoder>();
        };
        hook_opus_encoder_ctl = [this](OpusEncoder* encoder, int request, opus_int32 value) {
            record("encoder_ctl", {number_of(encoder), request, value});
            return OPUS_BAD_ARG;  // the results of ctl calls do not matter
        };
        hook_opus_encoder_destroy = [this](OpusEncoder* encoder) {
            record("encoder_destroy", {number_of(encoder)});
        };
        hook_opus_decoder_create = [this](opus_int32 rate, int channels, int* error) {
            record("decoder_create", {rate, channels, *error});
            *error = create_error_;
            return next<OpusDecoder>();
        };
        hook_opus_decoder_destroy = [this](OpusDecoder* decoder) {
            record("decoder_destroy", {number_of(decoder)});
        };
    }

    void record(const std::string& name, std::initializer_list<int> arguments) {
        std::string call = name;
        for (const int argument : arguments) {
            call += " " + std::to_string(argument);
        }
        calls_.push_back(call);
    }
    // The calls since the last time.
    std::vector<std::string> take_calls() { return std::exchange(calls_, {}); }

    template <typename Handle>
    Handle* next() {
        return create_null_ ? nullptr : fake_handle<Handle>(++created_);
    }
    template <typename Handle>
    int number_of(Handle* handle) {
        for (int number = 1; number <= created_; ++number) {
            if (handle == fake_handle<Handle>(number)) {
                return number;
            }
        }
        return 0;
    }

    int created_ = 0;
    int create_error_ = OPUS_OK;
    bool create_null_ = false;

  private:
    std::vector<std::string> calls_;
};

// ---- encoder: state ----

class OpusEncoderState : public RecordedOpus {
  protected:
    static bool init(OpusEncoderWrapper& wrapper, int application = OPUS_APPLICATION_AUDIO) {
        return wrapper.init(kRate, kChannels, application);
    }
    static int encode(OpusEncoderWrapper& wrapper) {
        return wrapper.encode(nullptr, kFrameSize, nullptr, 0);
    }
};

TEST_F(OpusEncoderState, IsMoveOnlyWithoutThrowing) {
    EXPECT_FALSE(std::is_copy_constructible_v<OpusEncoderWrapper>);
    EXPECT_FALSE(std::is_copy_assignable_v<OpusEncoderWrapper>);
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<OpusEncoderWrapper>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<OpusEncoderWrapper>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<OpusEncoderWrapper>);
    EXPECT_FALSE(std::is_polymorphic_v<OpusEncoderWrapper>);
}

TEST_F(OpusEncoderState, EmptyWrapperCallsNothingAndTouchesNoBuffer) {
    hook_opus_encode = [this](auto...) {
        record("encode", {});
        return 0;
    };
    Pcm pcm(kFrameValues, kUntouched);
    Packet out(100, 0x5A);
    EXPECT_EQ(printed_by([&] {
                  OpusEncoderWrapper wrapper;
                  EXPECT_EQ(wrapper.encode(pcm.data(), kFrameSize, out.data(), 100), -1);
                  wrapper.set_bitrate(64000);
                  wrapper.destroy();
              }),
              kNothing);
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_THAT(pcm, Each(kUntouched));
    EXPECT_THAT(out, Each(0x5A));
}

TEST_F(OpusEncoderState, AudioEncoderGetsItsBitrateAndNoSignalHint) {
    OpusEncoderWrapper wrapper;
    EXPECT_EQ(printed_by([&] { EXPECT_TRUE(init(wrapper)); }), kNothing);
    EXPECT_THAT(take_calls(),
                ElementsAre("encoder_create 48000 2 2049 0", "encoder_ctl 1 4002 48000"));
}

TEST_F(OpusEncoderState, VoiceEncoderGetsItsBitrateThenTheSignalHint) {
    OpusEncoderWrapper wrapper;
    EXPECT_TRUE(init(wrapper, OPUS_APPLICATION_VOIP));
    EXPECT_THAT(take_calls(), ElementsAre("encoder_create 48000 2 2048 0",
                                          "encoder_ctl 1 4002 48000", "encoder_ctl 1 4024 3001"));
}

TEST_F(OpusEncoderState, LowDelayEncoderGetsNoSignalHint) {
    OpusEncoderWrapper wrapper;
    EXPECT_TRUE(init(wrapper, OPUS_APPLICATION_RESTRICTED_LOWDELAY));
    EXPECT_THAT(take_calls(),
                ElementsAre("encoder_create 48000 2 2051 0", "encoder_ctl 1 4002 48000"));
}

TEST_F(OpusEncoderState, FirstBitrateIsTheSameForEveryRateAndChannelCount) {
    OpusEncoderWrapper wrapper;
    EXPECT_TRUE(wrapper.init(8000, 1, OPUS_APPLICATION_AUDIO));
    EXPECT_THAT(take_calls(),
                ElementsAre("encoder_create 8000 1 2049 0", "encoder_ctl 1 4002 48000"));
}

TEST_F(OpusEncoderState, SetBitrateIsOneRequest) {
    OpusEncoderWrapper wrapper;
    ASSERT_TRUE(init(wrapper));
    take_calls();
    wrapper.set_bitrate(96000);
    EXPECT_THAT(take_calls(), ElementsAre("encoder_ctl 1 4002 96000"));
}

TEST_F(OpusEncoderState, SecondInitDestroysTheFirstStateBeforeCreating) {
    OpusEncoderWrapper wrapper;
    ASSERT_TRUE(init(wrapper));
    take_calls();
    EXPECT_TRUE(init(wrapper));
    EXPECT_THAT(take_calls(), ElementsAre("encoder_destroy 1", "encoder_create 48000 2 2049 0",
                                          "encoder_ctl 2 4002 48000"));
}

TEST_F(OpusEncoderState, FailingSecondInitLeavesTheWrapperEmpty) {
    {
        OpusEncoderWrapper wrapper;
        ASSERT_TRUE(init(wrapper));
        take_calls();
        create_null_ = true;
        create_error_ = OPUS_ALLOC_FAIL;
        EXPECT_EQ(printed_by([&] { EXPECT_FALSE(init(wrapper)); }), kNothing);
        EXPECT_EQ(encode(wrapper), -1);
    }
    EXPECT_THAT(take_calls(), ElementsAre("encoder_destroy 1", "encoder_create 48000 2 2049 0"));
}

TEST_F(OpusEncoderState, NullWithoutErrorIsAFailure) {
    create_null_ = true;
    {
        OpusEncoderWrapper wrapper;
        EXPECT_FALSE(init(wrapper));
    }
    EXPECT_THAT(take_calls(), ElementsAre("encoder_create 48000 2 2049 0"));
}

// A pointer returned along with an error is neither used nor freed.
TEST_F(OpusEncoderState, ErrorWithAPointerIsAFailure) {
    create_error_ = OPUS_INTERNAL_ERROR;
    {
        OpusEncoderWrapper wrapper;
        EXPECT_FALSE(init(wrapper));
        EXPECT_EQ(encode(wrapper), -1);
    }
    EXPECT_THAT(take_calls(), ElementsAre("encoder_create 48000 2 2049 0"));
}

TEST_F(OpusEncoderState, DestroyFreesOnceHoweverOftenItIsCalled) {
    {
        OpusEncoderWrapper wrapper;
        ASSERT_TRUE(init(wrapper));
        take_calls();
        wrapper.destroy();
        EXPECT_THAT(take_calls(), ElementsAre("encoder_destroy 1"));
        wrapper.destroy();
        EXPECT_EQ(encode(wrapper), -1);
    }
    EXPECT_THAT(take_calls(), IsEmpty());
}

TEST_F(OpusEncoderState, DestructorFrees) {
    {
        OpusEncoderWrapper wrapper;
        ASSERT_TRUE(init(wrapper));
        take_calls();
    }
    EXPECT_THAT(take_calls(), ElementsAre("encoder_destroy 1"));
}

TEST_F(OpusEncoderState, MoveConstructionLeavesTheOtherEmpty) {
    {
        OpusEncoderWrapper first;
        ASSERT_TRUE(init(first));
        take_calls();
        OpusEncoderWrapper second(std::move(first));
        first.destroy();               // NOLINT: what a moved-from wrapper does is the point
        EXPECT_EQ(encode(first), -1);  // NOLINT
        EXPECT_THAT(take_calls(), IsEmpty());
        second.set_bitrate(1);
        EXPECT_THAT(take_calls(), ElementsAre("encoder_ctl 1 4002 1"));
    }
    EXPECT_THAT(take_calls(), ElementsAre("encoder_destroy 1"));
}

TEST_F(OpusEncoderState, MoveAssignmentFreesItsOwnStateAndTakesTheOther) {
    {
        OpusEncoderWrapper first;
        OpusEncoderWrapper second;
        ASSERT_TRUE(init(first));
        ASSERT_TRUE(init(second));
        take_calls();
        second = std::move(first);
        EXPECT_THAT(take_calls(), ElementsAre("encoder_destroy 2"));
        first.destroy();               // NOLINT: what a moved-from wrapper does is the point
        EXPECT_EQ(encode(first), -1);  // NOLINT
        second.set_bitrate(1);
        EXPECT_THAT(take_calls(), ElementsAre("encoder_ctl 1 4002 1"));
    }
    EXPECT_THAT(take_calls(), ElementsAre("encoder_destroy 1"));
}

TEST_F(OpusEncoderState, SelfAssignmentDoesNothing) {
    {
        OpusEncoderWrapper wrapper;
        ASSERT_TRUE(init(wrapper));
        take_calls();
        OpusEncoderWrapper& same = wrapper;
        wrapper = std::move(same);
        EXPECT_THAT(take_calls(), IsEmpty());
        wrapper.set_bitrate(1);
        EXPECT_THAT(take_calls(), ElementsAre("encoder_ctl 1 4002 1"));
    }
    EXPECT_THAT(take_calls(), ElementsAre("encoder_destroy 1"));
}

TEST_F(OpusEncoderState, EncodePassesItsArgumentsAndTheResultOn) {
    OpusEncoderWrapper wrapper;
    ASSERT_TRUE(init(wrapper));
    const Pcm pcm(kFrameValues);
    Packet out(100);
    for (const int result : {57, 1, 0, OPUS_BAD_ARG, OPUS_INTERNAL_ERROR}) {
        hook_opus_encode = [&](OpusEncoder* encoder, const opus_int16* samples, int frame_size,
                               unsigned char* bytes, opus_int32 max_bytes) {
            EXPECT_EQ(number_of(encoder), 1);
            EXPECT_EQ(samples, pcm.data());
            EXPECT_EQ(frame_size, 480);
            EXPECT_EQ(bytes, out.data());
            EXPECT_EQ(max_bytes, 99);
            return result;
        };
        EXPECT_EQ(
            printed_by([&] { EXPECT_EQ(wrapper.encode(pcm.data(), 480, out.data(), 99), result); }),
            kNothing);
    }
}

// ---- decoder: state ----

class OpusDecoderState : public RecordedOpus {
  protected:
    static bool init(OpusDecoderWrapper& wrapper) { return wrapper.init(kRate, kChannels); }
    // The state that `wrapper` owns, as the library sees it in a call; -1 when it owns none.
    int held_by(OpusDecoderWrapper& wrapper) {
        hook_opus_decode = [this](OpusDecoder* decoder, auto...) { return number_of(decoder); };
        short unused = 0;
        return wrapper.decode_plc(&unused, 1);
    }
};

TEST_F(OpusDecoderState, IsMoveOnlyWithoutThrowing) {
    EXPECT_FALSE(std::is_copy_constructible_v<OpusDecoderWrapper>);
    EXPECT_FALSE(std::is_copy_assignable_v<OpusDecoderWrapper>);
    EXPECT_TRUE(std::is_nothrow_move_constructible_v<OpusDecoderWrapper>);
    EXPECT_TRUE(std::is_nothrow_move_assignable_v<OpusDecoderWrapper>);
    EXPECT_TRUE(std::is_nothrow_destructible_v<OpusDecoderWrapper>);
    EXPECT_FALSE(std::is_polymorphic_v<OpusDecoderWrapper>);
}

TEST_F(OpusDecoderState, EmptyWrapperCallsNothingAndTouchesNoBuffer) {
    hook_opus_decode = [this](auto...) {
        record("decode", {});
        return 0;
    };
    Pcm pcm(kFrameValues, kUntouched);
    const Packet packet(10);
    EXPECT_EQ(printed_by([&] {
                  OpusDecoderWrapper wrapper;
                  EXPECT_EQ(wrapper.decode(packet.data(), 10, pcm.data(), kFrameSize), -1);
                  EXPECT_EQ(wrapper.decode_plc(pcm.data(), kFrameSize), -1);
                  wrapper.destroy();
              }),
              kNothing);
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_THAT(pcm, Each(kUntouched));
}

// Any ctl would fail the test in the hook above.
TEST_F(OpusDecoderState, InitCreatesAndRequestsNothing) {
    OpusDecoderWrapper wrapper;
    EXPECT_EQ(printed_by([&] { EXPECT_TRUE(init(wrapper)); }), kNothing);
    EXPECT_THAT(take_calls(), ElementsAre("decoder_create 48000 2 0"));
}

TEST_F(OpusDecoderState, SecondInitDestroysTheFirstStateBeforeCreating) {
    OpusDecoderWrapper wrapper;
    ASSERT_TRUE(init(wrapper));
    take_calls();
    EXPECT_TRUE(init(wrapper));
    EXPECT_THAT(take_calls(), ElementsAre("decoder_destroy 1", "decoder_create 48000 2 0"));
    EXPECT_EQ(held_by(wrapper), 2);
}

TEST_F(OpusDecoderState, FailingSecondInitLeavesTheWrapperEmpty) {
    {
        OpusDecoderWrapper wrapper;
        ASSERT_TRUE(init(wrapper));
        take_calls();
        create_null_ = true;
        create_error_ = OPUS_ALLOC_FAIL;
        EXPECT_EQ(printed_by([&] { EXPECT_FALSE(init(wrapper)); }), kNothing);
        EXPECT_EQ(held_by(wrapper), -1);
    }
    EXPECT_THAT(take_calls(), ElementsAre("decoder_destroy 1", "decoder_create 48000 2 0"));
}

TEST_F(OpusDecoderState, NullWithoutErrorIsAFailure) {
    create_null_ = true;
    {
        OpusDecoderWrapper wrapper;
        EXPECT_FALSE(init(wrapper));
    }
    EXPECT_THAT(take_calls(), ElementsAre("decoder_create 48000 2 0"));
}

TEST_F(OpusDecoderState, ErrorWithAPointerIsAFailure) {
    create_error_ = OPUS_INTERNAL_ERROR;
    {
        OpusDecoderWrapper wrapper;
        EXPECT_FALSE(init(wrapper));
        EXPECT_EQ(held_by(wrapper), -1);
    }
    EXPECT_THAT(take_calls(), ElementsAre("decoder_create 48000 2 0"));
}

TEST_F(OpusDecoderState, DestroyFreesOnceHoweverOftenItIsCalled) {
    {
        OpusDecoderWrapper wrapper;
        ASSERT_TRUE(init(wrapper));
        take_calls();
        wrapper.destroy();
        EXPECT_THAT(take_calls(), ElementsAre("decoder_destroy 1"));
        wrapper.destroy();
        EXPECT_EQ(held_by(wrapper), -1);
    }
    EXPECT_THAT(take_calls(), IsEmpty());
}

TEST_F(OpusDecoderState, DestructorFrees) {
    {
        OpusDecoderWrapper wrapper;
        ASSERT_TRUE(init(wrapper));
        take_calls();
    }
    EXPECT_THAT(take_calls(), ElementsAre("decoder_destroy 1"));
}

TEST_F(OpusDecoderState, MoveConstructionLeavesTheOtherEmpty) {
    {
        OpusDecoderWrapper first;
        ASSERT_TRUE(init(first));
        take_calls();
        OpusDecoderWrapper second(std::move(first));
        first.destroy();                // NOLINT: what a moved-from wrapper does is the point
        EXPECT_EQ(held_by(first), -1);  // NOLINT
        EXPECT_EQ(held_by(second), 1);
        EXPECT_THAT(take_calls(), IsEmpty());
    }
    EXPECT_THAT(take_calls(), ElementsAre("decoder_destroy 1"));
}

TEST_F(OpusDecoderState, MoveAssignmentFreesItsOwnStateAndTakesTheOther) {
    {
        OpusDecoderWrapper first;
        OpusDecoderWrapper second;
        ASSERT_TRUE(init(first));
        ASSERT_TRUE(init(second));
        take_calls();
        second = std::move(first);
        EXPECT_THAT(take_calls(), ElementsAre("decoder_destroy 2"));
        first.destroy();                // NOLINT: what a moved-from wrapper does is the point
        EXPECT_EQ(held_by(first), -1);  // NOLINT
        EXPECT_EQ(held_by(second), 1);
    }
    EXPECT_THAT(take_calls(), ElementsAre("decoder_destroy 1"));
}

TEST_F(OpusDecoderState, SelfAssignmentDoesNothing) {
    {
        OpusDecoderWrapper wrapper;
        ASSERT_TRUE(init(wrapper));
        take_calls();
        OpusDecoderWrapper& same = wrapper;
        wrapper = std::move(same);
        EXPECT_THAT(take_calls(), IsEmpty());
        EXPECT_EQ(held_by(wrapper), 1);
    }
    EXPECT_THAT(take_calls(), ElementsAre("decoder_destroy 1"));
}

TEST_F(OpusDecoderState, DecodePassesItsArgumentsAndTheResultOnWithoutErrorCorrection) {
    OpusDecoderWrapper wrapper;
    ASSERT_TRUE(init(wrapper));
    const Packet packet(10);
    Pcm pcm(kFrameValues);
    for (const int result : {960, 120, 0, OPUS_BUFFER_TOO_SMALL, OPUS_INVALID_PACKET}) {
        hook_opus_decode = [&](OpusDecoder* decoder, const unsigned char* data, opus_int32 len,
                               opus_int16* samples, int frame_size, int fec) {
            EXPECT_EQ(number_of(decoder), 1);
            EXPECT_EQ(data, packet.data());
            EXPECT_EQ(len, 9);
            EXPECT_EQ(samples, pcm.data());
            EXPECT_EQ(frame_size, 480);
            EXPECT_EQ(fec, 0);
            return result;
        };
        EXPECT_EQ(printed_by([&] {
                      EXPECT_EQ(wrapper.decode(packet.data(), 9, pcm.data(), 480), result);
                  }),
                  kNothing);
    }
}

TEST_F(OpusDecoderState, ConcealmentDecodesNoData) {
    OpusDecoderWrapper wrapper;
    ASSERT_TRUE(init(wrapper));
    Pcm pcm(kFrameValues);
    for (const int result : {480, OPUS_BAD_ARG}) {
        hook_opus_decode = [&](OpusDecoder* decoder, const unsigned char* data, opus_int32 len,
                               opus_int16* samples, int frame_size, int fec) {
            EXPECT_EQ(number_of(decoder), 1);
            EXPECT_EQ(data, nullptr);
            EXPECT_EQ(len, 0);
            EXPECT_EQ(samples, pcm.data());
            EXPECT_EQ(frame_size, 480);
            EXPECT_EQ(fec, 0);
            return result;
        };
        EXPECT_EQ(printed_by([&] { EXPECT_EQ(wrapper.decode_plc(pcm.data(), 480), result); }),
                  kNothing);
    }
}

// ---- both, with the library ----

class OpusCodec : public vesper::test::HookedTest {
  protected:
    void SetUp() override {
        ASSERT_TRUE(encoder_.init(kRate, kChannels, OPUS_APPLICATION_AUDIO));
        ASSERT_TRUE(decoder_.init(kRate, kChannels));
    }
    // `frame_size` samples per channel of a 440 Hz tone, continuing where the last call ended.
    Pcm tone(int frame_size = kFrameSize) {
        constexpr double kAmplitude = 10000.0;
        Pcm pcm;
        for (int i = 0; i < frame_size; ++i) {
            const double phase = 2.0 * std::numbers::pi * 440.0 * position_++ / kRate;
            const auto value = static_cast<short>(kAmplitude * std::sin(phase));
            pcm.insert(pcm.end(), kChannels, value);
        }
        return pcm;
    }
    Packet encode(const Pcm& pcm) {
        Packet packet(1275 * 3);  // no packet of up to 60 ms is longer
        const int length = encoder_.encode(pcm.data(), static_cast<int>(pcm.size()) / kChannels,
                                           packet.data(), static_cast<int>(packet.size()));
        EXPECT_GT(length, 0);
        packet.resize(static_cast<std::size_t>(std::max(length, 0)));
        return packet;
    }
    int decode(const Packet& packet, Pcm& pcm, int frame_size = kFrameSize) {
        pcm.assign(static_cast<std::size_t>(frame_size) * kChannels, 0);
        return decoder_.decode(packet.data(), static_cast<int>(packet.size()), pcm.data(),
                               frame_size);
    }
    // How much of the sound's energy is at the tone's 440 Hz, from 0 to 1.
    static double share_of_tone(const Pcm& pcm) {
        double energy = 0.0;
        double sine = 0.0;
        double cosine = 0.0;
        for (std::size_t i = 0; i < pcm.size(); i += kChannels) {
            const double phase =
                2.0 * std::numbers::pi * 440.0 * static_cast<double>(i / kChannels) / kRate;
            energy += static_cast<double>(pcm[i]) * pcm[i];
            sine += pcm[i] * std::sin(phase);
            cosine += pcm[i] * std::cos(phase);
        }
        return 2.0 * (sine * sine + cosine * cosine) * kChannels /
               (static_cast<double>(pcm.size()) * energy);
    }
    static double loudness(const Pcm& pcm) {
        double sum = 0.0;
        for (const short value : pcm) {
            sum += static_cast<double>(value) * value;
        }
        return std::sqrt(sum / static_cast<double>(pcm.size()));
    }

    OpusEncoderWrapper encoder_;
    OpusDecoderWrapper decoder_;
    int position_ = 0;
};

// The tone comes back as loud as it went in (an amplitude of 10000 has an effective value of 7071)
// and at its pitch: 440 Hz crosses zero 17 or 18 times in 20 ms.
TEST_F(OpusCodec, AToneSurvivesTheRoundTrip) {
    Pcm pcm;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(decode(encode(tone()), pcm), kFrameSize);
    }
    EXPECT_NEAR(loudness(pcm), 7071.0, 700.0);
    int crossings = 0;
    for (std::size_t i = kChannels; i < pcm.size(); i += kChannels) {
        crossings += (pcm[i - kChannels] < 0) != (pcm[i] < 0) ? 1 : 0;
    }
    EXPECT_GE(crossings, 17);
    EXPECT_LE(crossings, 18);
}

TEST_F(OpusCodec, ConcealmentContinuesWhatWasHeard) {
    Pcm pcm;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(decode(encode(tone()), pcm), kFrameSize);
    }
    std::fill(pcm.begin(), pcm.end(), short{0});
    EXPECT_EQ(decoder_.decode_plc(pcm.data(), kFrameSize), kFrameSize);
    EXPECT_GT(loudness(pcm), 1000.0);
}

TEST_F(OpusCodec, APacketLongerThanTheFrameIsBufferTooSmall) {
    const Packet forty_ms = encode(tone(2 * kFrameSize));
    Pcm pcm;
    EXPECT_EQ(decode(forty_ms, pcm), OPUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(decode(forty_ms, pcm, 2 * kFrameSize), 2 * kFrameSize);
}

TEST_F(OpusCodec, GarbageIsTheLibrarysError) {
    Pcm pcm;
    EXPECT_EQ(decode({0xFF, 0xFF}, pcm), OPUS_INVALID_PACKET);
}

TEST_F(OpusCodec, AHigherBitrateMakesLongerPackets) {
    const std::size_t at_first = encode(tone()).size();
    encoder_.set_bitrate(256000);
    EXPECT_GT(encode(tone()).size(), 2 * at_first);
}

// Six channels of the same tone, mapped as surround sound: four streams in each packet.
class OpusMultistream : public OpusCodec {
  protected:
    void SetUp() override {
        OpusCodec::SetUp();
        constexpr int kSurroundMapping = 1;
        int error = OPUS_OK;
        int streams = 0;
        int coupled = 0;
        std::array<unsigned char, kSurroundChannels> mapping{};
        surround_.reset(opus_multistream_surround_encoder_create(
            kRate, kSurroundChannels, kSurroundMapping, &streams, &coupled, mapping.data(),
            OPUS_APPLICATION_AUDIO, &error));
        ASSERT_EQ(error, OPUS_OK);
        ASSERT_EQ(streams, 4);
    }

    void set_bitrate(int bitrate) {
        ASSERT_EQ(opus_multistream_encoder_ctl(surround_.get(), OPUS_SET_BITRATE(bitrate)),
                  OPUS_OK);
    }

    Packet next_packet() {
        const Pcm stereo = tone();
        Pcm pcm;
        for (std::size_t i = 0; i < stereo.size(); i += kChannels) {
            pcm.insert(pcm.end(), kSurroundChannels, stereo[i]);
        }
        Packet packet(std::size_t{4} * 1280);
        const int length =
            opus_multistream_encode(surround_.get(), pcm.data(), kFrameSize, packet.data(),
                                    static_cast<opus_int32>(packet.size()));
        EXPECT_GT(length, 0);
        packet.resize(static_cast<std::size_t>(std::max(length, 0)));
        return packet;
    }

  private:
    static constexpr int kSurroundChannels = 6;
    struct Destroy {
        void operator()(OpusMSEncoder* encoder) const { opus_multistream_encoder_destroy(encoder); }
    };
    std::unique_ptr<OpusMSEncoder, Destroy> surround_;
};

// All streams but the last are self-delimited: their length comes first (RFC 7845, section 3; RFC
// 6716, appendix B). Nothing in the packet marks it, so a decoder of one stream takes that length
// and all other streams for the sound of the first.
TEST_F(OpusMultistream, APacketDecodesWithoutAnErrorToSomethingElse) {
    constexpr int kPackets = 50;
    set_bitrate(128000);
    Pcm heard;
    Pcm pcm;
    for (int i = 0; i < kPackets; ++i) {
        ASSERT_EQ(decode(next_packet(), pcm), kFrameSize);
        heard.insert(heard.end(), pcm.begin(), pcm.end());
    }
    EXPECT_GT(loudness(heard), 0.0);
    EXPECT_LT(share_of_tone(heard), 0.5);

    heard.clear();
    ASSERT_TRUE(decoder_.init(kRate, kChannels));
    for (int i = 0; i < kPackets; ++i) {
        ASSERT_EQ(decode(encode(tone()), pcm), kFrameSize);
        heard.insert(heard.end(), pcm.begin(), pcm.end());
    }
    EXPECT_GT(share_of_tone(heard), 0.9);
}

// One frame of one stream has at most 1275 bytes (RFC 6716, section 3.4, R2), after the packet's
// first byte.
TEST_F(OpusMultistream, APacketOfMoreThan1276BytesIsTheLibrarysError) {
    set_bitrate(768000);
    for (int i = 0; i < 10; ++i) {
        const Packet packet = next_packet();
        ASSERT_GT(packet.size(), 1276U);
        Pcm pcm;
        EXPECT_EQ(decode(packet, pcm), OPUS_INVALID_PACKET);
    }
}

// libopus has vector code, which the sanitizers do not see. Every frame size that Opus has up to 60
// ms (RFC 6716, section 2.1.4), and packets of every length that a limit allows.
TEST_F(OpusCodec, LibraryStaysInsideTheBuffersThatItIsHanded) {
    for (const int channels : {1, 2}) {
        ASSERT_TRUE(encoder_.init(kRate, channels, OPUS_APPLICATION_AUDIO));
        ASSERT_TRUE(decoder_.init(kRate, channels));
        for (const int frame_size : {120, 240, 480, 960, 1920, 2880}) {
            const auto values = static_cast<std::size_t>(frame_size * channels);
            const GuardedMemory<short> sound(values);
            std::ranges::copy_n(tone(frame_size).begin(), static_cast<std::ptrdiff_t>(values),
                                sound.data());
            const GuardedMemory<short> decoded(values);
            for (int limit = 2; limit < 200; ++limit) {
                const GuardedMemory<unsigned char> room(static_cast<std::size_t>(limit));
                const int length = encoder_.encode(sound.data(), frame_size, room.data(), limit);
                ASSERT_GT(length, 0) << frame_size << " samples into " << limit << " bytes";
                const GuardedMemory<unsigned char> packet(static_cast<std::size_t>(length));
                std::copy_n(room.data(), length, packet.data());
                ASSERT_EQ(decoder_.decode(packet.data(), length, decoded.data(), frame_size),
                          frame_size);
            }
            EXPECT_EQ(decoder_.decode_plc(decoded.data(), frame_size), frame_size);
        }
    }
}

TEST_F(OpusCodec, RefusedParametersLeaveTheWrappersEmpty) {
    EXPECT_EQ(printed_by([&] {
                  EXPECT_FALSE(encoder_.init(44100, kChannels, OPUS_APPLICATION_AUDIO));
                  EXPECT_FALSE(decoder_.init(44100, kChannels));
              }),
              kNothing);
    Pcm pcm = tone();
    Packet packet(100);
    EXPECT_EQ(encoder_.encode(pcm.data(), kFrameSize, packet.data(), 100), -1);
    EXPECT_EQ(decoder_.decode(packet.data(), 100, pcm.data(), kFrameSize), -1);
}

}  // namespace
