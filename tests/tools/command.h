// Other people's programs, which make what the tests feed in.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

namespace vesper::test {

// Runs a program to its end, which is to be a good one.
inline void run_command(const std::vector<std::string>& words,
                        const ChildProcess::Environment& environment = {}) {
    ChildProcess process(words, environment);
    EXPECT_EQ(process.wait_for_end(), (Ending{.status = 0, .signal = 0}))
        << words.front() << ": " << process.err();
}

// The words of a command line without quotes.
[[nodiscard]] inline std::vector<std::string> split_words(const std::string& line) {
    std::vector<std::string> words;
    std::size_t begin = 0;
    while ((begin = line.find_first_not_of(' ', begin)) != std::string::npos) {
        const std::size_t end = std::min(line.find(' ', begin), line.size());
        words.push_back(line.substr(begin, end - begin));
        begin = end;
    }
    return words;
}

// Has ffmpeg write `file` with these options, encoding in one thread: libvpx's threads spin while
// they wait for each other, which on a busy machine is most of their time.
inline void make_media(const std::string& options, const std::string& file) {
    std::vector<std::string> words = {"ffmpeg", "-nostdin", "-y", "-loglevel", "error"};
    for (const std::string& word : split_words(options)) {
        words.push_back(word);
    }
    words.insert(words.end(), {"-threads", "1", file});
    run_command(words);
}

// Has GStreamer write a Matroska file of one second of a tone of 440 Hz, one of silence and another
// of the tone, with discontinuous transmission, which not every ffmpeg's libopus offers.
inline void make_tone_with_a_pause(const std::string& file) {
    run_command(
        split_words("gst-launch-1.0 -q audiotestsrc num-buffers=150 samplesperbuffer=960 "
                    "wave=ticks freq=440 sine-periods-per-tick=440 tick-interval=2000000000 "
                    "marker-tick-period=1 ! audio/x-raw,rate=48000,channels=1 ! "
                    "opusenc dtx=true audio-type=voice ! matroskamux ! filesink location=" +
                    file));
}

}  // namespace vesper::test
