// Guards between the fuzzed receiver and the libraries: every function here is reached through the
// linker's --wrap (vesper_add_fuzzer's WRAP). The libraries are not instrumented, so the memory
// that they are asked to read and write is checked before and after each call.
#pragma once

#include <cstdint>

namespace vesper::fuzz {

// Size in pixels of the pictures that the newest converter was made for; 0 before the first.
struct ConverterSource {
    int width = 0;
    int height = 0;
};

[[nodiscard]] ConverterSource converter_source();

// Bytes of sound queued since the program started.
[[nodiscard]] std::uint64_t queued_sound_bytes();

// Forgets the converter; call it before a receiver is made.
void forget_converter();

}  // namespace vesper::fuzz
