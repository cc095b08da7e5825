// The steps that make up an input of the window input fuzzer, and how it begins.
#pragma once

#include <cstdint>

namespace vesper::fuzz {

// An input begins with u8 of these, f32 volume, i32 frame width, i32 frame height.
inline constexpr std::uint8_t kHasAudio = 0x01;
inline constexpr std::uint8_t kStartMuted = 0x02;
inline constexpr std::uint8_t kHasParent = 0x04;
inline constexpr std::uint8_t kNoWindow = 0x08;

// Then one byte of kind for each step, and what is listed.
enum class InputStep : std::uint8_t {
    resize,   // i32 width, i32 height: the window's
    wheel,    // i32 x, i32 y: where the mouse is; i32 amount
    motion,   // i32 x, i32 y
    press,    // u8 button, u8 clicks, i32 x, i32 y
    release,  // u8 button
    key,      // i32 key code
    event,    // u32 type, u8 window event: any other
    hide,     // the bar disappears
};
inline constexpr int kInputSteps = 8;

}  // namespace vesper::fuzz
