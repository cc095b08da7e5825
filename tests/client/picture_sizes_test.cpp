// Every picture size through the decode thread, with the real decoder and the real libswscale: each
// pixel is the one that a conversion with room to spare gives, and nothing is written beyond what a
// picture's storage holds.
#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "client/picture_format.h"
#include "client/video_receiver.h"
#include "tests/support/hook.h"
#include "tests/support/transcript.h"
#include "tests/support/video_receiver_peer.h"
#include "tools/stream/picture.h"
#include "tools/stream/vp8_encoder.h"

// clang-format off: one hook a line
VESPER_HOOK(sws_scale, int,
            (SwsContext * converter, const uint8_t* const source[], const int source_strides[],
             int row, int rows, uint8_t* const planes[], const int strides[]),
            (converter, source, source_strides, row, rows, planes, strides))
VESPER_HOOK(_ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE, void,
            (std::condition_variable * condition, std::unique_lock<std::mutex>* lock),
            (condition, lock))
// clang-format on

namespace vesper::client {
namespace {

using EncodedFrame = std::vector<std::uint8_t>;

constexpr std::size_t kRingSlots = 6;
constexpr int kMacroblock = 16;  // pixels each way

struct Size {
    int width;   // pixels
    int height;  // pixels
    bool operator==(const Size&) const = default;
};

std::string name(Size size) {
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

constexpr int round_up(int size, int unit) {
    return (size + unit - 1) / unit * unit;
}

// A keyframe of noise whose width and height are multiples of 16.
const EncodedFrame& noise(Size size) {
    static std::map<std::pair<int, int>, EncodedFrame> encoded;
    EncodedFrame& frame = encoded[{size.width, size.height}];
    if (!frame.empty()) {
        return frame;
    }
    tools::Vp8Encoder encoder;
    EXPECT_TRUE(encoder.open({.width = size.width, .height = size.height, .bitrate = 20'000'000}));
    const tools::Picture picture = tools::make_picture(size.width, size.height);
    std::minstd_rand random(7);
    for (int plane = 0; plane < 3; ++plane) {
        const int rows = plane == 0 ? size.height : size.height / 2;
        std::generate_n(picture->data[plane], picture->linesize[plane] * rows,
                        [&random] { return static_cast<std::uint8_t>(random() >> 16U); });
    }
    return frame = encoder.encode(picture, true);
}

// A keyframe of any size: one of whole macroblocks that declares fewer pixels, which the decoder
// cuts away. Width and height are 14 bits each, little-endian, after frame tag and start code
// (RFC 6386, section 9.1).
EncodedFrame keyframe(Size size) {
    EncodedFrame frame = noise(
        {.width = round_up(size.width, kMacroblock), .height = round_up(size.height, kMacroblock)});
    frame[6] = static_cast<std::uint8_t>(size.width & 0xFF);
    frame[7] = static_cast<std::uint8_t>(size.width >> 8);
    frame[8] = static_cast<std::uint8_t>(size.height & 0xFF);
    frame[9] = static_cast<std::uint8_t>(size.height >> 8);
    return frame;
}

struct ConverterDeleter {
    void operator()(SwsContext* converter) const { sws_freeContext(converter); }
};

// Converts what a receiver is to convert, into rows with room to spare: a copy of each decoded
// picture, cut to the size of the stream's first one, and black where it is smaller. Where a
// picture keeps its size, the converter is made for wider ones: libswscale's plain C code leaves
// out the last column of an odd width however much room there is. That width is a multiple of 16
// only where the picture's is, since such widths take other code on arm64, which rounds otherwise.
class RoomyConversion {
  public:
    RoomyConversion(const AVFrame& first, Size shown)
        : first_{.width = first.width, .height = first.height}, shown_(shown) {
        Size source = first_;
        Size destination = shown;
        if (source == shown && shown.height % 2 == 0 && shown.width % kMacroblock != 0) {
            const int even = round_up(shown.width, 2);
            source.width = destination.width = even % kMacroblock == 0 ? even + 2 : even;
        }
        source_ = tools::make_picture(round_up(source.width, kMacroblock),
                                      round_up(source.height, kMacroblock));
        pitch_ = picture_pitch(destination.width + kSpareColumns);
        converter_.reset(sws_getContext(source.width, source.height,
                                        static_cast<AVPixelFormat>(first.format), destination.width,
                                        destination.height, AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr,
                                        nullptr, nullptr));
        for (auto& buffer : buffers_) {
            buffer.resize(static_cast<std::size_t>(pitch_ * (shown.height + 1)));
        }
    }

    // Publishes by a swap, as the receiver does: what a refused conversion leaves is the picture
    // before last.
    void convert(const AVFrame& decoded) {
        copy(decoded);
        std::array<std::uint8_t*, 4> planes = {buffers_[0].data()};
        const std::array<int, 4> pitches = {pitch_};
        __real_sws_scale(converter_.get(), source_->data, source_->linesize, 0, decoded.height,
                         planes.data(), pitches.data());
        buffers_[0].swap(buffers_[1]);
    }

    // Compares the newest picture with `picture`: where they differ first, or nothing.
    [[nodiscard]] std::string difference(const std::vector<std::uint8_t>& picture) const {
        for (int y = 0; y < shown_.height; ++y) {
            const std::uint8_t* expected = buffers_[1].data() + std::ptrdiff_t{y} * pitch_;
            const std::uint8_t* got = picture.data() + picture_size(shown_.width, y);
            const auto [end, at] =
                std::mismatch(expected, expected + picture_pitch(shown_.width), got);
            if (end != expected + picture_pitch(shown_.width)) {
                return "column " + std::to_string((end - expected) / kBytesPerPixel) + ", row " +
                       std::to_string(y);
            }
        }
        return {};
    }

  private:
    static constexpr int kSpareColumns = 128;

    // Into source_. Two columns of a picture share one of chroma, and so do two rows.
    void copy(const AVFrame& decoded) {
        const Size common = {.width = std::min(decoded.width, first_.width),
                             .height = std::min(decoded.height, first_.height)};
        for (int plane = 0; plane < 3; ++plane) {
            const int share = plane == 0 ? 1 : 2;
            const std::uint8_t black = plane == 0 ? 16 : 128;  // BT.601, limited range
            std::uint8_t* const to = source_->data[plane];
            const std::ptrdiff_t pitch = source_->linesize[plane];
            std::fill_n(to, pitch * (source_->height / share), black);
            for (int y = 0; y < round_up(common.height, share) / share; ++y) {
                std::copy_n(decoded.data[plane] + std::ptrdiff_t{y} * decoded.linesize[plane],
                            round_up(common.width, share) / share, to + y * pitch);
            }
        }
    }

    Size first_;
    Size shown_;
    int pitch_ = 0;
    std::unique_ptr<SwsContext, ConverterDeleter> converter_;
    tools::Picture source_;
    std::array<std::vector<std::uint8_t>, 2> buffers_;
};

// One stream on one receiver, shown picture by picture on the test's own thread: where the decode
// thread would wait, the next frame is queued, and at the end the receiver stops.
class Stream {
  public:
    explicit Stream(Size shown) : shown_(shown) {
        peer_.frame_width() = shown.width;
        peer_.frame_height() = shown.height;
        allocate_picture(peer_.convert_buffer(), shown.width, shown.height);
        allocate_picture(peer_.picture(), shown.width, shown.height);
        // As set-up opens it.
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_VP8);
        peer_.codec_ctx() = avcodec_alloc_context3(codec);
        peer_.codec_ctx()->thread_count = 2;
        EXPECT_EQ(avcodec_open2(peer_.codec_ctx(), codec, nullptr), 0);
        peer_.av_frame() = av_frame_alloc();
        peer_.av_packet() = av_packet_alloc();
    }
    ~Stream() { receiver_.stop_decode_and_codecs(); }
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    // What is wrong with the first picture that is not shown whole, or beyond its storage; nothing
    // where all are right.
    std::string fault(const std::vector<Size>& pictures) {
        hook_sws_scale = [this](SwsContext* converter, const uint8_t* const source[],
                                const int strides[], int row, int rows, uint8_t* const planes[],
                                const int pitches[]) {
            return converter == peer_.sws_ctx()
                       ? convert(source, strides, rows, pitches)
                       : __real_sws_scale(converter, source, strides, row, rows, planes, pitches);
        };
        std::size_t queued = 0;
        hook__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE = [&](auto*, auto*) {
            // The decoder gives each picture out when it gets the next frame.
            if (queued >= 2) {
                check(queued - 1, pictures[queued - 2]);
            }
            if (queued > pictures.size() || !fault_.empty()) {
                peer_.running() = false;
                return;
            }
            queue(keyframe(pictures[std::min(queued, pictures.size() - 1)]));
            ++queued;
        };
        peer_.running() = true;
        peer_.decode_thread_func();
        hook_sws_scale = nullptr;
        return fault_;
    }

  private:
    void queue(EncodedFrame frame) {
        peer_.frame_queue().resize(kRingSlots);
        peer_.frame_queue()[peer_.queue_tail()] = std::move(frame);
        peer_.queue_tail() = (peer_.queue_tail() + 1) % kRingSlots;
        ++peer_.queue_count();
    }

    // Converts for the receiver into a copy of its picture's storage with a guard after that, and
    // with room to spare beside it.
    int convert(const std::uint8_t* const source[], const int strides[], int rows,
                const int pitches[]) {
        if (!roomy_) {
            roomy_ = std::make_unique<RoomyConversion>(*peer_.av_frame(), shown_);
        }
        roomy_->convert(*peer_.av_frame());

        constexpr std::size_t kGuardBytes = 1024;
        constexpr std::uint8_t kGuardValue = 0xC5;
        std::vector<std::uint8_t>& picture = peer_.convert_buffer();
        std::vector<std::uint8_t> guarded(picture);
        guarded.resize(picture.capacity());
        guarded.resize(picture.capacity() + kGuardBytes, kGuardValue);
        const std::array<std::uint8_t*, 4> planes = {guarded.data()};
        const int result =
            __real_sws_scale(peer_.sws_ctx(), source, strides, 0, rows, planes.data(), pitches);
        const auto guard = guarded.begin() + static_cast<std::ptrdiff_t>(picture.capacity());
        if (std::count(guard, guarded.end(), kGuardValue) != std::ptrdiff_t{kGuardBytes}) {
            fault_ = "written beyond its storage";
        }
        std::copy_n(guarded.begin(), picture.size(), picture.begin());
        return result;
    }

    void check(std::size_t number, Size size) {
        if (fault_.empty()) {
            fault_ = !peer_.picture_ready() ? "not shown" : roomy_->difference(peer_.picture());
        }
        peer_.picture_ready() = false;
        if (!fault_.empty()) {
            fault_ = "picture " + std::to_string(number) + ", " + name(size) + " on " +
                     name(shown_) + ": " + fault_;
        }
    }

    Size shown_;
    VideoReceiver receiver_;
    VideoReceiverPeer peer_{receiver_};
    std::unique_ptr<RoomyConversion> roomy_;
    std::string fault_;
};

class PictureSizes : public test::HookedTest {
  protected:
    void SetUp() override { av_log_set_level(AV_LOG_QUIET); }

    // Shows the stream. The test reports the first few faults of all its streams at its end.
    void show(const std::vector<Size>& pictures, Size shown) {
        const std::string fault = Stream(shown).fault(pictures);
        static_cast<void>(transcript_.take());
        constexpr int kReported = 10;
        if (!fault.empty() && ++faulty_ <= kReported) {
            faults_ += fault + "\n";
        }
    }
    void TearDown() override {
        EXPECT_EQ(faulty_, 0) << "Among them:\n" << faults_;
        HookedTest::TearDown();
    }

  private:
    test::Transcript transcript_;  // the receivers' and libvpx's lines
    int faulty_ = 0;
    std::string faults_;
};

class PictureSizesOfHeight : public PictureSizes, public testing::WithParamInterface<int> {};

TEST_P(PictureSizesOfHeight, EveryWidthUpTo400IsWholeAndInsideItsMemory) {
    for (int width = 1; width <= 400; ++width) {
        const Size size = {.width = width, .height = GetParam()};
        show({size}, size);
    }
}

INSTANTIATE_TEST_SUITE_P(LowAndHigh, PictureSizesOfHeight,
                         testing::Values(1, 2, 3, 4, 5, 6, 143, 144),
                         [](const auto& height) { return std::to_string(height.param); });

struct Heights {
    int stream;
    int shown;
};

class PictureSizesScaled : public PictureSizes, public testing::WithParamInterface<Heights> {};

TEST_P(PictureSizesScaled, EveryWidthToEveryWidthUpTo40IsWholeAndInsideItsMemory) {
    for (int stream_width = 1; stream_width <= 40; ++stream_width) {
        for (int width = 1; width <= 40; ++width) {
            show({{.width = stream_width, .height = GetParam().stream}},
                 {.width = width, .height = GetParam().shown});
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    UpAndDown, PictureSizesScaled,
    testing::Values(Heights{.stream = 3, .shown = 2}, Heights{.stream = 4, .shown = 5},
                    Heights{.stream = 17, .shown = 18}, Heights{.stream = 40, .shown = 33}),
    [](const auto& heights) {
        return std::to_string(heights.param.stream) + "To" + std::to_string(heights.param.shown);
    });

// After its first picture a stream may change its size; the converter stays.
class PictureSizesThatChange : public PictureSizes {
  protected:
    void change(const std::vector<Size>& later) {
        for (const Size first :
             {Size{.width = 50, .height = 34}, Size{.width = 57, .height = 34},
              Size{.width = 33, .height = 35}, Size{.width = 48, .height = 32}}) {
            std::vector<Size> pictures = {first, first};
            pictures.insert(pictures.end(), later.begin(), later.end());
            pictures.push_back(first);
            for (const Size shown :
                 {first, Size{.width = 70, .height = 50}, Size{.width = 21, .height = 16}}) {
                show(pictures, shown);
            }
        }
    }
};

TEST_F(PictureSizesThatChange, ToWiderOnes) {
    change(
        {{.width = 58, .height = 34}, {.width = 61, .height = 34}, {.width = 400, .height = 34}});
}

TEST_F(PictureSizesThatChange, ToNarrowerOnes) {
    change({{.width = 30, .height = 34}, {.width = 17, .height = 34}, {.width = 1, .height = 34}});
}

TEST_F(PictureSizesThatChange, ToTallerOnes) {
    change(
        {{.width = 50, .height = 36}, {.width = 50, .height = 37}, {.width = 50, .height = 300}});
}

TEST_F(PictureSizesThatChange, ToFlatterOnes) {
    change({{.width = 50, .height = 32}, {.width = 50, .height = 21}, {.width = 50, .height = 2}});
}

TEST_F(PictureSizesThatChange, InBothDirectionsAtOnce) {
    change({{.width = 64, .height = 20},
            {.width = 20, .height = 64},
            {.width = 64, .height = 64},
            {.width = 2, .height = 2},
            {.width = 1, .height = 1}});
}

}  // namespace
}  // namespace vesper::client
