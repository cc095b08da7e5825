#include "tools/stream/vp8_repeat.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

#include <gtest/gtest.h>

#include <cstring>
#include <optional>

#include "tools/stream/media_source.h"
#include "tools/stream/vp8_encoder.h"
#include "tools/stream/vp8_frame.h"

namespace vesper::tools {
namespace {

// The luma and chroma of a picture, rows packed.
using Pixels = std::vector<std::uint8_t>;

class Decoder {
  public:
    Decoder() : context_(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_VP8))) {
        context_->thread_count = 1;
        EXPECT_EQ(avcodec_open2(context_, nullptr, nullptr), 0);
    }
    ~Decoder() {
        av_packet_free(&packet_);
        av_frame_free(&picture_);
        avcodec_free_context(&context_);
    }
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    Pixels decode(const std::vector<std::uint8_t>& frame) {
        EXPECT_EQ(av_new_packet(packet_, static_cast<int>(frame.size())), 0);
        std::memcpy(packet_->data, frame.data(), frame.size());
        EXPECT_EQ(avcodec_send_packet(context_, packet_), 0);
        av_packet_unref(packet_);
        if (avcodec_receive_frame(context_, picture_) != 0) {
            ADD_FAILURE() << "no picture";
            return {};
        }
        Pixels pixels;
        for (const int plane : {0, 1, 2}) {
            const int divisor = plane == 0 ? 1 : 2;
            for (int row = 0; row < (picture_->height + divisor - 1) / divisor; ++row) {
                const std::uint8_t* begin =
                    picture_->data[plane] + std::ptrdiff_t{row} * picture_->linesize[plane];
                pixels.insert(pixels.end(), begin,
                              begin + (picture_->width + divisor - 1) / divisor);
            }
        }
        return pixels;
    }

  private:
    AVCodecContext* context_;
    AVPacket* packet_ = av_packet_alloc();
    AVFrame* picture_ = av_frame_alloc();
};

struct Vp8Repeat : testing::TestWithParam<PictureSize> {
    Vp8Repeat() { av_log_set_level(AV_LOG_QUIET); }

    void SetUp() override {
        const auto [width, height] = GetParam();
        ASSERT_TRUE(source.open_test_picture({.width = width, .height = height, .sound = false}));
        ASSERT_TRUE(encoder.open({.width = width, .height = height, .keyframe_interval = 7}));
    }
    std::vector<std::uint8_t> next_frame() { return encoder.encode(source.next_picture(), false); }

    MediaSource source;
    Vp8Encoder encoder;
    std::vector<std::uint8_t> repeat = make_repeat_frame(GetParam().width, GetParam().height);
};

TEST_P(Vp8Repeat, ShowsThePictureBeforeAndChangesNone) {
    Decoder plain;
    Decoder repeated;
    for (int i = 0; i < 30; ++i) {
        const std::vector<std::uint8_t> frame = next_frame();
        const Pixels picture = plain.decode(frame);
        EXPECT_EQ(repeated.decode(frame) == picture, true) << "picture " << i;
        for (int again = 0; again < 1 + i % 2; ++again) {
            EXPECT_EQ(repeated.decode(repeat) == picture, true) << "repeat of picture " << i;
        }
    }
}

TEST_P(Vp8Repeat, IsNoKeyframe) {
    EXPECT_EQ(keyframe_size(repeat), std::nullopt);
}

TEST_P(Vp8Repeat, FitsIntoOneDatagram) {
    EXPECT_LT(repeat.size(), 300U);
}

// One macroblock, one row, one column, sizes that are no multiple of a macroblock, and large ones.
INSTANTIATE_TEST_SUITE_P(, Vp8Repeat,
                         testing::Values(PictureSize{16, 16}, PictureSize{320, 16},
                                         PictureSize{16, 320}, PictureSize{400, 240},
                                         PictureSize{322, 182}, PictureSize{1280, 720},
                                         PictureSize{1920, 1080}),
                         [](const auto& size) {
                             return std::to_string(size.param.width) + "x" +
                                    std::to_string(size.param.height);
                         });

}  // namespace
}  // namespace vesper::tools
