#include "tests/support/child_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <ostream>
#include <system_error>

#include "tests/support/eventually.h"

namespace vesper::test {

namespace {

constexpr int kCannotRun = 127;  // as a shell reports it

struct Pipe {
    int read_end;
    int write_end;
};

Pipe make_pipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::system_error(errno, std::generic_category(), "pipe2");
    }
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    return {.read_end = ends[0], .write_end = ends[1]};
}

// In the child, where only calls that are safe after a fork are allowed before the exec.
[[noreturn]] void become(char* const* arguments, char* const* environment, pid_t parent,
                         int out_descriptor, int err_descriptor) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {
        ::_exit(kCannotRun);  // the test ended between fork and prctl
    }
    ::dup2(out_descriptor, STDOUT_FILENO);
    ::dup2(err_descriptor, STDERR_FILENO);
    // The child must not inherit the test's sockets: a port that the test closes must be free.
    ::closefrom(STDERR_FILENO + 1);
    ::execvpe(arguments[0], arguments, environment);
    ::_exit(kCannotRun);
}

std::vector<char*> pointers_to(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

// "NAME=value" entries: the test's own environment, with `changes` in place of what they replace.
std::vector<std::string> environment_with(const ChildProcess::Environment& changes) {
    std::vector<std::string> entries;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (!changes.contains(text.substr(0, text.find('=')))) {
            entries.push_back(text);
        }
    }
    for (const auto& [name, value] : changes) {
        entries.push_back(name + "=" + value);
    }
    return entries;
}

Ending ending_of(int wait_status) {
    if (WIFSIGNALED(wait_status)) {
        return {.status = 0, .signal = WTERMSIG(wait_status)};
    }
    return {.status = WEXITSTATUS(wait_status), .signal = 0};
}

}  // namespace

std::ostream& operator<<(std::ostream& stream, const Ending& ending) {
    if (ending.signal != 0) {
        return stream << "ended by signal " << ending.signal;
    }
    return stream << "ended with status " << ending.status;
}

ChildProcess::ChildProcess(const std::vector<std::string>& command, const Environment& environment,
                           Output output) {
    std::vector<std::string> arguments = command;
    std::vector<std::string> entries = environment_with(environment);
    const std::vector<char*> argument_pointers = pointers_to(arguments);
    const std::vector<char*> entry_pointers = pointers_to(entries);
    const Pipe out = make_pipe();
    const Pipe err = make_pipe();
    out_.descriptor = out.read_end;
    err_.descriptor = err.read_end;
    const int err_descriptor = output == Output::Merged ? out.write_end : err.write_end;

    const pid_t parent = ::getpid();
    pid_ = ::fork();
    if (pid_ == 0) {
        become(argument_pointers.data(), entry_pointers.data(), parent, out.write_end,
               err_descriptor);
    }
    ::close(out.write_end);
    ::close(err.write_end);
    if (pid_ < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
}

ChildProcess::~ChildProcess() {
    if (!ending()) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    ::close(out_.descriptor);
    ::close(err_.descriptor);
}

void ChildProcess::Capture::drain() {
    std::array<char, 4096> buffer;
    ssize_t length = 0;
    while ((length = ::read(descriptor, buffer.data(), buffer.size())) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(length));
    }
}

const std::string& ChildProcess::out() {
    out_.drain();
    return out_.text;
}

const std::string& ChildProcess::err() {
    err_.drain();
    return err_.text;
}

void ChildProcess::send_signal(int signal) const {
    ::kill(pid_, signal);
}

std::optional<Ending> ChildProcess::ending() {
    int wait_status = 0;
    if (!ending_ && ::waitpid(pid_, &wait_status, WNOHANG) == pid_) {
        ending_ = ending_of(wait_status);
    }
    return ending_;
}

std::optional<Ending> ChildProcess::wait_for_end() {
    // The pipes are drained meanwhile, so that a talkative child does not block.
    (void)eventually([this] {
        out_.drain();
        err_.drain();
        return ending().has_value();
    });
    return ending_;
}

// ld.so(8) splits LD_PRELOAD at spaces, too, but LD_LIBRARY_PATH only at colons and semicolons.
void preload(ChildProcess::Environment& environment, const std::string& library) {
    const std::filesystem::path path(library);
    std::string& names = environment["LD_PRELOAD"];
    names.append(names.empty() ? "" : ":").append(path.filename());
    const char* const inherited = std::getenv("LD_LIBRARY_PATH");
    std::string& folders = environment["LD_LIBRARY_PATH"];
    if (folders.empty() && inherited != nullptr) {
        folders = inherited;
    }
    // An empty entry would be the current folder.
    folders = path.parent_path().string() + (folders.empty() ? "" : ":" + folders);
}

}  // namespace vesper::test
