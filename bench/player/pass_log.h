// The passes of a loop that ends each with SDL_Delay(), written by the process that runs it and
// read by the benchmark, in a file that both map.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace vesper::bench {

// Names the file, which must exist with this size.
inline constexpr const char* kPassLogVariable = "VESPER_PASS_LOG";

struct PassLog {
    static constexpr std::size_t kTimes = 4096;

    std::atomic<std::uint64_t> passes;
    // Steady clock, ns, of the end of pass n at [n % kTimes], written before `passes` counts it.
    std::array<std::atomic<std::int64_t>, kTimes> times;
};

}  // namespace vesper::bench
