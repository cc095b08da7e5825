// What a fuzzer's input is made of: little-endian numbers and runs of bytes, one after the other.
// InputWriter writes what InputReader reads, for the seeds.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace vesper::fuzz {

// Any bytes are an input: what is missing at the end reads as zero.
class InputReader {
  public:
    InputReader(const std::uint8_t* data, std::size_t size) : rest_(data, size) {}

    [[nodiscard]] bool done() const { return rest_.empty(); }

    template <typename Number>
    [[nodiscard]] Number number() {
        std::array<std::uint8_t, sizeof(Number)> raw{};
        std::ranges::copy(bytes(sizeof(Number)), raw.begin());
        return std::bit_cast<Number>(raw);
    }

    // The next `count` bytes, or as many as there are.
    [[nodiscard]] std::span<const std::uint8_t> bytes(std::size_t count) {
        const auto taken = rest_.first(std::min(count, rest_.size()));
        rest_ = rest_.subspan(taken.size());
        return taken;
    }

  private:
    std::span<const std::uint8_t> rest_;
};

class InputWriter {
  public:
    template <typename Number>
    InputWriter& number(Number value) {
        const auto raw = std::bit_cast<std::array<std::uint8_t, sizeof(Number)>>(value);
        return bytes(raw);
    }
    InputWriter& bytes(std::span<const std::uint8_t> run) {
        input_.insert(input_.end(), run.begin(), run.end());
        return *this;
    }
    [[nodiscard]] const std::vector<std::uint8_t>& input() const { return input_; }

  private:
    std::vector<std::uint8_t> input_;
};

}  // namespace vesper::fuzz
