#include "player/control_bar.h"

#include <cmath>

#include "player/control_bar_layout.h"

namespace {

void set_color(SDL_Renderer* renderer, SDL_Color color) {
    SDL_SetRenderDrawColor(renderer, color.r, color.g, color.b, color.a);
}

void fill_rect(SDL_Renderer* renderer, SDL_Rect rect) {
    SDL_RenderFillRect(renderer, &rect);
}

void draw_background(SDL_Renderer* renderer, int w, int h) {
    set_color(renderer, {0, 0, 0, 180});
    fill_rect(renderer, {0, control_bar::top(h), w, control_bar::kHeight});
}

// A box and a cone that widens by one pixel each way every second column.
void draw_speaker(SDL_Renderer* renderer, int cy, bool muted) {
    using namespace control_bar;
    constexpr int half_height = kSpeakerHeight / 2;
    set_color(renderer, muted ? SDL_Color{200, 60, 60, 255} : SDL_Color{255, 255, 255, 255});
    fill_rect(renderer, {kSpeakerX, cy - half_height, kSpeakerWidth, kSpeakerHeight});
    for (int i = 0; i < kConeColumns; ++i) {
        const int half_column = half_height + i / 2;
        SDL_RenderDrawLine(renderer, kConeX + i, cy - half_column, kConeX + i, cy + half_column);
    }
}

// One pair of waves above a fifth of the volume, a second above one half.
void draw_sound_waves(SDL_Renderer* renderer, int cy, float volume) {
    set_color(renderer, {180, 180, 180, 200});
    if (volume > 0.2F) {
        SDL_RenderDrawLine(renderer, 30, cy - 4, 32, cy - 6);
        SDL_RenderDrawLine(renderer, 30, cy + 4, 32, cy + 6);
    }
    if (volume > 0.5F) {
        SDL_RenderDrawLine(renderer, 33, cy - 6, 36, cy - 9);
        SDL_RenderDrawLine(renderer, 33, cy + 6, 36, cy + 9);
    }
}

void draw_mute_stroke(SDL_Renderer* renderer, int cy) {
    set_color(renderer, {255, 80, 80, 255});
    SDL_RenderDrawLine(renderer, 8, cy + 12, 36, cy - 12);
    SDL_RenderDrawLine(renderer, 9, cy + 12, 37, cy - 12);
}

void draw_slider(SDL_Renderer* renderer, int w, int cy, float level) {
    using namespace control_bar;
    const int length = track_length(w);
    // A NaN volume, which the command line lets through, shows as an empty slider.
    const int fill = std::isnan(level) ? 0 : static_cast<int>(static_cast<float>(length) * level);
    constexpr int half_thickness = kTrackThickness / 2;
    constexpr int half_knob = kKnobSize / 2;

    set_color(renderer, {80, 80, 80, 255});
    fill_rect(renderer, {kTrackX, cy - half_thickness, length, kTrackThickness});
    set_color(renderer, {100, 180, 255, 255});
    fill_rect(renderer, {kTrackX, cy - half_thickness, fill, kTrackThickness});
    set_color(renderer, {255, 255, 255, 255});
    fill_rect(renderer, {kTrackX + fill - half_knob, cy - half_knob, kKnobSize, kKnobSize});
}

// Four corner marks, each a horizontal and a vertical arm. To enter fullscreen they sit on the
// box's corners and point inward; to leave it they are one arm further in, left and right, and
// their horizontal arms point outward.
void draw_fullscreen_icon(SDL_Renderer* renderer, int w, int cy, bool fullscreen) {
    constexpr int half_height = control_bar::kFullscreenIconHeight / 2;
    constexpr int arm = control_bar::kFullscreenIconArm;
    const int left = control_bar::fullscreen_icon_x(w);
    const int right = left + control_bar::kFullscreenIconWidth;
    const int corner_left = fullscreen ? left + arm : left;
    const int corner_right = fullscreen ? right - arm : right;
    const int end_left = fullscreen ? left : left + arm;
    const int end_right = fullscreen ? right : right - arm;

    set_color(renderer, {200, 200, 200, 255});
    for (const int side : {-1, 1}) {  // above, then below the centre line
        const int edge_y = cy + side * half_height;
        const int end_y = edge_y - side * arm;
        SDL_RenderDrawLine(renderer, corner_left, edge_y, end_left, edge_y);
        SDL_RenderDrawLine(renderer, corner_left, edge_y, corner_left, end_y);
        SDL_RenderDrawLine(renderer, corner_right, edge_y, end_right, edge_y);
        SDL_RenderDrawLine(renderer, corner_right, edge_y, corner_right, end_y);
    }
}

}  // namespace

void render_audio_bar(SDL_Renderer* renderer, int w, int h, bool muted, float volume,
                      bool fullscreen) {
    const int cy = control_bar::center_y(h);
    SDL_SetRenderDrawBlendMode(renderer, SDL_BLENDMODE_BLEND);
    draw_background(renderer, w, h);
    draw_speaker(renderer, cy, muted);
    if (!muted && volume > 0.0F) {
        draw_sound_waves(renderer, cy, volume);
    }
    if (muted) {
        draw_mute_stroke(renderer, cy);
    }
    draw_slider(renderer, w, cy, muted ? 0.0F : volume);
    draw_fullscreen_icon(renderer, w, cy, fullscreen);
}
