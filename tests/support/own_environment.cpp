// Part of every test program: before anything else runs, the process replaces the environment that
// it was started in by one of its own, which the programs that it starts inherit. It contains no
// session bus, sound server, display or compositor of the user's, no locale, time zone, SDL setting
// or preloaded library; HOME and XDG_RUNTIME_DIR are an empty folder that is deleted with the
// process; standard input is empty; no signal is ignored or blocked. A test adds what it needs.
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/temporary_folder.h"

namespace vesper::test {

namespace {

// The locations of programs, libraries, packages and temporary files, and the variables by which
// users control a test.
constexpr std::array<std::string_view, 9> kKept = {
    "PATH=",   "LD_LIBRARY_PATH=", "CMAKE_PREFIX_PATH=", "PKG_CONFIG_PATH=",
    "TMPDIR=", "http_proxy=",      "https_proxy=",       "GTEST_",
    "VESPER_",
};

constexpr std::array<int, 7> kSignals = {SIGHUP,  SIGINT,  SIGQUIT, SIGTERM,
                                         SIGPIPE, SIGCHLD, SIGUSR1};

std::vector<std::string> kept_entries() {
    std::vector<std::string> kept;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        for (const std::string_view start : kKept) {
            if (text.starts_with(start)) {
                kept.emplace_back(text);
            }
        }
    }
    return kept;
}

// The functions are such as no test wraps, and need no other object to be there.
class OwnEnvironment {
  public:
    OwnEnvironment() {
        const std::vector<std::string> kept = kept_entries();
        ::clearenv();
        for (const std::string& entry : kept) {
            const std::size_t equals = entry.find('=');
            set(entry.substr(0, equals).c_str(), entry.substr(equals + 1).c_str());
        }
        set("HOME", folder_->path().c_str());
        set("XDG_RUNTIME_DIR", folder_->path().c_str());
        set("TZ", "UTC0");
        // Without an address libdbus looks for a bus, and starts one where it finds none.
        set("DBUS_SESSION_BUS_ADDRESS", "disabled:");
        set("DBUS_SYSTEM_BUS_ADDRESS", "disabled:");
        // Without a name SDL takes the first driver that works.
        set("SDL_VIDEODRIVER", "dummy");
        set("SDL_AUDIODRIVER", "dummy");

        if (std::freopen("/dev/null", "r", stdin) == nullptr) {
            std::abort();
        }
        struct sigaction by_default = {};
        by_default.sa_handler = SIG_DFL;
        sigset_t none;
        ::sigemptyset(&none);
        for (const int signal : kSignals) {
            ::sigaction(signal, &by_default, nullptr);
        }
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
    }

    ~OwnEnvironment() {
        // A child of a fork that ends by itself leaves the folder to its parent.
        if (::getpid() != owner_) {
            (void)folder_.release();
        }
    }

  private:
    static void set(const char* name, const char* value) { ::setenv(name, value, 1); }

    std::unique_ptr<TemporaryFolder> folder_ = std::make_unique<TemporaryFolder>();
    pid_t owner_ = ::getpid();
};

// Before every other object of the program.
[[gnu::init_priority(101)]] OwnEnvironment own_environment;

}  // namespace

}  // namespace vesper::test
