// The control bar over the picture: speaker, volume slider, fullscreen icon, drawn with plain
// rectangles and lines. The main loop decides whether it is shown.
#pragma once

#include <SDL2/SDL_render.h>

// Draws the bar along the bottom of a window of `w` x `h` pixels: `muted` as a struck-out red
// speaker with an empty slider, otherwise `volume` (0.0 to 1.0; a NaN shows as 0) as waves and
// slider level; `fullscreen` chooses the icon's shape. Draws on the renderer's current target and
// leaves draw colour and blend mode changed. SDL's results are ignored. Main thread.
void render_audio_bar(SDL_Renderer* renderer, int w, int h, bool muted, float volume,
                      bool fullscreen);
