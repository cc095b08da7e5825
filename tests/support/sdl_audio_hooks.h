// Hooks for SDL's audio calls, and a fake sound card built from them. Include it in one source of a
// program that wraps every function named here.
#pragma once

#include <SDL2/SDL.h>

#include <string>
#include <vector>

#include "tests/support/hook.h"

VESPER_HOOK(SDL_OpenAudioDevice, SDL_AudioDeviceID,
            (const char* device, int iscapture, const SDL_AudioSpec* desired,
             SDL_AudioSpec* obtained, int allowed_changes),
            (device, iscapture, desired, obtained, allowed_changes))
VESPER_HOOK(SDL_CloseAudioDevice, void, (SDL_AudioDeviceID device), (device))
VESPER_HOOK(SDL_PauseAudioDevice, void, (SDL_AudioDeviceID device, int pause_on),
            (device, pause_on))
VESPER_HOOK(SDL_QueueAudio, int, (SDL_AudioDeviceID device, const void* data, Uint32 bytes),
            (device, data, bytes))
VESPER_HOOK(SDL_DequeueAudio, Uint32, (SDL_AudioDeviceID device, void* data, Uint32 bytes),
            (device, data, bytes))
VESPER_HOOK(SDL_GetQueuedAudioSize, Uint32, (SDL_AudioDeviceID device), (device))
VESPER_HOOK(SDL_ClearQueuedAudio, void, (SDL_AudioDeviceID device), (device))
VESPER_HOOK(SDL_GetNumAudioDevices, int, (int iscapture), (iscapture))
VESPER_HOOK(SDL_GetAudioDeviceName, const char*, (int index, int iscapture), (index, iscapture))

namespace vesper::test {

inline constexpr SDL_AudioDeviceID kFakeDevice = 7;

// Points the hooks at a card that grants every format, keeps nothing and appends every call to
// `calls`, which must outlive the test's calls.
inline void use_fake_sound_card(std::vector<std::string>& calls) {
    const auto id = [](SDL_AudioDeviceID device) { return std::to_string(device); };
    hook_SDL_OpenAudioDevice = [&calls](const char* device, int iscapture,
                                        const SDL_AudioSpec* desired, SDL_AudioSpec* obtained,
                                        int) -> SDL_AudioDeviceID {
        calls.push_back(std::string("open ") + (iscapture != 0 ? "capture " : "playback ") +
                        (device == nullptr ? "default" : device));
        *obtained = *desired;
        return kFakeDevice;
    };
    hook_SDL_CloseAudioDevice = [&calls, id](auto device) {
        calls.push_back("close " + id(device));
    };
    hook_SDL_PauseAudioDevice = [&calls, id](auto device, int pause_on) {
        calls.push_back("pause " + id(device) + " " + std::to_string(pause_on));
    };
    hook_SDL_QueueAudio = [&calls, id](auto device, const void*, Uint32 bytes) {
        calls.push_back("queue " + id(device) + " " + std::to_string(bytes) + " bytes");
        return 0;
    };
    hook_SDL_DequeueAudio = [&calls, id](auto device, void*, Uint32 bytes) {
        calls.push_back("dequeue " + id(device) + " " + std::to_string(bytes) + " bytes");
        return bytes;
    };
    hook_SDL_GetQueuedAudioSize = [&calls, id](auto device) -> Uint32 {
        calls.push_back("queued size " + id(device));
        return 0;
    };
    hook_SDL_ClearQueuedAudio = [&calls, id](auto device) {
        calls.push_back("clear " + id(device));
    };
}

}  // namespace vesper::test
