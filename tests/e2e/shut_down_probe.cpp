// Preloaded into the player where its end is tested. It writes the name of the renderer that SDL
// really made to the file that VESPER_RENDERER_FILE names, and turns SIGUSR1 into a quit event: the
// offscreen and dummy drivers have no window that could be closed, and weston offers no way to
// close one without a mouse.
#include <SDL2/SDL.h>
#include <dlfcn.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace {

volatile std::sig_atomic_t quit_is_due = 0;

const bool signal_is_taken = [] {
    std::signal(SIGUSR1, [](int) { quit_is_due = 1; });
    return true;
}();

// The function that the player would have called.
template <typename Function>
Function* real(Function*, const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

void report(SDL_Renderer* renderer) {
    SDL_RendererInfo info{};
    const char* name = std::getenv("VESPER_RENDERER_FILE");
    if (name == nullptr || renderer == nullptr || SDL_GetRendererInfo(renderer, &info) != 0) {
        return;
    }
    if (std::FILE* file = std::fopen(name, "w")) {
        std::fputs(info.name, file);
        std::fclose(file);
    }
}

}  // namespace

extern "C" SDL_Renderer* SDL_CreateRenderer(SDL_Window* window, int index, Uint32 flags) {
    SDL_Renderer* renderer = real(&SDL_CreateRenderer, "SDL_CreateRenderer")(window, index, flags);
    report(renderer);
    return renderer;
}

extern "C" int SDL_PollEvent(SDL_Event* event) {
    if (quit_is_due != 0) {
        quit_is_due = 0;
        SDL_Event quit{};
        quit.type = SDL_QUIT;
        SDL_PushEvent(&quit);
    }
    return real(&SDL_PollEvent, "SDL_PollEvent")(event);
}
