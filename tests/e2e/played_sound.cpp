#include "tests/e2e/played_sound.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>
#include <numbers>

namespace vesper::test {

namespace {

bool is_silent(const SoundBlock& block) {
    return std::ranges::all_of(block, [](short sample) { return sample == 0; });
}

}  // namespace

void PlayedSound::redirect(ChildProcess::Environment& environment) const {
    environment["SDL_AUDIODRIVER"] = "disk";
    environment["SDL_DISKAUDIOFILE"] = file_;
    // A device four times as fast as a real one: the file need not be waited for.
    environment["SDL_DISKAUDIODELAY"] = "5";
}

std::string PlayedSound::driver_text() const {
    return "CRITICAL: You are using the SDL disk i/o audio driver!\n"
           "CRITICAL:  Writing to file [" +
           file_.string() + "].\n";
}

SoundBlocks PlayedSound::heard() const {
    SoundBlocks blocks;
    std::ifstream file(file_, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(begin_));
    SoundBlock block;
    while (file.read(reinterpret_cast<char*>(block.data()), sizeof(block))) {
        blocks.push_back(block);
    }
    return without_silence(blocks);
}

void PlayedSound::forget() {
    // The driver continues to write where it was: everything before becomes a hole that takes no
    // disk space.
    const std::uintmax_t size = std::filesystem::file_size(file_);
    begin_ = (size + sizeof(SoundBlock) - 1) / sizeof(SoundBlock) * sizeof(SoundBlock);
    std::filesystem::resize_file(file_, 0);
}

SoundBlocks without_silence(const SoundBlocks& blocks) {
    SoundBlocks sounding;
    std::ranges::remove_copy_if(blocks, std::back_inserter(sounding), is_silent);
    return sounding;
}

double root_mean_square(const SoundBlocks& blocks) {
    double sum = 0;
    for (const SoundBlock& block : blocks) {
        for (std::size_t i = 0; i < block.size(); i += 2) {
            sum += static_cast<double>(block[i]) * block[i];
        }
    }
    return std::sqrt(sum / (static_cast<double>(blocks.size()) * kBlockFrames));
}

double frequency(const SoundBlocks& blocks) {
    int passages = 0;
    short last = 0;
    for (const SoundBlock& block : blocks) {
        for (std::size_t i = 0; i < block.size(); i += 2) {
            passages += last < 0 && block[i] >= 0 ? 1 : 0;
            last = block[i];
        }
    }
    return passages / (static_cast<double>(blocks.size()) * 0.020);
}

void expect_tone(const SoundBlocks& blocks) {
    EXPECT_NEAR(frequency(blocks), ToneSource::kFrequency, 3.0);
    EXPECT_NEAR(root_mean_square(blocks), ToneSource::kAmplitude / std::numbers::sqrt2,
                0.05 * ToneSource::kAmplitude);
}

}  // namespace vesper::test
