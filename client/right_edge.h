// The columns at a picture's right edge that libswscale leaves out.
//
// Where a picture keeps its size and has an even number of rows, libswscale converts it by code
// that works in blocks of up to 16 columns and leaves out the remainder: with vector code the
// last (width mod 8) columns where the width is 1 to 7 above a multiple of 16, without it the last
// column of every odd width (measured with libswscale 6.7). So the last, incomplete block of 16
// columns is copied into a wider picture, converted there and copied to its place.
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
    // FFmpeg refuses memory, convert() does nothing.
    void prepare(const AVFrame& first, int width, int height);

    // Converts the edge of `source`'s first `rows` rows into `picture` of the prepared size (packed
    // rows of B, G, R, A). `source` is at least as wide as that and has that many rows. Rows that
    // libswscale refuses stay as they are.
    void convert(const AVFrame& source, int rows, std::uint8_t* picture);

    // Forgets what prepare() made.
    void reset();

  private:
    int width_ = 0;  // of the whole picture, in pixels
    SwsContext* converter_ = nullptr;
    // The edge before and after its conversion: kEdgeWidth columns, as many rows as the picture.
    AVFrame* source_ = nullptr;
    std::vector<std::uint8_t> converted_;
};

}  // namespace vesper::client
