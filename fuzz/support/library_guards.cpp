#include "fuzz/support/library_guards.h"

#include <SDL2/SDL_audio.h>
#include <opus.h>
#include <time.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <map>
#include <vector>

#include "client/picture_format.h"
#include "fuzz/support/require.h"

namespace vesper::fuzz {

namespace {

// A picture of the largest VP8 size is 400 MB and takes a second, and would find nothing that one
// of this size does not.
constexpr std::int64_t kMaxPixels = 512 * 512;

// After what the converter may write: the picture, and the room for its overrun.
constexpr std::size_t kGuardBytes = 256;
constexpr std::uint8_t kGuardValue = 0xC5;

constexpr SDL_AudioDeviceID kSoundCard = 2;
constexpr int kChannels = 2;

// Sizes in pixels that a converter was made for.
struct Conversion {
    int source_width;
    int source_height;
    int width;
    int height;
};

// The decode thread's: a receiver's picture has one converter, the right edge of it another.
std::map<const SwsContext*, Conversion> conversions;

// Of the first converter, the picture's. Written by the decode thread, read by the fuzzer's.
std::atomic<int> converter_width{0};
std::atomic<int> converter_height{0};

std::uint64_t sound_bytes = 0;

// libFuzzer treats these as code coverage: an input whose pictures have a new size is worth
// keeping, but libavcodec is not instrumented and would not show it.
constexpr int kSizeClasses = 16;  // powers of two
[[gnu::section(
    "__libfuzzer_extra_counters")]] std::uint8_t picture_sizes[kSizeClasses * kSizeClasses];

int size_class(int size) {
    return std::min(static_cast<int>(std::bit_width(static_cast<unsigned>(size))),
                    kSizeClasses - 1);
}

void count_picture_size(int stride, int rows) {
    picture_sizes[size_class(stride) * kSizeClasses + size_class(rows)] = 1;
}

// A row of the converter's source width has to lie inside each plane's stride: libswscale reads it.
void check_source(const Conversion& conversion, const int strides[]) {
    const int chroma_width = (conversion.source_width + 1) / 2;
    require(strides[0] >= conversion.source_width && strides[1] >= chroma_width &&
                strides[2] >= chroma_width,
            "the converter reads no further than the picture's rows");
}

}  // namespace

ConverterSource converter_source() {
    return {.width = converter_width, .height = converter_height};
}

void forget_converter() {
    converter_width = 0;
    converter_height = 0;
}

std::uint64_t queued_sound_bytes() {
    return sound_bytes;
}

}  // namespace vesper::fuzz

// NOLINTBEGIN: the names are the linker's.
using namespace vesper::fuzz;

extern "C" {

int __real_avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options);
int __wrap_avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options) {
    context->max_pixels = kMaxPixels;
    return __real_avcodec_open2(context, codec, options);
}

SwsContext* __real_sws_getContext(int source_width, int source_height, AVPixelFormat source_format,
                                  int width, int height, AVPixelFormat format, int flags,
                                  SwsFilter* source_filter, SwsFilter* filter,
                                  const double* parameters);
SwsContext* __wrap_sws_getContext(int source_width, int source_height, AVPixelFormat source_format,
                                  int width, int height, AVPixelFormat format, int flags,
                                  SwsFilter* source_filter, SwsFilter* filter,
                                  const double* parameters) {
    SwsContext* const context =
        __real_sws_getContext(source_width, source_height, source_format, width, height, format,
                              flags, source_filter, filter, parameters);
    if (context != nullptr) {
        conversions[context] = {.source_width = source_width,
                                .source_height = source_height,
                                .width = width,
                                .height = height};
        if (converter_width == 0) {
            converter_width = source_width;
            converter_height = source_height;
        }
    }
    return context;
}

int __real_sws_scale(SwsContext* context, const std::uint8_t* const source[], const int strides[],
                     int first_row, int rows, std::uint8_t* const destination[],
                     const int destination_strides[]);
// Converts into a picture with a guard after it.
int __wrap_sws_scale(SwsContext* context, const std::uint8_t* const source[], const int strides[],
                     int first_row, int rows, std::uint8_t* const destination[],
                     const int destination_strides[]) {
    const Conversion& conversion = conversions.at(context);
    check_source(conversion, strides);
    count_picture_size(strides[0], rows);
    const std::size_t size = vesper::client::picture_size(conversion.width, conversion.height);
    const std::size_t writable = size + vesper::client::kConverterOverrun;
    std::vector<std::uint8_t> guarded(destination[0], destination[0] + size);
    guarded.resize(writable);
    guarded.resize(writable + kGuardBytes, kGuardValue);
    std::uint8_t* const planes[4] = {guarded.data()};
    const int result =
        __real_sws_scale(context, source, strides, first_row, rows, planes, destination_strides);
    const auto guard = guarded.begin() + static_cast<std::ptrdiff_t>(writable);
    require(std::all_of(guard, guarded.end(), [](std::uint8_t b) { return b == kGuardValue; }),
            "the converter writes no further than the picture and its room");
    std::copy_n(guarded.begin(), size, destination[0]);
    return result;
}

// Reads and writes, in place of libopus, exactly what libopus was asked to.
int __real_opus_decode(OpusDecoder* decoder, const unsigned char* data, opus_int32 length,
                       opus_int16* pcm, int frame_size, int with_error_correction);
int __wrap_opus_decode(OpusDecoder* decoder, const unsigned char* data, opus_int32 length,
                       opus_int16* pcm, int frame_size, int with_error_correction) {
    const std::vector<unsigned char> packet(data, data + length);
    std::vector<opus_int16> decoded(static_cast<std::size_t>(frame_size) * kChannels);
    const int frames =
        __real_opus_decode(decoder, data == nullptr ? nullptr : packet.data(), length,
                           decoded.data(), frame_size, with_error_correction);
    std::copy_n(decoded.begin(), std::max(frames, 0) * kChannels, pcm);
    return frames;
}

// A sound card that accepts everything: closing SDL's own dummy waits 60 ms for its thread.
SDL_AudioDeviceID __wrap_SDL_OpenAudioDevice(const char*, int, const SDL_AudioSpec* desired,
                                             SDL_AudioSpec* obtained, int) {
    *obtained = *desired;
    return kSoundCard;
}
void __wrap_SDL_CloseAudioDevice(SDL_AudioDeviceID) {}
void __wrap_SDL_PauseAudioDevice(SDL_AudioDeviceID, int) {}
int __wrap_SDL_QueueAudio(SDL_AudioDeviceID, const void* data, Uint32 bytes) {
    // Reads all of it, as the card would.
    const std::vector<std::uint8_t> heard(static_cast<const std::uint8_t*>(data),
                                          static_cast<const std::uint8_t*>(data) + bytes);
    sound_bytes += heard.size();
    return 0;
}

// The waits of a tear-down (for the window system, and the watchdog's) return at once.
int __wrap_nanosleep(const timespec*, timespec*) {
    return 0;
}

}  // extern "C"
// NOLINTEND
