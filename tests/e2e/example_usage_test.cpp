// The command lines of the examples.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/child_process.h"

namespace vesper::test {

namespace {

void expect_refused(const std::string& program, std::vector<std::string> words) {
    words.insert(words.begin(), program);
    ChildProcess example(words, {{"SDL_VIDEODRIVER", "dummy"}, {"SDL_AUDIODRIVER", "dummy"}});
    EXPECT_EQ(example.wait_for_end(), Ending{.status = 2}) << testing::PrintToString(words);
}

}  // namespace

TEST(ExampleUsage, TakesTwoPorts) {
    for (const std::string program :
         {VESPER_MINIMAL_APPLICATION, VESPER_SOCKET_THREAD, VESPER_VOICE}) {
        expect_refused(program, {"5000"});
        expect_refused(program, {"5000", "five"});
        expect_refused(program, {"5000", ""});
        expect_refused(program, {"5000 ", "5001"});
        expect_refused(program, {"0", "5001"});
        expect_refused(program, {"5000", "65536"});
    }
}

TEST(ExampleUsage, TakesAPortAReplyPortAndANameForEachStream) {
    expect_refused(VESPER_IN_APPLICATION, {});
    expect_refused(VESPER_IN_APPLICATION, {"--size", "640x360"});
    for (const std::string stream : {"5000:5001", "0:5001:Ann", "65536:5001:Ann", "5000:65536:Ann",
                                     "5000:-1:Ann", "70536:5001:Ann", "4294972296:5001:Ann"}) {
        expect_refused(VESPER_IN_APPLICATION, {stream});
    }
}

}  // namespace vesper::test
