// One watched stream: a window of its own, the reassembly of frames out of datagrams, a decode
// thread, the newest picture, and the stream's sound.
//
// The intent is to always show the newest picture and never to wait for lost data. Datagrams go in
// on the main thread (handle_fragment, handle_screen_audio); completed frames pass through a ring
// of six slots to the decode thread, which decodes every one but converts only the last picture of
// what it found queued; render() or update() puts that picture on the window. Dropped on purpose: a
// frame still incomplete after 250 ms, incomplete frames older than a completed one, the oldest of
// six queued frames when a seventh completes, and every picture that a newer one overtakes.
//
//   main thread                                                     decode thread
//   handle_fragment -> partial_frames -> frame_queue (ring of 6) -> decode_thread_func
//   render / update <- texture        <- picture (swapped)       <- convert_buffer
//   handle_screen_audio -> opus_decoder -> audio_device
//
// Threads. Everything here runs on the main thread, the one that owns SDL's windows, except where a
// comment says otherwise. Lock order: frames_mutex, then queue_mutex; picture_mutex is never held
// together with another. Atomics are accessed sequentially consistently.
//
// Two ways to use it. Stand-alone: init_for_udp(), then render() once per pass. Inside an
// application: start(), then update() once per pass, mark_stream_ended() when the stream is over,
// set_condemned() once the application has abandoned the receiver. A receiver is brought up once:
// after stop(), make a new one.
#pragma once

#include <SDL2/SDL.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "audio/opus_codec.h"
#include "client/audio_device.h"
#include "client/right_edge.h"

struct AVCodec;
struct AVCodecContext;
struct AVFrame;
struct AVPacket;
struct SwsContext;

namespace vesper {
struct VideoFragmentHeader;
}

namespace vesper::client {

class VideoReceiver {
  public:
    // Drawn over the picture: the renderer, and the window's width and height in window
    // coordinates.
    using OverlayCallback = std::function<void(SDL_Renderer*, int, int)>;

    // ---- life cycle ----

    // Opens nothing, allocates nothing, starts no thread.
    VideoReceiver() = default;

    // Runs stop() unless the decode clean-up has run already, and reports its own begin and end on
    // standard output. May run after SDL_Quit().
    ~VideoReceiver();

    VideoReceiver(const VideoReceiver&) = delete;
    VideoReceiver& operator=(const VideoReceiver&) = delete;

    // Stand-alone mode: opens a window for a stream of `width` x `height` pixels (the window fits
    // into half the display each way, at least 320 x 240), its renderer and texture and the VP8
    // decoder, and starts the decode thread. Prints one line on success. On failure prints one line
    // on standard error, releases in reverse order what it has made, and returns false. A live
    // receiver is stopped first, but no later stop() would join the new thread: bring a receiver up
    // once.
    [[nodiscard]] bool init_for_udp(int width, int height);

    // In-application mode: the same for the stream of user `streamer_uid`, in a window titled after
    // `username` of exactly `width` x `height`. When `parent_window` is not null, it is raised and
    // gets the keyboard focus back.
    [[nodiscard]] bool start(std::uint32_t streamer_uid, const std::string& username, int width,
                             int height, SDL_Window* parent_window);

    // stop_decode_and_codecs(), then destroy_sdl_resources(), then a line on standard output. A
    // second call does no harm. Takes as long as the frame that is being decoded, 10 ms, and with
    // sound what SDL's audio thread needs for its last buffers.
    void stop();

    // Ends and joins the decode thread (waiting for as long as that takes; a watchdog reports a
    // wait of more than 5 seconds once on standard error), frees the codec, closes the sound and
    // empties reassembly and ring. Reports its steps on standard output. Runs once per receiver;
    // any further call returns silently.
    void stop_decode_and_codecs();

    // Destroys texture, renderer and window, in that order, after a pause of 10 ms for the window's
    // last events; each step is reported on standard output and flushed. After SDL_Quit() it only
    // forgets them. The window's id is kept.
    void destroy_sdl_resources();

    // Declares the stream over: decoding ends, and the last picture stays visible under the
    // stream-ended overlay. Frees nothing, prints a line on standard output. Takes queue_mutex. Any
    // thread.
    void mark_stream_ended();

    // The owning application's switch: while set, update() skips this receiver, but render() does
    // not. Nothing reads it back. Any thread.
    void set_condemned(bool given_up) { condemned = given_up; }

    // ---- datagrams ----

    // Takes one video-fragment datagram of `len` bytes, PacketHeader included. Anything malformed
    // or unwanted is dropped silently; frames dropped after 250 ms are reported on standard error
    // and raise a keyframe request. Any thread; takes frames_mutex, inside it queue_mutex.
    void handle_fragment(const std::uint8_t* data, int len);

    // True when a keyframe has become necessary since the last call, once or repeatedly. Any
    // thread.
    [[nodiscard]] bool needs_keyframe_request();

    // Takes one screen-audio datagram of `len` bytes, PacketHeader included: conceals up to three
    // lost packets before it, decodes it and queues the sound. Drops silently what it cannot use.
    // Plays in order of arrival, late and repeated packets too: there is no jitter buffer and no
    // limit on what waits in the device's queue, so the sender's pace determines the delay.
    void handle_screen_audio(const std::uint8_t* data, int len);

    // ---- presentation ----

    // Draws one frame of the window: the newest picture (or its zoomed part) over the whole window,
    // the stream-ended overlay if due, then the overlay callback. Returns at once without SDL
    // objects, and draws nothing before start-up and after a stop.
    void render();

    // The same for the in-application mode, without zoom and overlay callback. Prints a line for
    // every skipped call: while condemned, and without SDL objects.
    void update();

    // Draws the stream-ended overlay over the target's contents, in renderer output pixels.
    // Leaves draw colour and blend mode changed.
    void render_stream_ended_overlay();

    // Part of the picture to show, in texture pixels, neither checked nor clamped; `enabled` false
    // shows all of it.
    void set_zoom_rect(bool enabled, int x, int y, int w, int h);

    // Replaces the callback that render() calls last; an empty one switches it off. Not from inside
    // the callback.
    void set_overlay_callback(OverlayCallback callback);

    // ---- sound ----

    // Opens the stream's sound on the default playback device, unless it is open already. False
    // does nothing: sound ends with stop(). Prints one line on standard output on success and one
    // on standard error on failure, beside AudioDevice::open()'s own; after a failure nothing stays
    // open, and it may be retried.
    void enable_audio(bool enable);

    // Linear gain from the next 20 ms on: 0 silences, above 1 amplifies and saturates. Neither
    // checked nor clamped: a negative gain inverts the waveform, a NaN silences. Any thread.
    void set_audio_volume(float volume);

    // ---- queries ----

    // Whether render() and update() would show a picture that they have not shown yet: an
    // application that draws only what is new asks before it draws. Any thread.
    [[nodiscard]] bool has_new_picture() const { return running && picture_ready; }

    [[nodiscard]] int frame_width() const { return frame_width_; }    // stream pixels
    [[nodiscard]] int frame_height() const { return frame_height_; }  // stream pixels

    // SDL id of the window, for routing events; keeps its value after the window is gone.
    [[nodiscard]] std::uint32_t get_window_id() const { return window_id; }

  private:
    friend struct VideoReceiverPeer;  // the tests' one way in

    using Clock = std::chrono::steady_clock;

    // One frame under reassembly. Fragment i lies at data[i * 1400], so fragments are stored in any
    // order with a single copy and no reallocation.
    struct PartialFrame {
        std::uint16_t total_fragments = 0;          // as the first fragment seen declared; 0: none
        std::uint16_t received_fragments = 0;       // distinct fragments stored
        std::vector<std::uint8_t> data;             // total_fragments slots
        std::vector<bool> received;                 // one flag per fragment
        std::vector<std::uint16_t> fragment_sizes;  // bytes stored in each slot
        Clock::time_point first_seen{};             // arrival of the first fragment
    };
    using PartialFrameMap = std::unordered_map<std::uint32_t, PartialFrame>;

    // Set-up steps of init_for_udp() and start() (video_receiver.cpp).
    void prepare_for_stream(std::uint32_t streamer_uid, int width, int height);
    bool create_window(const char* title, int width, int height);
    bool create_renderer();
    bool create_texture();
    bool open_decoder();
    bool allocate_decode_objects();
    bool open_renderer_and_decoder();
    void free_codec();
    void release_window();
    void begin_decoding();
    void join_decode_thread();
    void forget_queued_frames();

    // Steps of handle_fragment(), with frames_mutex held (fragment_reassembly.cpp).
    void make_room_for_frame();
    PartialFrame& find_or_begin_frame(const VideoFragmentHeader& header);
    void begin_frame(PartialFrame& frame, std::uint16_t fragment_count);
    bool store_fragment(PartialFrame& frame, const VideoFragmentHeader& header,
                        const std::uint8_t* payload);
    bool complete_frame(std::uint32_t frame_id, const PartialFrame& frame);
    void enqueue_frame(std::vector<std::uint8_t> encoded_frame);
    void drop_frames_up_to(std::uint32_t frame_id);
    bool drop_stale_frames();
    PartialFrameMap::iterator erase_partial_frame(PartialFrameMap::iterator position);

    // The decode thread and its steps, on that thread (decode_thread.cpp).
    using EncodedFrames = std::vector<std::vector<std::uint8_t>>;
    void decode_thread_func();
    bool take_queued_frames(EncodedFrames& batch);
    void decode_batch(const EncodedFrames& batch);
    void decode_frame(const std::vector<std::uint8_t>& encoded_frame);
    [[gnu::format(printf, 2, 3)]] void count_decode_error(const char* format, ...);
    bool convert_picture();
    bool create_converter();
    bool shrinks_too_far_for_partial_pictures() const;
    const AVFrame* converter_source();
    void restore_row_below(int rows);
    void publish_picture();

    // Steps of render() and update() (presentation.cpp).
    bool has_sdl_objects() const;
    bool nothing_to_draw() const;
    void upload_new_picture();

    // Steps of handle_screen_audio() (screen_audio.cpp).
    bool conceal_lost_packets(std::uint32_t sequence);

    // ---- state ----
    // Members without another guard named belong to the main thread.

    // The receiver is live: decoding, and uploading new pictures. Atomic.
    std::atomic<bool> running{false};
    // Cleared at every set-up; has no other use. Atomic.
    std::atomic<bool> reserved_flag{false};
    // The stream was declared over. Atomic.
    std::atomic<bool> stream_ended{false};
    // The decode clean-up has run or is running; never reset. Atomic.
    std::atomic<bool> cleanup_done{false};
    // The owning application has abandoned the receiver. Atomic.
    std::atomic<bool> condemned{false};

    std::uint32_t uid = 0;  // the streamer's user id, 0 in stand-alone mode
    // Size of the stream, its texture and its pictures in pixels (the window's may differ).
    // Set before the decode thread starts, read-only while it runs.
    int frame_width_ = 0;
    int frame_height_ = 0;

    SDL_Window* window = nullptr;
    SDL_Renderer* renderer = nullptr;
    SDL_Texture* texture = nullptr;  // streaming, frame_width_ x frame_height_, 4 bytes per pixel
    std::uint32_t window_id = 0;

    std::mutex frames_mutex;
    // Frames under reassembly by frame id. Guarded by frames_mutex.
    PartialFrameMap partial_frames;
    // Id of the last frame put into the ring; older fragments are ignored. Guarded by frames_mutex.
    std::uint32_t last_completed_frame_id = 0;

    std::mutex queue_mutex;
    // The decode thread waits on it, with queue_mutex.
    std::condition_variable queue_cv;
    // Ring of encoded frames, sized at the first one. Guarded by queue_mutex.
    std::vector<std::vector<std::uint8_t>> frame_queue;
    // Slot of the oldest queued frame. Guarded by queue_mutex.
    std::size_t queue_head = 0;
    // Slot to fill next. Guarded by queue_mutex.
    std::size_t queue_tail = 0;
    // Queued frames, 0 to 6. Guarded by queue_mutex.
    std::size_t queue_count = 0;

    std::thread decode_thread;

    std::mutex picture_mutex;
    // The newest picture: rows packed, bytes B, G, R, A. Guarded by picture_mutex.
    std::vector<std::uint8_t> picture;
    // `picture` has not been uploaded yet. Atomic, changed under picture_mutex.
    std::atomic<bool> picture_ready{false};

    const AVCodec* codec = nullptr;  // the VP8 decoder; not owned
    // The next five belong to the decode thread while it runs, to the main thread otherwise.
    AVCodecContext* codec_ctx = nullptr;
    AVFrame* av_frame = nullptr;               // the picture decoded last
    AVPacket* av_packet = nullptr;             // points at the frame being decoded, owns nothing
    SwsContext* sws_ctx = nullptr;             // made for the first picture, never rebuilt
    std::vector<std::uint8_t> convert_buffer;  // scratch picture; swapped with `picture`

    OverlayCallback overlay_callback;
    bool zoom_enabled = false;
    int zoom_x = 0;  // source rectangle in texture pixels
    int zoom_y = 0;
    int zoom_w = 0;
    int zoom_h = 0;

    bool audio_enabled = false;  // decoder and device are open
    AudioDevice audio_device;
    OpusDecoderWrapper opus_decoder;
    // Gain. Atomic.
    std::atomic<float> audio_volume{1.0F};
    std::uint32_t last_audio_sequence = 0;  // 0: none yet

    // Sum of the capacities of all PartialFrame::data. Guarded by frames_mutex.
    std::uint64_t partial_frames_bytes = 0;

    // The frame under reassembly that was begun first: while it is not overdue, none is. Null when
    // unknown, as after its end. Guarded by frames_mutex.
    const PartialFrame* oldest_partial_frame = nullptr;

    // Consecutive decoding errors. Decode thread.
    std::uint32_t decode_error_count = 0;

    // A keyframe should be asked for. Atomic; set by reassembly and by the decode thread.
    std::atomic<bool> keyframe_needed{false};

    // The source size of sws_ctx: that of the stream's first picture, in pixels. Decode thread.
    int converter_width = 0;
    int converter_height = 0;

    // Converts what sws_ctx leaves out. Decode thread.
    RightEdge right_edge;

    // convert_buffer before a picture shorter than the converter's source was converted into it.
    // Decode thread.
    std::vector<std::uint8_t> before_partial_picture;

    // A later, narrower picture is copied into this one of the converter's source size, because
    // libswscale reads rows of its source width and would overrun the picture's own. Made when
    // first needed. Decode thread.
    AVFrame* staging_frame = nullptr;
};

}  // namespace vesper::client
