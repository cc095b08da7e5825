// A program run by a test, with its output captured. It never outlives the test.
#pragma once

#include <sys/types.h>

#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vesper::test {

// How a process ended: by itself with a status, or by a signal.
struct Ending {
    int status = 0;
    int signal = 0;  // 0: none

    friend bool operator==(const Ending&, const Ending&) = default;
    friend std::ostream& operator<<(std::ostream& stream, const Ending& ending);
};

// One thread at a time uses an object. The kernel kills the child when the thread that made it
// ends, however the test ends.
class ChildProcess {
  public:
    enum class Output {
        Separate,  // out() and err() return one stream each
        Merged,    // out() returns both, in the order of the writes; err() stays empty
    };
    using Environment = std::map<std::string, std::string>;

    // Runs `command`, found through PATH, in the test's environment changed by `environment`.
    // Throws std::system_error when no process or pipe is available; a program that cannot be run
    // ends with status 127.
    explicit ChildProcess(const std::vector<std::string>& command,
                          const Environment& environment = {}, Output output = Output::Separate);
    // Kills the process if it still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }

    // Everything written so far. Never waits.
    [[nodiscard]] const std::string& out();
    [[nodiscard]] const std::string& err();

    void send_signal(int signal) const;

    // How the process ended; nothing while it runs.
    [[nodiscard]] std::optional<Ending> ending();

    // Waits for the end. Nothing when the process still runs after kPatience.
    [[nodiscard]] std::optional<Ending> wait_for_end();

  private:
    // The reading end of a pipe, and what has been read from it.
    struct Capture {
        int descriptor = -1;
        std::string text;
        void drain();
    };

    pid_t pid_ = -1;
    std::optional<Ending> ending_;
    Capture out_;
    Capture err_;
};

// Lets the programs of `environment` load `library`, the path of a file, before all others but
// those that are preloaded already. The folder's name may contain anything but a colon or
// semicolon.
void preload(ChildProcess::Environment& environment, const std::string& library);

}  // namespace vesper::test
