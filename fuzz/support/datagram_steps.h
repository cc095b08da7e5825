// The steps that make up an input of the datagrams fuzzer: one byte of kind, then what is listed.
#pragma once

#include <cstdint>

namespace vesper::fuzz {

enum class DatagramStep : std::uint8_t {
    datagram,  // u16 length, that many bytes: received as they are
    fragment,  // u32 frame id, u16 index, u16 count, u16 payload size: a video fragment of that
               // size
    age,       // u16 ms: all partial frames become this much older
    settle,    // the decode thread catches up
    render,    // one pass of the window
    volume,    // f32
    ask,       // the main loop asks whether a keyframe is needed
    end,       // the stream ends
};
inline constexpr int kDatagramSteps = 8;

}  // namespace vesper::fuzz
