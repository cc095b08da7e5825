#include "net/stream_datagrams.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <numeric>
#include <span>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;

using Datagram = std::array<std::uint8_t, vesper::kVideoPayloadOffset>;

// Every byte differs from every other, so that a field read from the wrong place shows.
Datagram numbered_bytes() {
    Datagram bytes{};
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{0x80});
    return bytes;
}

void expect_equal(const vesper::PacketHeader& a, const vesper::PacketHeader& b) {
    EXPECT_EQ(a.sequence, b.sequence);
    EXPECT_EQ(a.payload_size, b.payload_size);
    EXPECT_EQ(a.flags, b.flags);
}

void expect_equal(const vesper::VideoFragmentHeader& a, const vesper::VideoFragmentHeader& b) {
    EXPECT_EQ(a.frame_id, b.frame_id);
    EXPECT_EQ(a.fragment_index, b.fragment_index);
    EXPECT_EQ(a.fragment_count, b.fragment_count);
    EXPECT_EQ(a.payload_size, b.payload_size);
}

// ---- sizes and limits ----

TEST(StreamDatagrams, SizesAndLimitsAreThoseOfTheWire) {
    EXPECT_EQ(vesper::kPacketHeaderSize, 28);
    EXPECT_EQ(vesper::kVideoFragmentHeaderSize, 12);
    EXPECT_EQ(vesper::kVideoPayloadOffset, 40);
    EXPECT_EQ(vesper::kMaxFragmentPayload, 1400);
    EXPECT_EQ(vesper::kMaxFragmentsPerFrame, 1000);
    EXPECT_EQ(vesper::kScreenAudioFlag, 0x04);
    EXPECT_EQ(vesper::kAudioStateSize, 9U);
}

// ---- PacketHeader ----

TEST(PacketHeader, FieldsAreLittleEndianAtTheirOffsets) {
    const Datagram bytes = numbered_bytes();
    expect_equal(vesper::read_packet_header(bytes.data()),
                 {.sequence = 0x97969594, .payload_size = 0x9998, .flags = 0x9A});
}

TEST(PacketHeader, IsReadUnaligned) {
    std::array<std::uint8_t, vesper::kPacketHeaderSize + 1> shifted{};
    const Datagram bytes = numbered_bytes();
    std::copy_n(bytes.begin(), vesper::kPacketHeaderSize, shifted.begin() + 1);
    expect_equal(vesper::read_packet_header(shifted.data() + 1),
                 {.sequence = 0x97969594, .payload_size = 0x9998, .flags = 0x9A});
}

TEST(PacketHeader, BytesOfTheSenderAreOpaque) {
    const Datagram zeros{};
    const vesper::PacketHeader expected = vesper::read_packet_header(zeros.data());
    std::vector<int> opaque(20);
    std::iota(opaque.begin(), opaque.end(), 0);
    opaque.push_back(27);
    for (const int offset : opaque) {
        SCOPED_TRACE(offset);
        Datagram changed = zeros;
        changed.at(static_cast<std::size_t>(offset)) = 0xFF;
        expect_equal(vesper::read_packet_header(changed.data()), expected);
    }
}

TEST(PacketHeader, WritingZeroesTheSendersBytesAndTouchesNothingAfter) {
    Datagram bytes = numbered_bytes();
    vesper::write_packet_header({.sequence = 0x04030201, .payload_size = 0x0605, .flags = 0x04},
                                bytes.data());
    Datagram expected = numbered_bytes();
    std::fill_n(expected.begin(), 28, std::uint8_t{0});
    const std::array<std::uint8_t, 7> fields = {1, 2, 3, 4, 5, 6, 4};
    std::copy(fields.begin(), fields.end(), expected.begin() + 20);
    EXPECT_THAT(bytes, ElementsAreArray(expected));
}

TEST(PacketHeader, SurvivesARoundTripAtItsLimits) {
    const std::array<vesper::PacketHeader, 3> headers = {
        vesper::PacketHeader{},
        vesper::PacketHeader{.sequence = 1, .payload_size = 1, .flags = vesper::kScreenAudioFlag},
        vesper::PacketHeader{.sequence = std::numeric_limits<std::uint32_t>::max(),
                             .payload_size = std::numeric_limits<std::uint16_t>::max(),
                             .flags = 0xFF}};
    for (const vesper::PacketHeader& header : headers) {
        Datagram bytes{};
        vesper::write_packet_header(header, bytes.data());
        expect_equal(vesper::read_packet_header(bytes.data()), header);
    }
}

// ---- VideoFragmentHeader ----

TEST(VideoFragmentHeader, FieldsAreLittleEndianAtTheirOffsets) {
    const Datagram bytes = numbered_bytes();
    expect_equal(vesper::read_video_fragment_header(bytes.data()), {.frame_id = 0x9F9E9D9C,
                                                                    .fragment_index = 0xA1A0,
                                                                    .fragment_count = 0xA3A2,
                                                                    .payload_size = 0xA5A4});
}

TEST(VideoFragmentHeader, IsReadUnaligned) {
    std::array<std::uint8_t, vesper::kVideoPayloadOffset + 1> shifted{};
    const Datagram bytes = numbered_bytes();
    std::copy(bytes.begin(), bytes.end(), shifted.begin() + 1);
    expect_equal(vesper::read_video_fragment_header(shifted.data() + 1),
                 vesper::read_video_fragment_header(bytes.data()));
}

TEST(VideoFragmentHeader, AllOtherBytesAreOpaque) {
    const Datagram zeros{};
    const vesper::VideoFragmentHeader expected = vesper::read_video_fragment_header(zeros.data());
    std::vector<int> opaque(28);  // the packet header is not read here
    std::iota(opaque.begin(), opaque.end(), 0);
    opaque.insert(opaque.end(), {38, 39});
    for (const int offset : opaque) {
        SCOPED_TRACE(offset);
        Datagram changed = zeros;
        changed.at(static_cast<std::size_t>(offset)) = 0xFF;
        expect_equal(vesper::read_video_fragment_header(changed.data()), expected);
    }
}

TEST(VideoFragmentHeader, WritingZeroesTheSendersBytesAndLeavesThePacketHeader) {
    Datagram bytes = numbered_bytes();
    vesper::write_video_fragment_header({.frame_id = 0x04030201,
                                         .fragment_index = 0x0605,
                                         .fragment_count = 0x0807,
                                         .payload_size = 0x0A09},
                                        bytes.data());
    Datagram expected = numbered_bytes();
    const std::array<std::uint8_t, 12> fields = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0, 0};
    std::copy(fields.begin(), fields.end(), expected.begin() + 28);
    EXPECT_THAT(bytes, ElementsAreArray(expected));
}

TEST(VideoFragmentHeader, SurvivesARoundTripAtItsLimits) {
    constexpr auto kMax16 = std::numeric_limits<std::uint16_t>::max();
    const std::array<vesper::VideoFragmentHeader, 3> headers = {
        vesper::VideoFragmentHeader{},
        vesper::VideoFragmentHeader{
            .frame_id = 1, .fragment_index = 999, .fragment_count = 1000, .payload_size = 1400},
        vesper::VideoFragmentHeader{.frame_id = std::numeric_limits<std::uint32_t>::max(),
                                    .fragment_index = kMax16,
                                    .fragment_count = kMax16,
                                    .payload_size = kMax16}};
    for (const vesper::VideoFragmentHeader& header : headers) {
        Datagram bytes{};
        vesper::write_video_fragment_header(header, bytes.data());
        expect_equal(vesper::read_video_fragment_header(bytes.data()), header);
    }
}

// ---- messages to the parent ----

TEST(KeyframeRequestMessage, IsFourBytes) {
    EXPECT_THAT(vesper::kKeyframeRequest, ElementsAre(0x4B, 0x46, 0x52, 0x51));
}

TEST(KeyframeRequestMessage, IsKnownOnlyWhenExact) {
    const std::vector<std::uint8_t> exact = {'K', 'F', 'R', 'Q'};
    EXPECT_TRUE(vesper::is_keyframe_request(exact));
    EXPECT_FALSE(vesper::is_keyframe_request({}));
    EXPECT_FALSE(vesper::is_keyframe_request(std::span(exact).first(3)));
    EXPECT_FALSE(vesper::is_keyframe_request(std::vector<std::uint8_t>{'K', 'F', 'R', 'Q', 0}));
    EXPECT_FALSE(vesper::is_keyframe_request(std::vector<std::uint8_t>{'A', 'U', 'D', 'S'}));
}

TEST(AudioStateMessage, MutedAtHalfVolumeIsNineBytes) {
    EXPECT_THAT(vesper::make_audio_state({.muted = true, .volume = 0.5F}),
                ElementsAre(0x41, 0x55, 0x44, 0x53, 0x01, 0x00, 0x00, 0x00, 0x3F));
}

TEST(AudioStateMessage, AudibleAtFullVolumeIsNineBytes) {
    EXPECT_THAT(vesper::make_audio_state({.muted = false, .volume = 1.0F}),
                ElementsAre(0x41, 0x55, 0x44, 0x53, 0x00, 0x00, 0x00, 0x80, 0x3F));
}

TEST(AudioStateMessage, SilentVolumeIsFiveZeroBytes) {
    EXPECT_THAT(vesper::make_audio_state({.muted = false, .volume = 0.0F}),
                ElementsAre(0x41, 0x55, 0x44, 0x53, 0x00, 0x00, 0x00, 0x00, 0x00));
}

TEST(AudioStateMessage, SurvivesARoundTripToTheLastBit) {
    const std::array<float, 7> volumes = {0.0F,
                                          -0.0F,
                                          0.1F,
                                          std::nextafter(1.0F, 0.0F),
                                          1.0F,
                                          std::numeric_limits<float>::denorm_min(),
                                          std::numeric_limits<float>::quiet_NaN()};
    for (const float volume : volumes) {
        for (const bool muted : {false, true}) {
            const auto message = vesper::make_audio_state({.muted = muted, .volume = volume});
            const auto state = vesper::read_audio_state(message);
            ASSERT_TRUE(state.has_value());
            EXPECT_EQ(state->muted, muted);
            EXPECT_EQ(std::bit_cast<std::uint32_t>(state->volume),
                      std::bit_cast<std::uint32_t>(volume));
        }
    }
}

TEST(AudioStateMessage, OfAnotherLengthOrTagIsNone) {
    const auto message = vesper::make_audio_state({.muted = true, .volume = 0.5F});
    EXPECT_FALSE(vesper::read_audio_state({}));
    EXPECT_FALSE(vesper::read_audio_state(std::span(message).first(8)));
    std::vector<std::uint8_t> longer(message.begin(), message.end());
    longer.push_back(0);
    EXPECT_FALSE(vesper::read_audio_state(longer));
    for (std::size_t i = 0; i < 4; ++i) {
        auto other = message;
        other.at(i) ^= 0x01;
        EXPECT_FALSE(vesper::read_audio_state(other)) << i;
    }
}

}  // namespace
