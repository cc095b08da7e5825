// Set-up and tear-down of a receiver.
#include "client/video_receiver.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <utility>

#include "client/picture_format.h"

namespace vesper::client {

namespace {

// Smallest window: even a tiny stream gets one that can be found, grabbed and controlled.
constexpr int kMinWindowWidth = 320;   // pixels
constexpr int kMinWindowHeight = 240;  // pixels

// One thread decodes while the other takes the next frame; more would add a frame of delay each.
constexpr int kDecoderThreads = 2;

// The window's last events are still on their way when the stream ends; this gives them time to
// arrive before the window is destroyed.
constexpr auto kEventGracePeriod = std::chrono::milliseconds(10);

// A join takes as long as decoding and converting the current batch: far less than a second. Longer
// than this means a hang that must not go unnoticed.
constexpr auto kJoinReportDelay = std::chrono::seconds(5);

struct WindowSize {
    int width;   // pixels
    int height;  // pixels
};

// Truncates toward zero; values that do not fit an int become the nearest that does, a NaN (no size
// on no display) becomes 0.
int truncated(float value) {
    if (std::isnan(value)) {
        return 0;
    }
    constexpr float kLowest = -2147483648.0F;
    constexpr float kHighest = 2147483520.0F;  // largest float below 2^31
    return static_cast<int>(std::clamp(value, kLowest, kHighest));
}

// A window for a stream of `width` x `height` takes at most half the display each way. The minimums
// come last and may change the aspect ratio: a usable window matters more than its shape.
WindowSize fit_into_half_display(int width, int height) {
    WindowSize size{.width = width, .height = height};
    SDL_DisplayMode mode;
    if (SDL_GetCurrentDisplayMode(0, &mode) == 0) {
        const int half_width = mode.w / 2;
        const int half_height = mode.h / 2;
        if (width > half_width || height > half_height) {
            const auto w = static_cast<float>(width);
            const auto h = static_cast<float>(height);
            const float scale =
                std::min(static_cast<float>(half_width) / w, static_cast<float>(half_height) / h);
            size = {.width = truncated(w * scale), .height = truncated(h * scale)};
        }
    }
    return {.width = std::max(size.width, kMinWindowWidth),
            .height = std::max(size.height, kMinWindowHeight)};
}

// Reports on standard error, once, when the join is still blocked after kJoinReportDelay. It shares
// the flag with the stop path, which may return (and the receiver die) long before it wakes.
void watch_join(std::shared_ptr<const std::atomic<bool>> joined) {
    std::thread([joined = std::move(joined)] {
        std::this_thread::sleep_for(kJoinReportDelay);
        if (!*joined) {
            std::fprintf(stderr, "[VideoReceiver] ERROR: Decode thread join() blocked >5s!\n");
            std::fflush(stderr);
        }
    }).detach();
}

// After SDL_Quit() the windows are gone and their driver is unloaded: a destroy call would reach
// into freed memory or into code that is no longer there. What is left ends with the process.
bool sdl_video_is_up() {
    return SDL_WasInit(SDL_INIT_VIDEO) != 0;
}

// Flushes each line, so that the last one printed names the step that hung or crashed in a driver.
[[gnu::format(printf, 1, 2)]] void print_flushed(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::fflush(stdout);
}

}  // namespace

VideoReceiver::~VideoReceiver() {
    print_flushed("[VideoReceiver] Destructor called for uid=%u, cleanup_done=%d\n", uid,
                  cleanup_done ? 1 : 0);
    if (!cleanup_done) {
        print_flushed("[VideoReceiver] Destructor calling stop()\n");
        stop();
    }
    print_flushed("[VideoReceiver] Destructor complete for uid=%u\n", uid);
}

bool VideoReceiver::init_for_udp(int width, int height) {
    prepare_for_stream(0, width, height);
    const WindowSize window_size = fit_into_half_display(width, height);
    if (!create_window("Video Stream", window_size.width, window_size.height) ||
        !open_renderer_and_decoder()) {
        return false;
    }
    std::printf("[VideoReceiver] Standalone initialized (%dx%d)\n", frame_width_, frame_height_);
    begin_decoding();
    return true;
}

bool VideoReceiver::start(std::uint32_t streamer_uid, const std::string& username, int width,
                          int height, SDL_Window* parent_window) {
    prepare_for_stream(streamer_uid, width, height);
    if (!create_window(("Stream: " + username).c_str(), width, height)) {
        return false;
    }
    if (parent_window != nullptr) {
        SDL_RaiseWindow(parent_window);
        SDL_SetWindowInputFocus(parent_window);
    }
    if (!open_renderer_and_decoder()) {
        return false;
    }
    std::printf("[VideoReceiver] Started: watching %s (%dx%d)\n", username.c_str(), frame_width_,
                frame_height_);
    begin_decoding();
    return true;
}

void VideoReceiver::prepare_for_stream(std::uint32_t streamer_uid, int width, int height) {
    if (running) {
        stop();
    }
    uid = streamer_uid;
    frame_width_ = width;
    frame_height_ = height;
    reserved_flag = false;
    const std::lock_guard lock(frames_mutex);
    last_completed_frame_id = 0;
}

bool VideoReceiver::create_window(const char* title, int width, int height) {
    window = SDL_CreateWindow(title, SDL_WINDOWPOS_CENTERED, SDL_WINDOWPOS_CENTERED, width, height,
                              SDL_WINDOW_SHOWN | SDL_WINDOW_RESIZABLE);
    if (window == nullptr) {
        std::fprintf(stderr, "[VideoReceiver] Failed to create window: %s\n", SDL_GetError());
        return false;
    }
    window_id = SDL_GetWindowID(window);
    return true;
}

// Everything after the window. On failure the window is destroyed too.
bool VideoReceiver::open_renderer_and_decoder() {
    if (!create_renderer() || !create_texture() || !open_decoder()) {
        release_window();
        return false;
    }
    if (!allocate_decode_objects()) {
        avcodec_free_context(&codec_ctx);
        release_window();
        return false;
    }
    allocate_picture(convert_buffer, frame_width_, frame_height_);
    allocate_picture(picture, frame_width_, frame_height_);
    return true;
}

bool VideoReceiver::create_renderer() {
    // No vsync: the main loop must get back to its socket at once.
    renderer = SDL_CreateRenderer(window, -1, SDL_RENDERER_ACCELERATED);
    if (renderer == nullptr) {
        renderer = SDL_CreateRenderer(window, -1, SDL_RENDERER_SOFTWARE);
    }
    if (renderer == nullptr) {
        std::fprintf(stderr, "[VideoReceiver] Failed to create renderer: %s\n", SDL_GetError());
        return false;
    }
    return true;
}

bool VideoReceiver::create_texture() {
    texture = SDL_CreateTexture(renderer, SDL_PIXELFORMAT_ARGB8888, SDL_TEXTUREACCESS_STREAMING,
                                frame_width_, frame_height_);
    if (texture == nullptr) {
        std::fprintf(stderr, "[VideoReceiver] Failed to create texture: %s\n", SDL_GetError());
        return false;
    }
    return true;
}

// Leaves codec_ctx open, or null.
bool VideoReceiver::open_decoder() {
    codec = avcodec_find_decoder(AV_CODEC_ID_VP8);
    if (codec == nullptr) {
        std::fprintf(stderr, "[VideoReceiver] VP8 decoder not found\n");
        return false;
    }
    codec_ctx = avcodec_alloc_context3(codec);
    if (codec_ctx == nullptr) {
        std::fprintf(stderr, "[VideoReceiver] Failed to allocate codec context\n");
        return false;
    }
    codec_ctx->width = frame_width_;
    codec_ctx->height = frame_height_;
    codec_ctx->thread_count = kDecoderThreads;
    if (avcodec_open2(codec_ctx, codec, nullptr) < 0) {
        std::fprintf(stderr, "[VideoReceiver] Failed to open VP8 decoder\n");
        avcodec_free_context(&codec_ctx);
        return false;
    }
    return true;
}

// Leaves av_frame and av_packet allocated, or both null.
bool VideoReceiver::allocate_decode_objects() {
    av_frame = av_frame_alloc();
    av_packet = av_packet_alloc();
    if (av_frame != nullptr && av_packet != nullptr) {
        return true;
    }
    std::fprintf(stderr, "[VideoReceiver] Failed to allocate frame/packet\n");
    if (av_frame != nullptr) {
        av_frame_free(&av_frame);
    }
    if (av_packet != nullptr) {
        av_packet_free(&av_packet);
    }
    return false;
}

// Undoes a failed set-up; SDL is up, and nothing is reported.
void VideoReceiver::release_window() {
    if (texture != nullptr) {
        SDL_DestroyTexture(std::exchange(texture, nullptr));
    }
    if (renderer != nullptr) {
        SDL_DestroyRenderer(std::exchange(renderer, nullptr));
    }
    if (window != nullptr) {
        SDL_DestroyWindow(std::exchange(window, nullptr));
    }
}

void VideoReceiver::begin_decoding() {
    running = true;
    decode_thread = std::thread(&VideoReceiver::decode_thread_func, this);
}

void VideoReceiver::stop() {
    stop_decode_and_codecs();
    destroy_sdl_resources();
    std::printf("[VideoReceiver] Stop complete\n");
}

void VideoReceiver::stop_decode_and_codecs() {
    bool not_done = false;
    if (!cleanup_done.compare_exchange_strong(not_done, true)) {
        return;
    }
    running = false;
    std::printf("[VideoReceiver] Stopping decode thread and cleaning up codecs for user %llu\n",
                static_cast<unsigned long long>(uid));
    if (decode_thread.joinable()) {
        join_decode_thread();
    }
    free_codec();

    // The decode thread is gone: no lock needed.
    convert_buffer.clear();
    picture.clear();
    before_partial_picture.clear();

    if (audio_enabled) {
        audio_device.close();
        opus_decoder.destroy();
        audio_enabled = false;
        last_audio_sequence = 0;
    }
    {
        // partial_frames_bytes stays: a stopped receiver takes no more fragments.
        const std::lock_guard lock(frames_mutex);
        partial_frames.clear();
        oldest_partial_frame = nullptr;
    }
    {
        const std::lock_guard lock(queue_mutex);
        frame_queue.clear();
        forget_queued_frames();
    }
    std::printf("[VideoReceiver] Decode and codec cleanup complete\n");
}

void VideoReceiver::join_decode_thread() {
    std::printf("[VideoReceiver] Signaling decode thread to stop\n");
    {
        // The thread tests `running` under this lock: it either sees it cleared or already waits
        // when the notification comes.
        const std::lock_guard lock(queue_mutex);
        forget_queued_frames();
    }
    queue_cv.notify_all();
    std::printf("[VideoReceiver] Waiting for decode thread to join...\n");
    std::fflush(stdout);
    std::fflush(stderr);
    const auto joined = std::make_shared<std::atomic<bool>>(false);
    watch_join(joined);
    decode_thread.join();
    *joined = true;
    std::printf("[VideoReceiver] Decode thread joined successfully\n");
}

// With queue_mutex held. The slots keep their contents.
void VideoReceiver::forget_queued_frames() {
    queue_head = queue_tail = queue_count = 0;
}

void VideoReceiver::free_codec() {
    if (sws_ctx != nullptr) {
        sws_freeContext(std::exchange(sws_ctx, nullptr));
    }
    right_edge.reset();
    if (staging_frame != nullptr) {
        av_frame_free(&staging_frame);
    }
    if (av_packet != nullptr) {
        av_packet_free(&av_packet);
    }
    if (av_frame != nullptr) {
        av_frame_free(&av_frame);
    }
    if (codec_ctx != nullptr) {
        avcodec_free_context(&codec_ctx);
    }
}

void VideoReceiver::destroy_sdl_resources() {
    print_flushed(
        "[RECV SDL DESTROY] uid=%u, window_id=%u: START (window=%p, renderer=%p, texture=%p)\n",
        uid, window_id, static_cast<void*>(window), static_cast<void*>(renderer),
        static_cast<void*>(texture));
    if (window != nullptr) {
        print_flushed("[RECV SDL DESTROY] uid=%u: Sleeping 10ms for event processing\n", uid);
        std::this_thread::sleep_for(kEventGracePeriod);
    }
    if (texture != nullptr) {
        print_flushed("[RECV SDL DESTROY] uid=%u: Destroying texture %p\n", uid,
                      static_cast<void*>(texture));
        if (sdl_video_is_up()) {
            SDL_DestroyTexture(texture);
        }
        texture = nullptr;
        print_flushed("[RECV SDL DESTROY] uid=%u: Texture destroyed\n", uid);
    }
    if (renderer != nullptr) {
        print_flushed("[RECV SDL DESTROY] uid=%u: Destroying renderer %p\n", uid,
                      static_cast<void*>(renderer));
        if (sdl_video_is_up()) {
            SDL_DestroyRenderer(renderer);
        }
        renderer = nullptr;
        print_flushed("[RECV SDL DESTROY] uid=%u: Renderer destroyed\n", uid);
    }
    if (window != nullptr) {
        print_flushed("[RECV SDL DESTROY] uid=%u: Destroying window %p (ID=%u)\n", uid,
                      static_cast<void*>(window), window_id);
        if (sdl_video_is_up()) {
            SDL_DestroyWindow(window);
        }
        window = nullptr;
        print_flushed("[RECV SDL DESTROY] uid=%u: Window destroyed\n", uid);
    }
    print_flushed("[RECV SDL DESTROY] uid=%u: COMPLETE\n", uid);
}

void VideoReceiver::mark_stream_ended() {
    stream_ended = true;
    {
        // Not between the decode thread's test of `running` and its wait, or it would miss the
        // notification.
        const std::lock_guard lock(queue_mutex);
        running = false;
    }
    queue_cv.notify_all();
    std::printf("[VideoReceiver] Stream marked as ended, decode thread signaled to stop\n");
}

}  // namespace vesper::client
