#include "tools/stream/vp8_repeat.h"

#include <array>
#include <cassert>
#include <cstddef>
#include <initializer_list>

namespace vesper::tools {

namespace {

// Probabilities are of a 0, in 256ths.
using Probability = std::uint8_t;
constexpr Probability kEven = 128;
constexpr Probability kAlmostNever = 1;
constexpr Probability kAlmostAlways = 255;

constexpr int kMacroblockSize = 16;  // pixels

// RFC 6386, section 9.1: inter frame, version 0, shown; the first partition's size follows.
constexpr std::uint32_t kFrameTag = 0b1'000'1;
constexpr int kPartitionSizeShift = 5;

// The partition of the coefficients, of which there are none. Decoders read ahead in it.
constexpr std::size_t kCoefficientBytes = 4;

// Writes a partition (RFC 6386, section 7.3).
class BoolEncoder {
  public:
    void write(bool bit, Probability probability) {
        const std::uint32_t split = 1 + ((range_ - 1) * probability >> 8);
        if (bit) {
            bottom_ += split;
            range_ -= split;
        } else {
            range_ = split;
        }
        while (range_ < kLeastRange) {
            range_ <<= 1;
            shift_out();
        }
    }
    // The highest bit first.
    void write_number(unsigned number, int bits) {
        while (bits-- > 0) {
            write((number >> bits & 1) != 0, kEven);
        }
    }

    [[nodiscard]] std::vector<std::uint8_t> finish() {
        for (int i = 0; i < 32; ++i) {
            shift_out();
        }
        return bytes_;
    }

  private:
    static constexpr std::uint32_t kLeastRange = 128;
    static constexpr std::uint32_t kCarry = 1U << 31;
    static constexpr int kByteShift = 24;

    void shift_out() {
        if ((bottom_ & kCarry) != 0) {
            carry();
        }
        bottom_ <<= 1;
        if (--bits_to_byte_ == 0) {
            bytes_.push_back(static_cast<std::uint8_t>(bottom_ >> kByteShift));
            bottom_ &= (1U << kByteShift) - 1;
            bits_to_byte_ = 8;
        }
    }

    void carry() {
        auto byte = bytes_.rbegin();
        for (; *byte == 0xFF; ++byte) {
            *byte = 0;
        }
        ++*byte;
    }

    std::vector<std::uint8_t> bytes_;
    std::uint32_t range_ = 255;
    std::uint32_t bottom_ = 0;
    int bits_to_byte_ = 24;
};

// RFC 6386, section 13.4: the probabilities that a coefficient's probability is not updated, for
// each of 4 x 8 x 3 contexts those of 11 coefficients. All are 255 but the first ones of these.
constexpr int kContexts = 96;
constexpr int kCoefficients = 11;
struct ContextProbabilities {
    int context;
    std::array<Probability, 8> probabilities;  // 0: 255
};
constexpr ContextProbabilities kNoUpdate[] = {
    {3, {176, 246}},
    {4, {223, 241, 252}},
    {5, {249, 253, 253}},
    {6, {255, 244, 252}},
    {7, {234, 254, 254}},
    {8, {253}},
    {9, {255, 246, 254}},
    {10, {239, 253, 254}},
    {11, {254, 255, 254}},
    {12, {255, 248, 254}},
    {13, {251, 255, 254}},
    {15, {255, 253, 254}},
    {16, {251, 254, 254}},
    {17, {254, 255, 254}},
    {18, {255, 254, 253, 255, 254}},
    {19, {250, 255, 254, 255, 254}},
    {20, {254}},
    {24, {217}},
    {25, {225, 252, 241, 253, 255, 255, 254}},
    {26, {234, 250, 241, 250, 253, 255, 253, 254}},
    {27, {255, 254}},
    {28, {223, 254, 254}},
    {29, {238, 253, 254, 254}},
    {30, {255, 248, 254}},
    {31, {249, 254}},
    {33, {255, 253}},
    {34, {247, 254}},
    {36, {255, 253, 254}},
    {37, {252}},
    {39, {255, 254, 254}},
    {40, {253}},
    {42, {255, 254, 253}},
    {43, {250}},
    {44, {254}},
    {48, {186, 251, 250}},
    {49, {234, 251, 244, 254}},
    {50, {251, 251, 243, 253, 254, 255, 254}},
    {51, {255, 253, 254}},
    {52, {236, 253, 254}},
    {53, {251, 253, 253, 254, 254}},
    {54, {255, 254, 254}},
    {55, {254, 254, 254}},
    {57, {255, 254}},
    {58, {254, 254}},
    {59, {254}},
    {61, {254}},
    {72, {248}},
    {73, {250, 254, 252, 254}},
    {74, {248, 254, 249, 253}},
    {75, {255, 253, 253}},
    {76, {246, 253, 253}},
    {77, {252, 254, 251, 254, 254}},
    {78, {255, 254, 252}},
    {79, {248, 254, 253}},
    {80, {253, 255, 254, 254}},
    {81, {255, 251, 254}},
    {82, {245, 251, 254}},
    {83, {253, 253, 254}},
    {84, {255, 251, 253}},
    {85, {252, 253, 254}},
    {86, {255, 254}},
    {87, {255, 252}},
    {88, {249, 255, 254}},
    {89, {255, 255, 254}},
    {90, {255, 255, 253}},
    {91, {250}},
    {94, {254}},
};

// RFC 6386, section 17.2: the same of the probabilities of motion vectors.
constexpr std::array<Probability, 38> kNoMotionUpdate = {
    237, 246, 253, 253, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 250, 250, 252, 254, 254,
    231, 243, 245, 253, 254, 254, 254, 254, 254, 254, 254, 254, 254, 254, 251, 251, 254, 254, 254};

void keep_coefficient_probabilities(BoolEncoder& encoder) {
    std::array<Probability, std::size_t{kContexts} * kCoefficients> probabilities{};
    probabilities.fill(kAlmostAlways);
    for (const ContextProbabilities& row : kNoUpdate) {
        std::size_t at = static_cast<std::size_t>(row.context) * kCoefficients;
        for (const Probability probability : row.probabilities) {
            probabilities[at++] = probability == 0 ? kAlmostAlways : probability;
        }
    }
    for (const Probability probability : probabilities) {
        encoder.write(false, probability);
    }
}

// RFC 6386, sections 9.3 to 9.11 and 19.2. This frame leaves unchanged everything that it can.
void write_header(BoolEncoder& encoder) {
    encoder.write_number(0, 1);              // no segments
    encoder.write_number(0, 1 + 6 + 3);      // loop filter: normal, level 0 (off), sharpness
    encoder.write_number(0, 1);              // no adjustments of the loop filter
    encoder.write_number(0, 2);              // one partition of coefficients
    encoder.write_number(0, 7 + 5);          // quantizers, of which none is used
    encoder.write_number(0, 1 + 1 + 2 + 2);  // golden and alternate picture stay
    encoder.write_number(0, 1 + 1);          // their vectors' signs
    encoder.write_number(0, 1);              // the probabilities hold for this frame only
    encoder.write_number(0, 1);              // the picture that the next frame builds on stays
    keep_coefficient_probabilities(encoder);
    encoder.write_number(1, 1);  // macroblocks may declare that they have no coefficients
    encoder.write_number(kAlmostNever, 8);   // that one has some
    encoder.write_number(kAlmostNever, 8);   // that one is not predicted from another picture
    encoder.write_number(kAlmostAlways, 8);  // that it is predicted from the picture before
    encoder.write_number(kEven, 8);          // and not from the golden one
    encoder.write_number(0, 1 + 1);          // the probabilities of modes stay
    for (const Probability probability : kNoMotionUpdate) {
        encoder.write(false, probability);
    }
}

// RFC 6386, section 16.3: how likely a macroblock did not move where none of its neighbours above
// and to the left did. Those outside the picture do not count.
Probability no_motion_probability(int column, int row) {
    constexpr Probability kWithoutNeighbours = 7;
    constexpr Probability kWithOneNeighbour = 135;
    constexpr Probability kWithAllNeighbours = 234;
    if (column > 0 && row > 0) {
        return kWithAllNeighbours;
    }
    return column > 0 || row > 0 ? kWithOneNeighbour : kWithoutNeighbours;
}

}  // namespace

std::vector<std::uint8_t> make_repeat_frame(int width, int height) {
    assert(width > 0 && height > 0);
    BoolEncoder encoder;
    write_header(encoder);
    for (int row = 0; row * kMacroblockSize < height; ++row) {
        for (int column = 0; column * kMacroblockSize < width; ++column) {
            encoder.write(true, kAlmostNever);    // no coefficients
            encoder.write(true, kAlmostNever);    // predicted from another picture
            encoder.write(false, kAlmostAlways);  // the one before
            encoder.write(false, no_motion_probability(column, row));
        }
    }
    const std::vector<std::uint8_t> partition = encoder.finish();
    const std::uint32_t tag = kFrameTag | static_cast<std::uint32_t>(partition.size())
                                              << kPartitionSizeShift;
    constexpr std::array kTagShifts = {0, 8, 16};
    std::vector<std::uint8_t> frame;
    frame.reserve(kTagShifts.size() + partition.size() + kCoefficientBytes);
    for (const int shift : kTagShifts) {
        frame.push_back(static_cast<std::uint8_t>(tag >> shift));
    }
    frame.insert(frame.end(), partition.begin(), partition.end());
    frame.resize(frame.size() + kCoefficientBytes);
    return frame;
}

}  // namespace vesper::tools
