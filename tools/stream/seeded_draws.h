// Random draws that a seed repeats, whatever the standard library: its generators are the same
// everywhere, its distributions are not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>

namespace vesper::tools {

// One thread at a time uses it.
class SeededDraws {
  public:
    explicit SeededDraws(std::uint64_t seed) : random_(seed) {}

    // From 0 up to, not including, 1.
    [[nodiscard]] double fraction() { return static_cast<double>(random_() >> 11) * 0x1.0p-53; }

    // From 0 up to, not including, `limit`.
    [[nodiscard]] std::size_t below(std::size_t limit) {
        return static_cast<std::size_t>(fraction() * static_cast<double>(limit));
    }

    // True `percent` times in a hundred.
    [[nodiscard]] bool happens(double percent) { return fraction() * 100 < percent; }

  private:
    std::mt19937_64 random_;
};

}  // namespace vesper::tools
