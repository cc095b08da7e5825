// Decodes the packets of one stream of an input and brings what is in them into another shape.
#pragma once

#include <string>
#include <vector>

#include "tools/stream/picture.h"

struct AVCodecContext;
struct AVCodecParameters;
struct AVFilterContext;
struct AVFilterGraph;
struct AVPacket;

namespace vesper::tools {

// One thread at a time uses a decoder.
class Decoder {
  public:
    Decoder() = default;
    ~Decoder();
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    // For a stream of `parameters`, video or sound; `shape` describes a chain of filters, one end
    // in and one out. False when libavcodec has no decoder for it.
    [[nodiscard]] bool open(const AVCodecParameters& parameters, std::string shape);

    // What `packet`, which is stamped in microseconds, makes come out: pictures, or blocks of
    // sound, each stamped in microseconds. A packet that is damaged makes nothing come out.
    [[nodiscard]] std::vector<Picture> decode(const AVPacket& packet);

    // What the decoder still holds when no packet follows. After this the stream may begin again.
    [[nodiscard]] std::vector<Picture> finish();

  private:
    [[nodiscard]] std::vector<Picture> receive();
    [[nodiscard]] bool fits_graph(const AVFrame& frame) const;
    [[nodiscard]] bool open_graph(const AVFrame& frame);
    void close_graph();

    std::string shape_;
    AVCodecContext* context_ = nullptr;
    AVFilterGraph* graph_ = nullptr;
    AVFilterContext* source_ = nullptr;  // owned by the graph
    AVFilterContext* sink_ = nullptr;    // owned by the graph
    Picture like_;                       // what the graph was made for; without data
};

}  // namespace vesper::tools
