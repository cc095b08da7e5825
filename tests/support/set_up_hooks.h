// Hooks for every call that sets a receiver up, and for those that release what it made. Include it
// in one source of a program that wraps vesper_set_up_functions.
#pragma once

#include <SDL2/SDL.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <thread>

#include "tests/support/hook.h"

// clang-format off: one hook a line
VESPER_HOOK(SDL_GetCurrentDisplayMode, int, (int display, SDL_DisplayMode* mode), (display, mode))
VESPER_HOOK(SDL_CreateWindow, SDL_Window*,
            (const char* title, int x, int y, int w, int h, Uint32 flags),
            (title, x, y, w, h, flags))
VESPER_HOOK(SDL_GetWindowID, Uint32, (SDL_Window * window), (window))
VESPER_HOOK(SDL_CreateRenderer, SDL_Renderer*, (SDL_Window * window, int index, Uint32 flags),
            (window, index, flags))
VESPER_HOOK(SDL_CreateTexture, SDL_Texture*,
            (SDL_Renderer * renderer, Uint32 format, int access, int w, int h),
            (renderer, format, access, w, h))
VESPER_HOOK(SDL_DestroyTexture, void, (SDL_Texture * texture), (texture))
VESPER_HOOK(SDL_DestroyRenderer, void, (SDL_Renderer * renderer), (renderer))
VESPER_HOOK(SDL_DestroyWindow, void, (SDL_Window * window), (window))
VESPER_HOOK(avcodec_find_decoder, const AVCodec*, (AVCodecID id), (id))
VESPER_HOOK(avcodec_alloc_context3, AVCodecContext*, (const AVCodec* codec), (codec))
VESPER_HOOK(avcodec_open2, int,
            (AVCodecContext * context, const AVCodec* codec, AVDictionary** options),
            (context, codec, options))
VESPER_HOOK(avcodec_free_context, void, (AVCodecContext * *context), (context))
VESPER_HOOK(av_frame_alloc, AVFrame*, (), ())
VESPER_HOOK(av_frame_free, void, (AVFrame * *frame), (frame))
VESPER_HOOK(av_packet_alloc, AVPacket*, (), ())
VESPER_HOOK(av_packet_free, void, (AVPacket * *packet), (packet))
// std::thread::_M_start_thread(), which every new std::thread calls.
VESPER_HOOK(_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE,
            void, (std::thread * thread, void* state, void (*depend)()), (thread, state, depend))
// clang-format on

namespace vesper::test {

static auto& hook_start_thread =
    hook__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE;
static const auto real_start_thread =
    __real__ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE;

}  // namespace vesper::test
