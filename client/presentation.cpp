// The newest picture on the window.
#include <algorithm>
#include <cstdio>
#include <utility>

#include "client/picture_format.h"
#include "client/video_receiver.h"

namespace vesper::client {

namespace {

// The stream-ended overlay, in renderer output pixels: a framed box with a square in it.
constexpr int kEndedBoxMaxWidth = 400;
constexpr int kEndedBoxHeight = 80;
constexpr int kEndedBoxMargin = 100;  // left and right of the box together, in a narrow window
constexpr int kEndedFrameThickness = 3;
constexpr int kEndedMarkSize = 24;

}  // namespace

void VideoReceiver::render() {
    if (!has_sdl_objects() || nothing_to_draw()) {
        return;
    }
    upload_new_picture();
    SDL_RenderClear(renderer);
    // Always the whole target, stretched: the viewer chose the window's shape.
    if (zoom_enabled && zoom_w >= 1 && zoom_h >= 1) {
        const SDL_Rect visible = {.x = zoom_x, .y = zoom_y, .w = zoom_w, .h = zoom_h};
        SDL_RenderCopy(renderer, texture, &visible, nullptr);
    } else {
        SDL_RenderCopy(renderer, texture, nullptr, nullptr);
    }
    if (stream_ended) {
        render_stream_ended_overlay();
    }
    if (overlay_callback) {
        int width = 0;
        int height = 0;
        SDL_GetWindowSize(window, &width, &height);
        overlay_callback(renderer, width, height);
    }
    SDL_RenderPresent(renderer);
}

void VideoReceiver::update() {
    if (condemned) {
        std::printf("[RECV UPDATE] uid=%u SKIPPED: condemned\n", uid);
        return;
    }
    if (!has_sdl_objects()) {
        std::printf("[RECV UPDATE] uid=%u SKIPPED: null SDL (window=%p, renderer=%p, texture=%p)\n",
                    uid, static_cast<void*>(window), static_cast<void*>(renderer),
                    static_cast<void*>(texture));
        return;
    }
    if (nothing_to_draw()) {
        return;
    }
    upload_new_picture();
    SDL_RenderClear(renderer);
    SDL_RenderCopy(renderer, texture, nullptr, nullptr);
    if (stream_ended) {
        render_stream_ended_overlay();
    }
    SDL_RenderPresent(renderer);
}

bool VideoReceiver::has_sdl_objects() const {
    return window != nullptr && renderer != nullptr && texture != nullptr;
}

// Neither live nor ended with a last picture to show.
bool VideoReceiver::nothing_to_draw() const {
    return !running && !stream_ended;
}

// Under picture_mutex, so the decode thread waits for at most one upload. Once the stream has ended
// the texture keeps the last picture that was uploaded.
void VideoReceiver::upload_new_picture() {
    if (!running) {
        return;
    }
    const std::lock_guard lock(picture_mutex);
    if (picture_ready) {
        SDL_UpdateTexture(texture, nullptr, picture.data(), picture_pitch(frame_width_));
        picture_ready = false;
    }
}

void VideoReceiver::render_stream_ended_overlay() {
    int width = 0;
    int height = 0;
    SDL_GetRendererOutputSize(renderer, &width, &height);
    SDL_SetRenderDrawBlendMode(renderer, SDL_BLENDMODE_BLEND);

    SDL_SetRenderDrawColor(renderer, 0, 0, 0, 180);
    const SDL_Rect everything = {.x = 0, .y = 0, .w = width, .h = height};
    SDL_RenderFillRect(renderer, &everything);

    SDL_SetRenderDrawColor(renderer, 255, 255, 255, 255);
    const int box_width = std::min(width - kEndedBoxMargin, kEndedBoxMaxWidth);
    const int box_x = (width - box_width) / 2;
    const int box_y = (height - kEndedBoxHeight) / 2;
    for (int i = 0; i < kEndedFrameThickness; ++i) {
        const SDL_Rect outline = {
            .x = box_x - i, .y = box_y - i, .w = box_width + 2 * i, .h = kEndedBoxHeight + 2 * i};
        SDL_RenderDrawRect(renderer, &outline);
    }

    SDL_SetRenderDrawColor(renderer, 200, 200, 200, 255);
    const SDL_Rect mark = {.x = (width - kEndedMarkSize) / 2,
                           .y = (height - kEndedMarkSize) / 2,
                           .w = kEndedMarkSize,
                           .h = kEndedMarkSize};
    SDL_RenderFillRect(renderer, &mark);
}

void VideoReceiver::set_zoom_rect(bool enabled, int x, int y, int w, int h) {
    zoom_enabled = enabled;
    zoom_x = x;
    zoom_y = y;
    zoom_w = w;
    zoom_h = h;
}

void VideoReceiver::set_overlay_callback(OverlayCallback callback) {
    overlay_callback = std::move(callback);
}

}  // namespace vesper::client
