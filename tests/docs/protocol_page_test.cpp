// docs/protocol.md shows datagrams. A comment before each such block of the page names it; its text
// is generated here. If one differs, copy the expected text into the page.
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "audio/opus_codec.h"
#include "net/stream_datagrams.h"
#include "tools/stream/packetizer.h"

namespace vesper::tools {
namespace {

using Bytes = std::vector<std::uint8_t>;

// A grey keyframe of 16x16 pixels, as libvpx encodes it.
const Bytes kKeyframe = {0x10, 0x02, 0x00, 0x9D, 0x01, 0x2A, 0x10, 0x00, 0x10,
                         0x00, 0x00, 0x47, 0x08, 0x85, 0x85, 0x88, 0x99, 0x84,
                         0x88, 0x02, 0x02, 0x00, 0x06, 0x19, 0x68, 0x00, 0x00};

// 20 ms of silence in stereo, as libopus encodes it.
const Bytes kSilence = {0xFC, 0xFF, 0xFE};

std::string read_page() {
    std::ifstream file(VESPER_SOURCE_FOLDER "/docs/protocol.md");
    EXPECT_TRUE(file.is_open());
    return {std::istreambuf_iterator<char>(file), {}};
}

// The page's code block called `name`, without its fences.
std::string block(const std::string& name) {
    const std::string page = read_page();
    const std::string mark = "<!-- checked: " + name + " -->\n```";
    const std::size_t fence = page.find(mark);
    if (fence == std::string::npos) {
        return "no block called " + name;
    }
    const std::size_t begin = page.find('\n', fence + mark.size()) + 1;
    return page.substr(begin, page.find("```", begin) - begin);
}

std::string printed(const char* format, std::size_t number) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), format, number);
    return text.data();
}

// As `hexdump -C` prints it, without the closing line.
std::string hexdump(std::span<const std::uint8_t> bytes) {
    constexpr std::size_t kColumns = 16;
    std::string dump;
    for (std::size_t row = 0; row < bytes.size(); row += kColumns) {
        const auto line = bytes.subspan(row, std::min(kColumns, bytes.size() - row));
        dump += printed("%08zx", row);
        std::string text;
        for (std::size_t column = 0; column < kColumns; ++column) {
            dump += column % 8 == 0 ? "  " : " ";
            dump += column < line.size() ? printed("%02zx", line[column]) : "  ";
        }
        for (const std::uint8_t byte : line) {
            text += std::isprint(byte) != 0 ? static_cast<char>(byte) : '.';
        }
        dump += "  |" + text + "|\n";
    }
    return dump;
}

TEST(ProtocolPage, ShowsAVideoFragmentAsThePacketizerMakesIt) {
    const std::vector<Datagram> datagrams = VideoPacketizer().packetize(kKeyframe);
    ASSERT_EQ(datagrams.size(), 1U);
    EXPECT_EQ(block("a video fragment"), hexdump(datagrams[0]));
}

TEST(ProtocolPage, ShowsAScreenAudioPacketAsThePacketizerMakesIt) {
    EXPECT_EQ(block("a screen-audio packet"), hexdump(AudioPacketizer().packetize(kSilence)));
}

TEST(ProtocolPage, ShowsTheKeyframeRequestAsThePlayerSendsIt) {
    EXPECT_EQ(block("a keyframe request"), hexdump(kKeyframeRequest));
}

TEST(ProtocolPage, ShowsAnAudioStateAsThePlayerSendsIt) {
    EXPECT_EQ(block("an audio state"), hexdump(make_audio_state({.muted = true, .volume = 0.5F})));
}

TEST(ProtocolPage, ShowsARealKeyframe) {
    AVCodecContext* decoder = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_VP8));
    decoder->thread_count = 1;  // delivers the picture at once
    ASSERT_EQ(avcodec_open2(decoder, nullptr, nullptr), 0);
    AVPacket* packet = av_packet_alloc();
    ASSERT_EQ(av_new_packet(packet, static_cast<int>(kKeyframe.size())), 0);
    std::copy(kKeyframe.begin(), kKeyframe.end(), packet->data);
    AVFrame* picture = av_frame_alloc();
    EXPECT_EQ(avcodec_send_packet(decoder, packet), 0);
    ASSERT_EQ(avcodec_receive_frame(decoder, picture), 0);
    EXPECT_EQ(picture->width, 16);
    EXPECT_EQ(picture->height, 16);
    EXPECT_EQ(picture->pict_type, AV_PICTURE_TYPE_I);
    EXPECT_NEAR(picture->data[0][0], 128, 2);
    av_frame_free(&picture);
    av_packet_free(&packet);
    avcodec_free_context(&decoder);
}

TEST(ProtocolPage, ShowsRealSilence) {
    OpusDecoderWrapper decoder;
    ASSERT_TRUE(decoder.init(48'000, 2));
    std::array<short, 1920> sound{};
    sound.fill(1);
    EXPECT_EQ(decoder.decode(kSilence.data(), static_cast<int>(kSilence.size()), sound.data(), 960),
              960);
    EXPECT_EQ(sound, (std::array<short, 1920>{}));
}

}  // namespace
}  // namespace vesper::tools
