#include "tools/stream/packetizer.h"

#include <gtest/gtest.h>

#include <numeric>

#include "net/stream_datagrams.h"
#include "tests/support/fragment_builder.h"

namespace vesper::tools {
namespace {

using test::FragmentBuilder;

std::vector<std::uint8_t> bytes_of_size(std::size_t size) {
    std::vector<std::uint8_t> bytes(size);
    std::iota(bytes.begin(), bytes.end(), std::uint8_t{3});
    return bytes;
}

TEST(VideoPacketizer, ASmallFrameIsOneDatagram) {
    VideoPacketizer packetizer;
    EXPECT_EQ(packetizer.packetize(bytes_of_size(5)),
              std::vector<Datagram>{
                  FragmentBuilder().frame(1).index(0).of(1).payload(bytes_of_size(5)).build()});
}

TEST(VideoPacketizer, AllDatagramsOfALargeFrameAreFullButTheLast) {
    VideoPacketizer packetizer;
    const auto frame = bytes_of_size(2 * 1400 + 1);
    const auto slice = [&frame](int from, int to) {
        return std::vector<std::uint8_t>(frame.begin() + from, frame.begin() + to);
    };
    EXPECT_EQ(packetizer.packetize(frame),
              (std::vector<Datagram>{
                  FragmentBuilder().index(0).of(3).payload(slice(0, 1400)).build(),
                  FragmentBuilder().index(1).of(3).payload(slice(1400, 2800)).build(),
                  FragmentBuilder().index(2).of(3).payload(slice(2800, 2801)).build()}));
}

TEST(VideoPacketizer, AFrameOfExactlyFullDatagramsHasNoEmptyOne) {
    VideoPacketizer packetizer;
    EXPECT_EQ(packetizer.packetize(bytes_of_size(2 * 1400)).size(), 2U);
}

TEST(VideoPacketizer, TheLargestFrameIsAThousandDatagrams) {
    VideoPacketizer packetizer;
    const auto datagrams = packetizer.packetize(bytes_of_size(1'400'000));
    ASSERT_EQ(datagrams.size(), 1000U);
    EXPECT_EQ(read_video_fragment_header(datagrams.back().data()).fragment_index, 999);
    EXPECT_EQ(read_video_fragment_header(datagrams.back().data()).fragment_count, 1000);
}

TEST(VideoPacketizer, FramesAreNumberedFromOne) {
    VideoPacketizer packetizer;
    for (const std::uint32_t id : {1U, 2U, 3U}) {
        EXPECT_EQ(packetizer.next_frame_id(), id);
        const auto datagrams = packetizer.packetize(bytes_of_size(1));
        EXPECT_EQ(read_video_fragment_header(datagrams.at(0).data()).frame_id, id);
    }
}

TEST(AudioPacketizer, APacketFollowsItsHeader) {
    AudioPacketizer packetizer;
    Datagram expected(28 + 3);
    expected[20] = 1;     // sequence
    expected[24] = 3;     // payload size
    expected[26] = 0x04;  // screen audio
    expected[28] = 3;
    expected[29] = 4;
    expected[30] = 5;
    EXPECT_EQ(packetizer.packetize(bytes_of_size(3)), expected);
}

TEST(AudioPacketizer, PacketsAreNumberedFromOne) {
    AudioPacketizer packetizer;
    for (const std::uint32_t sequence : {1U, 2U, 3U}) {
        EXPECT_EQ(packetizer.next_sequence(), sequence);
        const auto datagram = packetizer.packetize(bytes_of_size(1));
        EXPECT_EQ(read_packet_header(datagram.data()).sequence, sequence);
    }
}

}  // namespace
}  // namespace vesper::tools
