// One SDL audio device in queue mode: PCM is pushed into (playback) or pulled out of (capture)
// SDL's own queue, which SDL's audio thread drains or fills. Reading and writing never wait for
// sound; close() waits for SDL's audio thread, a few device buffers.
//
// Sample counts are counts of single 16-bit values, all channels together. SDL's audio subsystem
// must be up before open() or list_devices(). No lock of its own; SDL's queue calls are
// thread-safe, open and close belong to one thread. Only open() prints.
#pragma once

#include <SDL2/SDL_audio.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vesper::client {

class AudioDevice {
  public:
    enum Mode : std::int32_t {
        Capture = 0,   // only read_samples() moves data
        Playback = 1,  // only write_samples() moves data
    };

    AudioDevice() = default;
    // Closes the device.
    ~AudioDevice();
    AudioDevice(const AudioDevice&) = delete;
    AudioDevice& operator=(const AudioDevice&) = delete;

    // Closes any open device, then opens and starts one for 16-bit samples at `sample_rate` Hz with
    // `channels` channels and a device buffer of `samples` sample frames; SDL converts where the
    // hardware differs. `device_name` null means the system's default. On success prints the
    // obtained format on standard output; on failure prints SDL's reason on standard error, returns
    // false and stays closed, remembering the requested direction.
    [[nodiscard]] bool open(Mode direction, int sample_rate, int channels, int samples,
                            const char* device_name);

    // Closes the device and drops what is queued. Does nothing when closed.
    void close();

    // Moves at most `max_samples` captured values into `out`. Returns how many; 0 when none wait,
    // when closed, or on a playback device.
    int read_samples(short* out, int max_samples);

    // Queues `count` values, 0 or more, for playback. Silently drops them when closed, when
    // capturing and when SDL cannot queue them.
    void write_samples(const short* samples, int count);

    // Bytes waiting in SDL's queue; 0 when closed.
    [[nodiscard]] std::uint32_t get_queued_size() const;

    // Drops what waits in SDL's queue.
    void clear_queue();

    // Pauses or resumes the device; the queue is kept.
    void pause(bool paused);

    // Names of the system's devices of one direction; empty when SDL cannot list them.
    [[nodiscard]] static std::vector<std::string> list_devices(Mode direction);

  private:
    friend struct AudioDevicePeer;  // the tests' one way in

    SDL_AudioDeviceID device_id = 0;  // 0: closed
    Mode mode = Playback;             // direction of the last open()
};

}  // namespace vesper::client
