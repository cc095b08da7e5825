// Pictures a second, from the ring of encoded frames to the published picture, compared with a bare
// loop of libavcodec and libswscale on the same frames. Also reported: processor time for each
// picture, all threads.
//
// The decode thread's function runs on the benchmark's own thread and receives the next frame where
// it would wait for one. So every batch is one frame, every picture is converted, no time passes in
// the scheduler, and the figure includes all of the thread's own work.
#include <SDL2/SDL.h>
#include <benchmark/benchmark.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
#include <libswscale/swscale.h>
}

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "bench/support/processor_time.h"
#include "bench/support/test_stream.h"
#include "client/frame_ring.h"
#include "client/picture_format.h"
#include "client/video_receiver.h"
#include "tests/support/video_receiver_peer.h"

using vesper::bench::EncodedFrame;
using vesper::bench::StreamSize;
using vesper::client::VideoReceiver;
using vesper::client::VideoReceiverPeer;

namespace {

using Frames = std::vector<EncodedFrame>;
using Seconds = std::chrono::duration<double>;

constexpr int kFrames = 60;         // two seconds of a stream, one keyframe among them
constexpr int kDecoderThreads = 2;  // as the receiver has

// The frames to feed to the decode thread.
struct Feed {
    VideoReceiverPeer* peer = nullptr;
    Frames frames;
    std::size_t next = 0;
};
Feed feed;

// Replaces the decode thread's wait, with queue_mutex held: puts one frame into the ring, or ends.
void feed_next_frame() {
    if (feed.next == feed.frames.size()) {
        feed.peer->running() = false;
        return;
    }
    auto& ring = feed.peer->frame_queue();
    ring.resize(vesper::client::kFrameQueueSlots);
    ring[feed.peer->queue_tail()] = std::move(feed.frames[feed.next++]);
    feed.peer->queue_tail() = vesper::client::next_slot(feed.peer->queue_tail());
    ++feed.peer->queue_count();
}

// A receiver whose decode thread's function the benchmark calls.
class Subject {
  public:
    explicit Subject(StreamSize size) : peer_(receiver_) {
        feed = {.peer = &peer_, .frames = {}, .next = 0};  // the thread starts, and ends at once
        if (!receiver_.init_for_udp(size.width, size.height)) {
            std::exit(EXIT_FAILURE);
        }
        peer_.decode_thread().join();
    }

    Seconds decode(const Frames& frames) {
        feed = {.peer = &peer_, .frames = frames, .next = 0};
        peer_.running() = true;
        const auto start = std::chrono::steady_clock::now();
        peer_.decode_thread_func();
        return std::chrono::steady_clock::now() - start;
    }

  private:
    VideoReceiver receiver_;
    VideoReceiverPeer peer_;
};

// The least that decodes and converts every picture.
class Floor {
  public:
    explicit Floor(StreamSize size)
        : size_(size), picture_(vesper::client::picture_size(size.width, size.height)) {
        context_ = avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_VP8));
        context_->width = size.width;
        context_->height = size.height;
        context_->thread_count = kDecoderThreads;
        if (avcodec_open2(context_, nullptr, nullptr) < 0) {
            std::exit(EXIT_FAILURE);
        }
    }
    ~Floor() {
        sws_freeContext(converter_);
        av_frame_free(&frame_);
        av_packet_free(&packet_);
        avcodec_free_context(&context_);
    }
    Floor(const Floor&) = delete;
    Floor& operator=(const Floor&) = delete;

    Seconds decode(const Frames& frames) {
        Frames own = frames;  // in memory of their own, like those of the receiver
        const auto start = std::chrono::steady_clock::now();
        for (EncodedFrame& encoded : own) {
            packet_->data = encoded.data();
            packet_->size = static_cast<int>(encoded.size());
            if (avcodec_send_packet(context_, packet_) >= 0 &&
                avcodec_receive_frame(context_, frame_) >= 0) {
                convert();
            }
        }
        return std::chrono::steady_clock::now() - start;
    }

  private:
    void convert() {
        if (converter_ == nullptr) {
            converter_ = sws_getContext(frame_->width, frame_->height,
                                        static_cast<AVPixelFormat>(frame_->format), size_.width,
                                        size_.height, AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr,
                                        nullptr, nullptr);
        }
        const std::array<std::uint8_t*, 4> planes = {picture_.data()};
        const std::array<int, 4> strides = {vesper::client::picture_pitch(size_.width)};
        sws_scale(converter_, frame_->data, frame_->linesize, 0, frame_->height, planes.data(),
                  strides.data());
    }

    StreamSize size_;
    std::vector<std::uint8_t> picture_;
    AVCodecContext* context_ = nullptr;
    AVFrame* frame_ = av_frame_alloc();
    AVPacket* packet_ = av_packet_alloc();
    SwsContext* converter_ = nullptr;
};

const Frames& frames_of(StreamSize size) {
    static std::map<int, Frames> streams;
    Frames& frames = streams[size.width];
    if (frames.empty()) {
        frames = vesper::bench::encode_test_stream(size, kFrames);
    }
    return frames;
}

template <typename Decoder>
void run(benchmark::State& state, StreamSize stream, StreamSize shown) {
    const Frames& frames = frames_of(stream);
    Decoder decoder(shown);
    decoder.decode(frames);  // makes the converter and the decoder's buffers
    const double start = vesper::bench::process_seconds();
    for (auto _ : state) {
        state.SetIterationTime(decoder.decode(frames).count());
    }
    state.counters["processor_us"] = 1e6 * (vesper::bench::process_seconds() - start) /
                                     (static_cast<double>(state.iterations()) * kFrames);
    state.SetItemsProcessed(state.iterations() * kFrames);
}

void add(const std::string& name, StreamSize stream, StreamSize shown) {
    const auto add_one = [&](const std::string& who, auto* function) {
        benchmark::RegisterBenchmark((name + "/" + who).c_str(), function, stream, shown)
            ->UseManualTime()
            ->Unit(benchmark::kMillisecond);
    };
    add_one("player", run<Subject>);
    add_one("floor", run<Floor>);
}

}  // namespace

// NOLINTBEGIN: the name is the linker's.
extern "C" void __wrap__ZNSt18condition_variable4waitERSt11unique_lockISt5mutexE(
    std::condition_variable* /*queue_cv*/, std::unique_lock<std::mutex>* /*lock*/) {
    feed_next_frame();
}
// NOLINTEND

int main(int argc, char** argv) {
    av_log_set_level(AV_LOG_QUIET);
    SDL_setenv("SDL_VIDEODRIVER", "dummy", 0);
    if (SDL_Init(SDL_INIT_VIDEO) != 0) {
        std::fprintf(stderr, "%s\n", SDL_GetError());
        return EXIT_FAILURE;
    }
    constexpr StreamSize k180{320, 180};
    constexpr StreamSize k360{640, 360};
    constexpr StreamSize k540{960, 540};
    constexpr StreamSize k720{1280, 720};
    constexpr StreamSize k1080{1920, 1080};
    for (const StreamSize size : {k180, k360, k540, k720, k1080}) {
        add("decode/" + std::to_string(size.width) + "x" + std::to_string(size.height) +
                "/same_size",
            size, size);
    }
    add("decode/1280x720/to_960x540", k720, k540);
    add("decode/1920x1080/to_1280x720", k1080, k720);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    SDL_Quit();
    return EXIT_SUCCESS;
}
