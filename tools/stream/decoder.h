// Decodes the packets of one stream of an input and converts the result to a given format.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/stream/picture.h"

struct AVCodecContext;
struct AVCodecParameters;
struct AVFilterContext;
struct AVFilterGraph;
struct AVFrame;
struct AVPacket;

namespace vesper::tools {

// One thread at a time uses a decoder. One that is not open returns nothing.
class Decoder {
  public:
    Decoder() = default;
    ~Decoder();
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    // For a stream of `parameters`, video or sound; `shape` describes a chain of filters, one end
    // in and one out. False, and not open, when libavcodec has no decoder for it or cannot open it.
    // An open decoder is closed first.
    [[nodiscard]] bool open(const AVCodecParameters& parameters, std::string shape);

    // Decodes `packet`, stamped in microseconds, and returns what is ready: pictures, or blocks of
    // sound, each stamped in microseconds; a block of sound always, if need be where the one before
    // it ends, or from 0 on. For a damaged packet, nothing.
    [[nodiscard]] std::vector<Picture> decode(const AVPacket& packet);

    // The rest of the decoder's output when no packet follows. After this the stream may restart.
    [[nodiscard]] std::vector<Picture> finish();

    // Whether all of its output could be converted. What could not be is missing.
    [[nodiscard]] bool converts() const { return converts_; }

    // Frees the decoder; one that is not open stays so.
    void close();

  private:
    [[nodiscard]] std::vector<Picture> receive();
    void continue_sound(AVFrame& block);
    [[nodiscard]] bool fits_graph(const AVFrame& frame) const;
    [[nodiscard]] bool open_graph(const AVFrame& frame);
    void close_graph();

    std::string shape_;
    std::int64_t end_of_sound_ = 0;  // microseconds, of the last block
    bool converts_ = true;
    AVCodecContext* context_ = nullptr;
    AVFilterGraph* graph_ = nullptr;
    AVFilterContext* source_ = nullptr;  // owned by the graph
    AVFilterContext* sink_ = nullptr;    // owned by the graph
    Picture like_;                       // what the graph was made for; without data
};

}  // namespace vesper::tools
