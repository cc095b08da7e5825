#include "tools/stream/streamer.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <span>
#include <utility>
#include <vector>

#include "tools/stream/receive_queue.h"
#include "tools/stream/vp8_repeat.h"

namespace vesper::tools {

namespace {

// Music and speech alike; a fifth above what the encoder starts with, for stereo.
constexpr int kSoundBitrate = 96'000;  // bit/s

// Largest Opus packet that libopus' manual recommends room for.
constexpr int kMaxOpusPacket = 4000;  // bytes

// The capacity of one frame's fragments.
constexpr std::size_t kMaxFrame =
    std::size_t{kMaxFragmentsPerFrame} * kMaxFragmentPayload;  // bytes

// A stream that is later than this no longer tries to catch up: better late than a burst of frames.
constexpr auto kHopelesslyLate = std::chrono::seconds(1);

}  // namespace

Clock::duration datagram_spacing(std::ptrdiff_t datagrams, Clock::duration room) {
    const auto spread = std::chrono::duration_cast<Clock::duration>(kSpread * room);
    return std::max(spread, Clock::duration::zero()) / datagrams;
}

Streamer::~Streamer() {
    stop();
}

bool Streamer::open(const StreamSettings& settings) {
    settings_ = settings;
    frame_interval_ = std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(1)) /
                      settings.video.frames_per_second;
    has_sound_ = source_.has_sound();
    repeat_ = make_repeat_frame(settings.video.width, settings.video.height);
    if (!video_encoder_.open(settings.video)) {
        return false;
    }
    if (!sound_encoder_.init(kSoundRate, kSoundChannels, OPUS_APPLICATION_AUDIO)) {
        std::fprintf(stderr, "libopus failed to make an encoder\n");
        return false;
    }
    sound_encoder_.set_bitrate(kSoundBitrate);
    return true;
}

void Streamer::start() {
    running_ = true;
    thread_ = std::thread([this] { run(); });
}

void Streamer::request_keyframe() {
    const std::lock_guard lock(mutex_);
    keyframe_requested_ = true;
    changed_.notify_one();
}

void Streamer::stop() {
    {
        const std::lock_guard lock(mutex_);
        running_ = false;
        changed_.notify_one();
    }
    if (thread_.joinable()) {
        thread_.join();
    }
}

bool Streamer::finished() const {
    const std::lock_guard lock(mutex_);
    return finished_;
}

Streamer::Counters Streamer::counters() const {
    const std::lock_guard lock(mutex_);
    return counters_;
}

void Streamer::run() {
    picture_due_ = sound_due_ = Clock::now();
    for (;;) {
        switch (wait_for_step()) {
            case Step::kPicture:
                stream_picture();
                break;
            case Step::kSound:
                stream_sound();
                break;
            case Step::kKeyframe:
                answer_with_keyframe();
                break;
            case Step::kStop:
                return;
        }
    }
}

Streamer::Step Streamer::wait_for_step() {
    const bool sound_first = has_sound_ && sound_due_ < picture_due_;
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, sound_first ? sound_due_ : picture_due_,
                        [this] { return !running_ || finished_ || keyframe_requested_; });
    if (!running_ || finished_) {
        return Step::kStop;
    }
    if (std::exchange(keyframe_requested_, false)) {
        return Step::kKeyframe;
    }
    return sound_first ? Step::kSound : Step::kPicture;
}

void Streamer::stream_picture() {
    catch_up();
    picture_ = source_.next_picture();
    if (!picture_) {
        const std::lock_guard lock(mutex_);
        finished_ = true;
        return;
    }
    picture_due_ += frame_interval_;
    send_picture(false, picture_due_);
}

// At most every other picture is skipped, so that something always moves.
void Streamer::catch_up() {
    const Clock::time_point now = Clock::now();
    if (now - picture_due_ > kHopelesslyLate) {
        picture_due_ = sound_due_ = now;
    }
    if (now - picture_due_ > frame_interval_ && source_.next_picture()) {
        picture_due_ += frame_interval_;
        const std::lock_guard lock(mutex_);
        ++counters_.skipped;
    }
}

void Streamer::stream_sound() {
    SoundFrame sound;
    has_sound_ = source_.next_sound(sound);
    if (!has_sound_) {
        return;
    }
    std::array<std::uint8_t, kMaxOpusPacket> packet{};
    const int size =
        sound_encoder_.encode(sound.data(), kSoundFrameSamples, packet.data(), kMaxOpusPacket);
    if (size > 0) {
        link_.send(
            sound_packetizer_.packetize(std::span(packet.data(), static_cast<std::size_t>(size))),
            sound_due_);
    }
    sound_due_ += std::chrono::milliseconds(kSoundFrameMilliseconds);
}

void Streamer::answer_with_keyframe() {
    if (!picture_) {
        return;  // the first frame is a keyframe anyway
    }
    link_.hurry();
    last_datagram_due_ = Clock::now();
    send_picture(true, Clock::now() + frame_interval_);
    const std::lock_guard lock(mutex_);
    ++counters_.answers;
}

void Streamer::send_picture(bool keyframe, Clock::time_point until) {
    std::vector<Datagram> datagrams = encode_picture(keyframe);
    if (datagrams.empty()) {
        return;
    }
    const bool repeated = settings_.low_delay && keeps_up(link_.player_port());
    // The previous frame may not have been sent yet.
    const Clock::time_point from = std::max(Clock::now(), last_datagram_due_);
    const Clock::duration spacing = settings_.burst
                                        ? Clock::duration::zero()
                                        : datagram_spacing(std::ssize(datagrams), until - from);
    Clock::time_point due = from;
    for (Datagram& datagram : datagrams) {
        link_.send(std::move(datagram), due);
        last_datagram_due_ = due;
        due += spacing;
    }
    if (repeated) {
        for (Datagram& datagram : packetize(repeat_)) {
            link_.send(std::move(datagram), last_datagram_due_);
        }
    }
}

// The datagrams of the newest picture; none, with a line, when it cannot be sent.
std::vector<Datagram> Streamer::encode_picture(bool keyframe) {
    const std::vector<std::uint8_t> encoded = video_encoder_.encode(picture_, keyframe);
    if (encoded.size() > kMaxFrame) {
        std::fprintf(stderr, "a frame of %zu bytes is too large to send\n", encoded.size());
        return {};
    }
    return encoded.empty() ? std::vector<Datagram>{} : packetize(encoded);
}

std::vector<Datagram> Streamer::packetize(std::span<const std::uint8_t> frame) {
    const std::lock_guard lock(mutex_);
    ++counters_.frames;
    return video_packetizer_.packetize(frame);
}

}  // namespace vesper::tools
