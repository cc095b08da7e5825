// Preloaded into the player where a test clicks. The control bar disappears two seconds after the
// last motion, and a click that the player takes later than that does nothing; on a busy machine
// that happens. While the player's SDL_GetTicks(), which it uses for the bar alone, stands still,
// the bar stays. SIGUSR1 lets it go on.
#include <SDL2/SDL.h>
#include <dlfcn.h>

#include <csignal>

namespace {

volatile std::sig_atomic_t ticks_stand_still = 1;

const bool signal_is_taken = [] {
    std::signal(SIGUSR1, [](int) { ticks_stand_still = 0; });
    return true;
}();

}  // namespace

extern "C" Uint32 SDLCALL SDL_GetTicks() {
    if (ticks_stand_still != 0) {
        return 0;
    }
    return reinterpret_cast<decltype(&SDL_GetTicks)>(::dlsym(RTLD_NEXT, "SDL_GetTicks"))();
}
