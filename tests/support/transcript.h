// What a test's subject prints and does, in one order: each line it prints, marked with its stream,
// among the calls that the test's hooks note.
//
//     Transcript transcript;
//     hook_SDL_DestroyWindow = [&](auto...) { transcript.note("SDL_DestroyWindow"); };
//     ...
//     EXPECT_EQ(transcript.take(),
//               "out: [VideoReceiver] Stop complete\n"
//               "SDL_DestroyWindow\n");
//
// While a transcript lives, the process's standard output and standard error go into it; one may
// live at a time. Whatever was not taken is printed at its end if the test has failed, gtest's own
// words included. Any thread may print and note.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace vesper::test {

// An expected transcript, composed of parts that several tests share.
[[nodiscard]] inline std::string joined(std::initializer_list<std::string_view> parts) {
    std::string text;
    for (const std::string_view part : parts) {
        text += part;
    }
    return text;
}

class Transcript {
  public:
    Transcript() {
        // The C library allows assignment to these two (glibc manual, "Standard Streams"). Buffered
        // by lines, so that each line appears among the notes when it is printed, not when it is
        // flushed.
        stdout = open(out_);
        stderr = open(err_);
    }
    ~Transcript() {
        std::fclose(std::exchange(stdout, real_stdout_));
        std::fclose(std::exchange(stderr, real_stderr_));
        if (testing::Test::HasFailure()) {
            std::fputs(text_.c_str(), stderr);
        }
    }
    Transcript(const Transcript&) = delete;
    Transcript& operator=(const Transcript&) = delete;

    // Adds one line of its own.
    [[gnu::format(printf, 2, 3)]] void note(const char* format, ...) {
        std::array<char, 512> line{};
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(line.data(), line.size(), format, arguments);
        va_end(arguments);
        const std::lock_guard lock(mutex_);
        text_ += line.data();
        text_ += '\n';
    }

    // Everything since the last call.
    [[nodiscard]] std::string take() {
        const std::lock_guard lock(mutex_);
        return std::exchange(text_, {});
    }

    [[nodiscard]] bool contains(const std::string& words) {
        const std::lock_guard lock(mutex_);
        return text_.find(words) != std::string::npos;
    }

    // Runs before each printed line is entered, on the thread that prints it; may note. Set while
    // nothing prints.
    std::function<void()> before_line;

  private:
    struct Stream {
        Transcript* transcript;
        const char* mark;
        std::mutex mutex;
        std::string line;  // what came of the line so far; guarded by mutex
    };

    static FILE* open(Stream& stream) {
        FILE* file = fopencookie(
            &stream, "w", {.read = nullptr, .write = write, .seek = nullptr, .close = nullptr});
        std::setvbuf(file, nullptr, _IOLBF, BUFSIZ);
        return file;
    }

    static ssize_t write(void* cookie, const char* bytes, std::size_t size) {
        auto& stream = *static_cast<Stream*>(cookie);
        // The C library locks the stream as well, but the thread sanitizer does not see that.
        const std::lock_guard lock(stream.mutex);
        for (std::size_t i = 0; i < size; ++i) {
            if (bytes[i] == '\n') {
                stream.transcript->enter(stream);
            } else {
                stream.line += bytes[i];
            }
        }
        return static_cast<ssize_t>(size);
    }

    void enter(Stream& stream) {
        if (before_line) {
            before_line();
        }
        const std::lock_guard lock(mutex_);
        text_ += stream.mark + std::exchange(stream.line, {}) + '\n';
    }

    FILE* real_stdout_ = stdout;
    FILE* real_stderr_ = stderr;
    Stream out_{.transcript = this, .mark = "out: ", .mutex = {}, .line = {}};
    Stream err_{.transcript = this, .mark = "err: ", .mutex = {}, .line = {}};
    std::mutex mutex_;
    std::string text_;
};

}  // namespace vesper::test
