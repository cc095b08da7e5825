#include "tools/parent/player_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <utility>

namespace vesper::tools {

namespace {

constexpr int kSignalBase = 128;     // as a shell reports a death by signal
constexpr int kCannotExecute = 127;  // as a shell reports a program that it could not start

// What a pipe holds (pipe(7)). No more is read at once, so that a player that never stops writing
// does not keep us from the rest, and no more is kept of a line that does not end.
constexpr std::size_t kPipeSize = 65'536;  // bytes

// The child's end of a pipe that exec closes; if that fails, its error number goes through.
constexpr int kReport = STDERR_FILENO + 1;

// In the child, between fork and exec: only calls that are safe there.
[[noreturn]] void become(char* const* arguments, int output, int errors, int report, pid_t parent) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // SIGTERM could be ignored
    if (getppid() != parent) {
        _exit(kCannotExecute);  // it died before we could ask to be notified
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    dup2(output, STDOUT_FILENO);
    dup2(errors, STDERR_FILENO);
    dup3(report, kReport, O_CLOEXEC);  // refused where it is there already, and closed on exec
    // The child must not inherit our sockets and captures: a port that we close must be free.
    // Unlike close_range(), this works on every system.
    closefrom(kReport + 1);
    execv(arguments[0], arguments);
    const int reason = errno;
    [[maybe_unused]] const ssize_t written = write(kReport, &reason, sizeof reason);
    _exit(kCannotExecute);
}

}  // namespace

std::vector<std::string> command_line(const std::string& program,
                                      const PlayerArguments& arguments) {
    std::vector<std::string> line = {program,
                                     "--port",
                                     std::to_string(arguments.port),
                                     "--streamer-id",
                                     std::to_string(arguments.streamer_id),
                                     "--username",
                                     arguments.username,
                                     "--width",
                                     std::to_string(arguments.width),
                                     "--height",
                                     std::to_string(arguments.height),
                                     "--parent-port",
                                     std::to_string(arguments.parent_port),
                                     "--audio-volume",
                                     std::to_string(arguments.volume)};
    if (arguments.has_audio) {
        line.emplace_back("--has-audio");
    }
    if (arguments.muted) {
        line.emplace_back("--audio-muted");
    }
    return line;
}

PlayerProcess::~PlayerProcess() {
    if (pid_ > 0 && !exit_status_) {  // so the number is still its group's, even if it is dead
        kill(-pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    for (const Stream& stream : {std::cref(output_), std::cref(errors_)}) {
        if (stream.fd >= 0) {
            close(stream.fd);
        }
    }
}

bool PlayerProcess::start(const std::vector<std::string>& command_line) {
    std::vector<char*> arguments;
    arguments.reserve(command_line.size() + 1);
    for (const std::string& word : command_line) {
        arguments.push_back(const_cast<char*>(word.c_str()));  // exec only reads them
    }
    arguments.push_back(nullptr);

    std::array<int, 2> output{};
    std::array<int, 2> errors{};
    std::array<int, 2> report{};
    if (pipe2(output.data(), O_CLOEXEC) < 0 || pipe2(errors.data(), O_CLOEXEC) < 0 ||
        pipe2(report.data(), O_CLOEXEC) < 0) {
        std::fprintf(stderr, "vesper-parent: cannot make a pipe: %s\n", std::strerror(errno));
        return false;
    }
    const pid_t self = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        become(arguments.data(), output[1], errors[1], report[1], self);
    }
    close(output[1]);
    close(errors[1]);
    close(report[1]);
    output_.fd = output[0];
    errors_.fd = errors[0];
    fcntl(output_.fd, F_SETFL, O_NONBLOCK);
    fcntl(errors_.fd, F_SETFL, O_NONBLOCK);
    if (pid_ < 0) {
        std::fprintf(stderr, "vesper-parent: cannot start a process: %s\n", std::strerror(errno));
        close(report[0]);
        return false;
    }
    int reason = 0;
    const bool refused = read(report[0], &reason, sizeof reason) == sizeof reason;
    close(report[0]);
    if (refused) {
        std::fprintf(stderr, "vesper-parent: %s cannot be executed: %s\n", arguments[0],
                     std::strerror(reason));
    }
    return !refused;
}

void PlayerProcess::read_lines(Stream& stream, const LineHandler& line) {
    if (stream.fd < 0) {
        return;
    }
    std::array<char, kPipeSize> buffer{};
    const ssize_t length = read(stream.fd, buffer.data(), buffer.size());
    if (length > 0) {
        stream.partial_line.append(buffer.data(), static_cast<std::size_t>(length));
    }
    std::size_t end = 0;
    while ((end = stream.partial_line.find('\n')) != std::string::npos) {
        line(std::string_view(stream.partial_line).substr(0, end));
        stream.partial_line.erase(0, end + 1);
    }
    const bool ended = length == 0;
    if (!stream.partial_line.empty() && (ended || stream.partial_line.size() >= kPipeSize)) {
        line(std::exchange(stream.partial_line, {}));
    }
    if (ended) {
        close(stream.fd);
        stream.fd = -1;
    }
}

std::optional<int> PlayerProcess::exit_status() {
    int status = 0;
    if (!exit_status_ && pid_ > 0 && waitpid(pid_, &status, WNOHANG) == pid_) {
        exit_status_ = WIFSIGNALED(status) ? kSignalBase + WTERMSIG(status) : WEXITSTATUS(status);
    }
    return exit_status_;
}

void PlayerProcess::terminate() const {
    if (pid_ > 0 && !exit_status_) {
        kill(-pid_, SIGTERM);
    }
}

}  // namespace vesper::tools
