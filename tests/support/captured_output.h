// What the code under test prints, each stream separately and whole.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <ostream>
#include <string>

namespace vesper::test {

struct Printed {
    std::string out;  // standard output
    std::string err;  // standard error

    bool operator==(const Printed&) const = default;
};

inline void PrintTo(const Printed& printed, std::ostream* stream) {
    *stream << "standard output: \"" << printed.out << "\", standard error: \"" << printed.err
            << '"';
}

inline const Printed kNothing;

// Everything `action` prints. Do not nest.
template <typename Action>
[[nodiscard]] Printed printed_by(Action&& action) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    action();
    Printed printed;
    printed.out = testing::internal::GetCapturedStdout();
    printed.err = testing::internal::GetCapturedStderr();
    if (testing::Test::HasFailure()) {
        // GoogleTest reports on standard output too: failures inside must not be lost.
        std::fputs(printed.out.c_str(), stdout);
    }
    return printed;
}

// Called from a hook inside printed_by(): what has been printed on one stream so far. printed_by()
// then returns only the rest.
[[nodiscard]] inline std::string take_stdout() {
    std::string text = testing::internal::GetCapturedStdout();
    testing::internal::CaptureStdout();
    return text;
}

[[nodiscard]] inline std::string take_stderr() {
    std::string text = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    return text;
}

}  // namespace vesper::test
