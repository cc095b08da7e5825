#include "tools/stream/opus_packets.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <opus.h>

#include <array>
#include <cmath>
#include <memory>

namespace vesper::tools {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;

constexpr int kRate = 48'000;      // Hz
constexpr int kMs = kRate / 1000;  // samples

struct Deleter {
    void operator()(OpusEncoder* encoder) const { opus_encoder_destroy(encoder); }
    void operator()(OpusDecoder* decoder) const { opus_decoder_destroy(decoder); }
};

// One packet of a tone. Up to 20 ms are one frame; the codec divides longer ones into frames of
// 20 ms in CELT mode, and keeps up to 60 ms in one frame in SILK mode.
OpusPacket make_packet(int duration_ms, int application = OPUS_APPLICATION_RESTRICTED_LOWDELAY,
                       int bitrate = 96'000) {
    const std::unique_ptr<OpusEncoder, Deleter> encoder(
        opus_encoder_create(kRate, 1, application, nullptr));
    opus_encoder_ctl(encoder.get(), OPUS_SET_BITRATE(bitrate));
    if (application == OPUS_APPLICATION_VOIP) {
        opus_encoder_ctl(encoder.get(), OPUS_SET_SIGNAL(OPUS_SIGNAL_VOICE));
        opus_encoder_ctl(encoder.get(), OPUS_SET_MAX_BANDWIDTH(OPUS_BANDWIDTH_NARROWBAND));
    }
    std::vector<opus_int16> tone(static_cast<std::size_t>(duration_ms * kMs));
    for (std::size_t i = 0; i < tone.size(); ++i) {
        tone[i] = static_cast<opus_int16>(8000 * std::sin(0.05 * static_cast<double>(i)));
    }
    OpusPacket packet(4000);
    const int size = opus_encode(encoder.get(), tone.data(), duration_ms * kMs, packet.data(),
                                 static_cast<opus_int32>(packet.size()));
    packet.resize(static_cast<std::size_t>(std::max(size, 0)));
    return packet;
}

std::vector<opus_int16> decode(const std::vector<OpusPacket>& packets) {
    const std::unique_ptr<OpusDecoder, Deleter> decoder(opus_decoder_create(kRate, 2, nullptr));
    std::vector<opus_int16> sound;
    for (const OpusPacket& packet : packets) {
        std::array<opus_int16, std::size_t{120} * kMs * 2> block{};
        const int samples =
            opus_decode(decoder.get(), packet.data(), static_cast<opus_int32>(packet.size()),
                        block.data(), 120 * kMs, 0);
        sound.insert(sound.end(), block.begin(), block.begin() + std::max(samples, 0) * 2);
    }
    return sound;
}

class ShortOpusPacket : public testing::TestWithParam<int> {};

TEST_P(ShortOpusPacket, StaysAsItIs) {
    const OpusPacket packet = make_packet(GetParam());
    EXPECT_EQ(opus_duration(packet), milliseconds(GetParam()));
    EXPECT_THAT(split_opus(packet), Optional(ElementsAre(packet)));
}

INSTANTIATE_TEST_SUITE_P(Milliseconds, ShortOpusPacket, testing::Values(5, 10, 20),
                         testing::PrintToStringParamName());

class LongOpusPacket : public testing::TestWithParam<int> {};

TEST_P(LongOpusPacket, BecomesPacketsOf20MsWithTheSameSound) {
    const OpusPacket packet = make_packet(GetParam());
    const auto parts = split_opus(packet);
    ASSERT_TRUE(parts);
    EXPECT_EQ(parts->size(), static_cast<std::size_t>(GetParam() / 20));
    for (const OpusPacket& part : *parts) {
        EXPECT_EQ(opus_duration(part), milliseconds(20));
    }
    EXPECT_EQ(decode(*parts), decode({packet}));
}

INSTANTIATE_TEST_SUITE_P(Milliseconds, LongOpusPacket, testing::Values(40, 60, 80, 100, 120),
                         testing::PrintToStringParamName());

// Of 10 ms each, two and two together; the last one is alone.
TEST(OpusPackets, ShortFramesStayTogetherWhile20MsHoldThem) {
    OpusRepacketizer* repacketizer = opus_repacketizer_create();
    std::vector<OpusPacket> frames;
    for (int i = 0; i < 5; ++i) {
        frames.push_back(make_packet(10));
        ASSERT_EQ(opus_repacketizer_cat(repacketizer, frames.back().data(),
                                        static_cast<opus_int32>(frames.back().size())),
                  OPUS_OK);
    }
    OpusPacket packet(4000);
    packet.resize(static_cast<std::size_t>(opus_repacketizer_out(
        repacketizer, packet.data(), static_cast<opus_int32>(packet.size()))));
    opus_repacketizer_destroy(repacketizer);

    const auto parts = split_opus(packet);
    ASSERT_TRUE(parts);
    ASSERT_EQ(parts->size(), 3U);
    EXPECT_EQ(opus_duration(parts->at(0)), milliseconds(20));
    EXPECT_EQ(opus_duration(parts->at(1)), milliseconds(20));
    EXPECT_EQ(parts->at(2), frames[4]);
    EXPECT_EQ(decode(*parts), decode({packet}));
}

class LongOpusFrame : public testing::TestWithParam<int> {};

TEST_P(LongOpusFrame, CannotBeSplit) {
    const OpusPacket packet = make_packet(GetParam(), OPUS_APPLICATION_VOIP, 12'000);
    ASSERT_EQ(opus_packet_get_samples_per_frame(packet.data(), kRate), GetParam() * kMs);
    EXPECT_FALSE(split_opus(packet));
}

INSTANTIATE_TEST_SUITE_P(Milliseconds, LongOpusFrame, testing::Values(40, 60),
                         testing::PrintToStringParamName());

TEST(OpusPackets, WhatIsNoPacketBecomesNone) {
    EXPECT_THAT(split_opus({}), Optional(IsEmpty()));
    // Three frames of 20 ms, of which the first alone claims to be longer than the packet
    // (RFC 6716, section 3.2.5).
    EXPECT_THAT(split_opus(OpusPacket{0xFB, 0x83, 0xFB, 0xFF}), Optional(IsEmpty()));
    EXPECT_FALSE(opus_duration({}));
}

// RFC 7845, section 5.1.
OpusPacket header(std::uint8_t channels, std::uint8_t family, std::uint8_t streams) {
    OpusPacket bytes = {'O', 'p', 'u', 's', 'H', 'e', 'a', 'd', 1,     channels,
                        0,   0,   0,   0,   0,   0,   0,   0,   family};
    if (family != 0) {
        bytes.push_back(streams);
        bytes.insert(bytes.end(), std::size_t{channels} + 1, 0);
    }
    return bytes;
}

TEST(OpusHeader, OfMonoOrStereoIsPlain) {
    EXPECT_TRUE(is_plain_opus(header(1, 0, 0)));
    EXPECT_TRUE(is_plain_opus(header(2, 0, 0)));
    EXPECT_TRUE(is_plain_opus(header(2, 1, 1)));
}

TEST(OpusHeader, OfSurroundIsNot) {
    EXPECT_FALSE(is_plain_opus(header(6, 1, 4)));
    EXPECT_FALSE(is_plain_opus(header(2, 255, 2)));
}

TEST(OpusHeader, MayBeMissing) {
    EXPECT_TRUE(is_plain_opus({}));
}

}  // namespace
}  // namespace vesper::tools
