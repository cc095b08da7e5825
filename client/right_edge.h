// The columns at a picture's right edge that libswscale leaves out.
//
// Where a picture keeps its size and has an even number of rows, libswscale converts it by code
// that works in blocks of up to 16 columns and leaves out the remainder: with vector code the
// last (width mod 8) columns where the width is 1 to 7 above a multiple of 16, without it the last
// column of every odd width (measured with libswscale 6.7). So the last, incomplete block of 16
// columns is converted again, as a picture of its own without a remainder, and copied to its place.
#pragma once

#include <cstdint>
#include <vector>

struct AVFrame;
struct SwsContext;

namespace vesper::client {

// Belongs to the decode thread while that runs. Prints nothing.
class RightEdge {
  public:
    RightEdge() = default;
    ~RightEdge() { reset(); }
    RightEdge(const RightEdge&) = delete;
    RightEdge& operator=(const RightEdge&) = delete;

    // For pictures like `first`, converted to `width` x `height` pixels. If nothing is left out, or
    // memory is refused, convert() does nothing.
    void prepare(const AVFrame& first, int width, int height);

    // Converts the edge of `source`'s first `rows` rows into `picture` of the prepared size (packed
    // rows of B, G, R, A). Reads `source` up to the next multiple of 16 columns, which every
    // picture that libavcodec allocates has (avcodec_align_dimensions2()), as has one that
    // av_frame_get_buffer() allocated. Rows that libswscale refuses stay as they are.
    void convert(const AVFrame& source, int rows, std::uint8_t* picture);

    // Forgets what prepare() made.
    void reset();

  private:
    int width_ = 0;  // of the whole picture, in pixels
    SwsContext* converter_ = nullptr;
    std::vector<std::uint8_t> block_;  // kEdgeWidth columns, as many rows as the picture
};

}  // namespace vesper::client
