// What the player plays, read from the file that SDL's disk driver writes instead of driving a
// sound card.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e/test_stream.h"
#include "tests/support/child_process.h"

namespace vesper::test {

using SoundBlocks = std::vector<SoundBlock>;

class PlayedSound {
  public:
    // Into `file`, which the player makes when it opens its sound device.
    explicit PlayedSound(std::filesystem::path file) : file_(std::move(file)) {}

    // Has the player play into the file: to be called before it starts.
    void redirect(ChildProcess::Environment& environment) const;

    // What SDL's driver then prints on standard error.
    [[nodiscard]] std::string driver_text() const;

    // Every block that sounds and was played since the last forget().
    [[nodiscard]] SoundBlocks heard() const;

    // Releases the disk space, too.
    void forget();

    [[nodiscard]] const std::filesystem::path& file() const { return file_; }

  private:
    std::filesystem::path file_;
    std::uintmax_t begin_ = 0;  // bytes, of whole blocks
};

// The player queues whole blocks and the device takes whole blocks, so whatever SDL fills the
// pauses with is whole blocks of silence, too.
[[nodiscard]] SoundBlocks without_silence(const SoundBlocks& blocks);

// The level of the left channel.
[[nodiscard]] double root_mean_square(const SoundBlocks& blocks);

// Passages of the left channel through zero on the way up, per second.
[[nodiscard]] double frequency(const SoundBlocks& blocks);

// Expects ToneSource's tone, without a break, at its frequency and level.
void expect_tone(const SoundBlocks& blocks);

}  // namespace vesper::test
