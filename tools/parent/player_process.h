// One player that runs as a child process, with its output captured.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vesper::tools {

// The player's command line.
struct PlayerArguments {
    std::uint16_t port = 0;
    std::uint16_t parent_port = 0;
    std::uint32_t streamer_id = 1;
    std::string username;
    int width = 0;   // pixels
    int height = 0;  // pixels
    bool has_audio = false;
    float volume = 1.0F;
    bool muted = false;
};

[[nodiscard]] std::vector<std::string> command_line(const std::string& program,
                                                    const PlayerArguments& arguments);

// One thread uses it. The child is in a process group of its own, so that Ctrl-C reaches only us
// and we end it, with all that it started there; if we die without doing so, the system ends it,
// but nothing that it started.
class PlayerProcess {
  public:
    // Called with each line that the player writes, without its newline. One of more than 64 KiB
    // comes in pieces of at most twice that.
    using LineHandler = std::function<void(std::string_view)>;

    PlayerProcess() = default;
    // Kills the player with its group, unless exit_status() has returned its status, and waits for
    // it.
    ~PlayerProcess();
    PlayerProcess(const PlayerProcess&) = delete;
    PlayerProcess& operator=(const PlayerProcess&) = delete;

    // Starts `command_line`, whose first word is the program's path. False, with a line on standard
    // error, when the system refuses to start a process or to execute that program.
    [[nodiscard]] bool start(const std::vector<std::string>& command_line);

    // Readable when there is output to read; -1 once the player closed it.
    [[nodiscard]] int output() const { return output_.fd; }
    [[nodiscard]] int errors() const { return errors_.fd; }

    // Read some of what the player has written to its standard output or standard error, without
    // waiting.
    void read_output(const LineHandler& line) { read_lines(output_, line); }
    void read_errors(const LineHandler& line) { read_lines(errors_, line); }

    // The player's exit status once it has ended, 128 + N if signal N ended it. Does not wait.
    [[nodiscard]] std::optional<int> exit_status();

    // -1 before start().
    [[nodiscard]] pid_t pid() const { return pid_; }

    // Asks the player and its group to end (SIGTERM), unless exit_status() has returned its status.
    void terminate() const;

  private:
    struct Stream {
        int fd = -1;
        std::string partial_line;
    };
    static void read_lines(Stream& stream, const LineHandler& line);

    pid_t pid_ = -1;
    std::optional<int> exit_status_;
    Stream output_;
    Stream errors_;
};

}  // namespace vesper::tools
