// Runs a command in the environment that own_environment.cpp makes, and ends as it does:
//
//   in_own_environment COMMAND [ARGUMENT]...
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

int main(int /*count*/, char** arguments) {
    pid_t process = 0;
    const int error =
        ::posix_spawnp(&process, arguments[1], nullptr, nullptr, arguments + 1, environ);
    if (error != 0) {
        std::fprintf(stderr, "%s: %s\n", arguments[1], std::strerror(error));
        return 127;  // as a shell reports it
    }
    int status = 0;
    while (::waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
