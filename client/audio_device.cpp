#include "client/audio_device.h"

#include <SDL2/SDL.h>

#include <algorithm>
#include <cstdio>

namespace vesper::client {

namespace {

constexpr int kBytesPerSample = 2;

// SDL must deliver exactly the format asked for and convert internally.
constexpr int kNoAllowedChanges = 0;

int iscapture(AudioDevice::Mode direction) {
    return direction == AudioDevice::Capture ? 1 : 0;
}

}  // namespace

AudioDevice::~AudioDevice() {
    close();
}

bool AudioDevice::open(Mode direction, int sample_rate, int channels, int samples,
                       const char* device_name) {
    close();
    mode = direction;

    SDL_AudioSpec desired{};
    SDL_AudioSpec obtained{};
    desired.freq = sample_rate;
    desired.format = AUDIO_S16LSB;
    desired.channels = static_cast<Uint8>(channels);
    desired.samples = static_cast<Uint16>(samples);
    desired.callback = nullptr;  // queue mode

    device_id =
        SDL_OpenAudioDevice(device_name, iscapture(mode), &desired, &obtained, kNoAllowedChanges);
    if (device_id == 0) {
        std::fprintf(stderr, "[Audio] Failed to open device: %s\n", SDL_GetError());
        return false;
    }
    std::printf("[Audio] Opened %s device: %d Hz, %d ch, %d samples\n",
                iscapture(mode) != 0 ? "capture" : "playback", obtained.freq, obtained.channels,
                obtained.samples);
    SDL_PauseAudioDevice(device_id, 0);  // SDL opens devices paused
    return true;
}

void AudioDevice::close() {
    if (device_id != 0) {
        SDL_CloseAudioDevice(device_id);
        device_id = 0;
    }
}

int AudioDevice::read_samples(short* out, int max_samples) {
    if (device_id == 0 || mode != Capture) {
        return 0;
    }
    const int available = static_cast<int>(SDL_GetQueuedAudioSize(device_id) / kBytesPerSample);
    const int wanted = std::min(available, max_samples);
    if (wanted <= 0) {
        return 0;
    }
    const Uint32 bytes =
        SDL_DequeueAudio(device_id, out, static_cast<Uint32>(wanted) * kBytesPerSample);
    return static_cast<int>(bytes / kBytesPerSample);
}

void AudioDevice::write_samples(const short* samples, int count) {
    if (device_id != 0 && mode == Playback) {
        SDL_QueueAudio(device_id, samples, static_cast<Uint32>(count) * kBytesPerSample);
    }
}

std::uint32_t AudioDevice::get_queued_size() const {
    return device_id == 0 ? 0 : SDL_GetQueuedAudioSize(device_id);
}

void AudioDevice::clear_queue() {
    if (device_id != 0) {
        SDL_ClearQueuedAudio(device_id);
    }
}

void AudioDevice::pause(bool paused) {
    if (device_id != 0) {
        SDL_PauseAudioDevice(device_id, paused ? 1 : 0);
    }
}

std::vector<std::string> AudioDevice::list_devices(Mode direction) {
    std::vector<std::string> names;
    const int count = SDL_GetNumAudioDevices(iscapture(direction));
    for (int index = 0; index < count; ++index) {
        if (const char* name = SDL_GetAudioDeviceName(index, iscapture(direction))) {
            names.emplace_back(name);
        }
    }
    return names;
}

}  // namespace vesper::client
