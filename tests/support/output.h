// What a piece of code writes to the process's standard output and standard error.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>

namespace vesper::test {

struct Output {
    std::string out;
    std::string err;
    friend bool operator==(const Output&, const Output&) = default;
    friend void PrintTo(const Output& output, std::ostream* stream) {
        *stream << "out: " << testing::PrintToString(output.out)
                << ", err: " << testing::PrintToString(output.err);
    }
};

inline const Output kNoOutput{};

// Runs `action` and returns all it wrote. Not to be nested.
template <typename Action>
Output output_of(Action&& action) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    std::forward<Action>(action)();
    std::fflush(stdout);
    std::string err = testing::internal::GetCapturedStderr();
    return {.out = testing::internal::GetCapturedStdout(), .err = std::move(err)};
}

}  // namespace vesper::test
