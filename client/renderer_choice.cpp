#include "client/renderer_choice.h"

#include <SDL2/SDL.h>

#include <string_view>
#include <system_error>

namespace vesper::client {

namespace {

// Whether `folder` has an entry whose name starts with `prefix`.
bool has_entry(const std::filesystem::path& folder, std::string_view prefix) {
    std::error_code error;
    std::filesystem::directory_iterator entry(folder, error);
    while (!error && entry != std::filesystem::directory_iterator()) {
        if (entry->path().filename().native().starts_with(prefix)) {
            return true;
        }
        entry.increment(error);
    }
    return false;
}

}  // namespace

bool has_graphics_device(const std::filesystem::path& devices) {
    return has_entry(devices / "dri", "renderD") || has_entry(devices, "nvidia");
}

void choose_renderer(const std::filesystem::path& devices) {
    const char* driver = SDL_GetCurrentVideoDriver();
    if (driver == nullptr || std::string_view(driver) != "x11" || has_graphics_device(devices)) {
        return;
    }
    SDL_SetHintWithPriority(SDL_HINT_RENDER_DRIVER, "software", SDL_HINT_DEFAULT);
    SDL_SetHintWithPriority(SDL_HINT_FRAMEBUFFER_ACCELERATION, "0", SDL_HINT_DEFAULT);
}

}  // namespace vesper::client
