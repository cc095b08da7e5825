// Preloaded: records the time of each SDL_Delay(), then delays as usual.
#include "bench/player/pass_log.h"

#include <SDL2/SDL_timer.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace {

using vesper::bench::PassLog;

PassLog* open_log() {
    const char* path = std::getenv(vesper::bench::kPassLogVariable);
    const int descriptor = path == nullptr ? -1 : ::open(path, O_RDWR | O_CLOEXEC);
    void* memory =
        ::mmap(nullptr, sizeof(PassLog), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (memory == MAP_FAILED) {
        std::fprintf(stderr, "no pass log\n");
        std::abort();
    }
    ::close(descriptor);
    return static_cast<PassLog*>(memory);
}

}  // namespace

// NOLINTNEXTLINE: the name is SDL's.
extern "C" void SDL_Delay(Uint32 ms) {
    static PassLog* const log = open_log();
    static const auto real = reinterpret_cast<void (*)(Uint32)>(::dlsym(RTLD_NEXT, "SDL_Delay"));
    const std::uint64_t pass = log->passes;
    log->times[pass % PassLog::kTimes] =
        std::chrono::steady_clock::now().time_since_epoch().count();
    log->passes = pass + 1;
    real(ms);
}
