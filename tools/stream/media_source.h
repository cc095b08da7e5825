// The source of pictures and sound: libavfilter delivers them in the one format that the encoders
// take, whatever they were before.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "tools/stream/decoder.h"
#include "tools/stream/picture.h"

struct AVFilterContext;
struct AVFilterGraph;
struct AVFormatContext;

namespace vesper::tools {

inline constexpr int kSoundRate = 48'000;           // Hz
inline constexpr int kSoundChannels = 2;            // interleaved
inline constexpr int kSoundFrameSamples = 960;      // per channel: 20 ms, one Opus packet
inline constexpr int kSoundFrameMilliseconds = 20;  // 960 / 48 kHz

// The sound of one Opus packet: 16-bit, left and right in turn.
using SoundFrame = std::array<std::int16_t, std::size_t{kSoundFrameSamples} * kSoundChannels>;

// The output of a source.
struct MediaSettings {
    int width = 1280;  // pixels, even
    int height = 720;  // pixels, even
    int frames_per_second = 30;
    bool sound = true;  // whether any is wanted
};

// One thread at a time uses a source, and opens it once. If it cannot be opened, or has no next
// picture before its end, one line is printed on standard error.
class MediaSource {
  public:
    MediaSource() = default;
    ~MediaSource();
    MediaSource(const MediaSource&) = delete;
    MediaSource& operator=(const MediaSource&) = delete;

    // A colourful picture with parts that move, a large clock and frame counter (the count starts
    // at 0), and a 440 Hz tone that beeps once a second. It never ends.
    [[nodiscard]] bool open_test_picture(const MediaSettings& settings);

    // A media file of any format that FFmpeg opens: its first video and sound streams; with `loop`
    // it restarts at its end. A picture of another shape gets black bars. Cover pictures and text,
    // which FFmpeg can draw, do not count as video.
    [[nodiscard]] bool open_file(const MediaSettings& settings, const std::string& path, bool loop);

    // The contents of the X display `display` (":0"), silent. Each picture is captured when it is
    // requested. It ends, with a line, when the display does.
    [[nodiscard]] bool open_screen(const MediaSettings& settings, const std::string& display);

    // The next picture: YUV 4:2:0 of the settings' size, settings' frames to a second of media.
    // Null at the end, or after a failure, and from then on.
    [[nodiscard]] Picture next_picture();

    // Fills `sound` with the next 20 ms; silence once the source's sound has ended. False where
    // there is no sound at all.
    [[nodiscard]] bool next_sound(SoundFrame& sound);

    [[nodiscard]] bool has_sound() const { return has_sound_; }

  private:
    [[nodiscard]] int open_graph(const std::string& description);
    [[nodiscard]] int open_grabber(const MediaSettings& settings, const std::string& display);
    [[nodiscard]] int grab(Picture& picture);
    [[nodiscard]] int filter(Picture& picture);
    void close();

    std::string name_;          // for the line after a failure
    std::string looped_graph_;  // to reopen at the end; empty: no loop
    bool has_sound_ = false;
    AVFilterGraph* graph_ = nullptr;
    AVFilterContext* pictures_ = nullptr;  // sink; owned by the graph
    AVFilterContext* sound_ = nullptr;     // sink, or null; owned by the graph
    AVFormatContext* screen_ = nullptr;    // the grabber, or null: pictures come from the graph
    Decoder grabs_;                        // what the grabber delivers
};

}  // namespace vesper::tools
