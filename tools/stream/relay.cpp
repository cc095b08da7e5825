#include "tools/stream/relay.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <span>
#include <utility>

#include "net/stream_datagrams.h"
#include "tools/stream/libav.h"
#include "tools/stream/opus_packets.h"
#include "tools/stream/receive_queue.h"
#include "tools/stream/vp8_repeat.h"

namespace vesper::tools {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr AVRational kMicroseconds = {.num = 1, .den = 1'000'000};

// An input that delivers nothing at all for so long when it is opened has no sender.
constexpr auto kOpenTimeout = seconds(10);

// A live input that is silent for so long is worth a line: it looks the same as a still picture.
constexpr auto kSilence = seconds(5);

// Pause before reading again from an input that had nothing and did not wait.
constexpr auto kPauseBetweenTries = milliseconds(10);

// Of a file, read so much ahead that a slow disk is not noticed; where only one of two streams has
// come, more, since a file may hold a long stretch of the one before it holds the other.
constexpr auto kReadAhead = seconds(2);
constexpr auto kReadAheadForOther = seconds(30);
constexpr std::size_t kMaxQueued = 64U << 20U;  // bytes

// Longest time to spread a frame's datagrams over. The player gives a frame up after 250 ms.
constexpr auto kLongestSpread = milliseconds(100);

// A longer pause between two pictures does not show how long the last ones last.
constexpr auto kLongestStep = seconds(1);

// Sound of a live input that had to wait for longer than this, because a player was starting, is
// left out: the player would play it, and be late by as much for good.
constexpr auto kStaleSound = milliseconds(100);

// A picture of a live input that had to wait so long is left out where a later keyframe waits.
constexpr auto kStalePicture = seconds(1);

constexpr std::size_t kMaxFrame =
    std::size_t{kMaxFragmentsPerFrame} * kMaxFragmentPayload;  // bytes
constexpr std::size_t kMaxOpusPacket = 65'000;                 // bytes, for one datagram

template <typename... Values>
std::string format(const char* pattern, Values... values) {
    std::string text(static_cast<std::size_t>(std::snprintf(nullptr, 0, pattern, values...)), '\0');
    std::snprintf(text.data(), text.size() + 1, pattern, values...);
    return text;
}

std::string size_text(const PictureSize& size) {
    return format("%dx%d", size.width, size.height);
}

double in_seconds(std::chrono::duration<double> time) {
    return time.count();
}

int frame_rate_of(const AVStream& stream, int otherwise) {
    constexpr int kFastest = 240;
    for (const AVRational& rate : {stream.avg_frame_rate, stream.r_frame_rate}) {
        if (rate.num > 0 && rate.den > 0) {
            return std::clamp(static_cast<int>(std::lround(av_q2d(rate))), 1, kFastest);
        }
    }
    return otherwise;
}

}  // namespace

void Relay::PacketDeleter::operator()(AVPacket* packet) const {
    av_packet_free(&packet);
}

Relay::Relay(RelaySettings settings, Link& link)
    : settings_(std::move(settings)), link_(link), input_([this] { return give_up(); }) {}

Relay::~Relay() {
    Relay::stop();
}

void Relay::open() {
    last_progress_ = Clock::now().time_since_epoch().count();
    reader_ = std::thread([this] { read(); });
}

void Relay::start() {
    const std::lock_guard lock(mutex_);
    last_arrival_ = Clock::now();
    sender_ = std::thread([this] { send(); });
}

void Relay::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
    }
    for (std::thread* thread : {&reader_, &sender_}) {
        if (thread->joinable()) {
            thread->join();
        }
    }
}

Feed::State Relay::state() const {
    const std::lock_guard lock(mutex_);
    return state_;
}

std::vector<std::string> Relay::take_lines() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
}

PictureSize Relay::picture_size() const {
    const std::lock_guard lock(mutex_);
    return size_;
}

bool Relay::has_sound() const {
    const std::lock_guard lock(mutex_);
    return has_sound_;
}

bool Relay::needs_new_player() const {
    const std::lock_guard lock(mutex_);
    return needs_new_player_;
}

void Relay::go_on() {
    const std::lock_guard lock(mutex_);
    needs_new_player_ = false;
    changed_.notify_all();
}

bool Relay::finished() const {
    const std::lock_guard lock(mutex_);
    return finished_;
}

Feed::Counters Relay::counters() const {
    const std::lock_guard lock(mutex_);
    return counters_;
}

void Relay::report(const std::string& text) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(settings_.input + ": " + text);
}

void Relay::report_too_large(std::size_t frame) {
    report(format("a frame of %zu bytes is too large to send", frame));
}

void Relay::request_keyframe() {
    bool first = false;
    {
        const std::lock_guard lock(mutex_);
        if (has_pictures_ && !copies_pictures_) {
            keyframe_limit_.request(Clock::now());
            changed_.notify_all();
            return;
        }
        ++counters_.unanswered;
        first = !std::exchange(request_reported_, true);
    }
    if (first) {
        report("the player asks for a keyframe; a copied stream has only those that it brings");
    }
}

// ---- The reader ----

void Relay::read() {
    if (const std::string wrong = input_.open(settings_.input); !wrong.empty()) {
        fail(wrong);
        return;
    }
    if (!set_up_streams()) {
        return;
    }
    const Packet packet(av_packet_alloc());
    while (packet && !stopping_) {
        const int result = input_.read(*packet);
        if (result >= 0) {
            take(*packet);
            av_packet_unref(packet.get());
        } else if (is_only_a_pause(result)) {
            std::this_thread::sleep_for(kPauseBetweenTries);
        } else if (!begin_next_round(result)) {
            break;
        }
    }
    const std::lock_guard lock(mutex_);
    read_all_ = true;
    changed_.notify_all();
}

// libavformat reports a live input that is silent for some seconds as timed out, and reads on when
// it is asked again.
bool Relay::is_only_a_pause(int result) const {
    return result == AVERROR(EAGAIN) || (is_live_ && result == AVERROR(ETIMEDOUT));
}

// Called while the input waits. Bytes count, too: there may be too few of them for a packet.
bool Relay::give_up() {
    if (stopping_) {
        return true;
    }
    if (last_progress_ == 0) {
        return false;
    }
    const Clock::time_point now = Clock::now();
    if (const std::int64_t received = input_.received(); received > received_) {
        received_ = received;
        last_progress_ = now.time_since_epoch().count();
    }
    return now - Clock::time_point(Clock::duration(last_progress_)) > kOpenTimeout;
}

void Relay::fail(const std::string& what) {
    // Where we gave up ourselves, libavformat's reason means nothing.
    const bool nothing_came = !stopping_ && give_up();
    const std::string reason =
        nothing_came ? format("nothing came for %d s", static_cast<int>(kOpenTimeout.count()))
                     : what;
    const std::lock_guard lock(mutex_);
    lines_.push_back("cannot relay " + settings_.input + ": " + reason);
    state_ = State::kFailed;
}

bool Relay::set_up_streams() {
    is_live_ = input_.is_live();
    timeline_ = Timeline(is_live_);
    if (settings_.loop && !input_.is_repeatable()) {
        fail("it cannot be read twice, as --loop asks for");
        return false;
    }
    if (input_.pictures() != nullptr) {
        if (!set_up_pictures()) {
            return false;
        }
    } else if (!settings_.sound) {
        fail("has no video");
        return false;
    } else {
        report("has no video");
    }
    if (settings_.sound && input_.sound() != nullptr) {
        set_up_sound();
    }
    return true;
}

bool Relay::set_up_pictures() {
    const AVStream& stream = *input_.pictures();
    copies_pictures_ = stream.codecpar->codec_id == AV_CODEC_ID_VP8;
    if (!copies_pictures_) {
        const std::string codec = avcodec_get_name(stream.codecpar->codec_id);
        Vp8Settings video = settings_.stream.video;
        video.frames_per_second = frame_rate_of(stream, video.frames_per_second);
        if (!decoder_.open(*stream.codecpar,
                           picture_shape({.width = video.width, .height = video.height})) ||
            !video_encoder_.open(video)) {
            fail("its video is " + codec + ", which cannot be decoded here");
            return false;
        }
        repeat_ = make_repeat_frame(video.width, video.height);
        report("its video is " + codec + " and not VP8: it is re-encoded");
    }
    const std::lock_guard lock(mutex_);
    has_pictures_ = true;
    if (!copies_pictures_) {
        size_ = {.width = settings_.stream.video.width, .height = settings_.stream.video.height};
    }
    return true;
}

void Relay::set_up_sound() {
    const AVCodecParameters& sound = *input_.sound()->codecpar;
    const std::span header(sound.extradata, static_cast<std::size_t>(sound.extradata_size));
    bool good = true;
    if (sound.codec_id != AV_CODEC_ID_OPUS) {
        good = reencode_sound("its sound is " + std::string(avcodec_get_name(sound.codec_id)) +
                              " and not Opus");
    } else if (!is_plain_opus(header)) {
        good = reencode_sound("its sound has more channels than two");
    }
    const std::lock_guard lock(mutex_);
    has_sound_ = good;
}

bool Relay::reencode_sound(const std::string& reason) {
    sound_encoder_.emplace();
    const std::string wrong = sound_encoder_->open(*input_.sound()->codecpar);
    report(reason + (wrong.empty() ? ": it is re-encoded" : ": it is left out, " + wrong));
    if (!wrong.empty()) {
        sound_encoder_.reset();
    }
    return wrong.empty();
}

// False where there is none.
bool Relay::begin_next_round(int reason) {
    if (sound_encoder_) {
        queue_encoded(sound_encoder_->finish(), Clock::now());
    }
    tell_of_the_end(reason);
    if (!settings_.loop || stopping_ || !took_in_round_) {
        return false;
    }
    took_in_round_ = false;
    furthest_ = 0;
    timeline_.begin_again();
    if (const std::string wrong = input_.open(settings_.input); !wrong.empty()) {
        report("cannot start over: " + wrong);
        return false;
    }
    return true;
}

void Relay::tell_of_the_end(int reason) {
    if (stopping_) {
        return;
    }
    if (state() == State::kOpening) {
        fail(copies_pictures_ ? "it ends before its first keyframe" : "it holds nothing to send");
        return;
    }
    // What the header claims is a little more or less than the last timestamp.
    constexpr double kRounding = 1;  // s
    const double length = static_cast<double>(furthest_) / kMicroseconds.den;
    const bool is_short = length < input_.claimed_seconds() - kRounding;
    if ((reason == AVERROR_EOF && !is_short) || std::exchange(end_reported_, true)) {
        return;
    }
    if (reason != AVERROR_EOF) {
        report("ends early: " + libav_error(reason));
    } else {
        report(format("ends after %.1f s of %.1f s: it is cut short", length,
                      input_.claimed_seconds()));
    }
}

void Relay::note_arrival(Clock::time_point now) {
    if (last_progress_ != 0) {
        last_progress_ = now.time_since_epoch().count();
    }
    std::optional<Clock::duration> silence;
    {
        const std::lock_guard lock(mutex_);
        if (std::exchange(silence_reported_, false)) {
            silence = now - last_arrival_;
        }
        last_arrival_ = now;
    }
    if (silence) {
        report(format("continues after %.1f s", in_seconds(*silence)));
    }
}

void Relay::take(AVPacket& packet) {
    const Clock::time_point now = Clock::now();
    note_arrival(now);
    const auto is_of = [&packet](const AVStream* stream) {
        return stream != nullptr && packet.stream_index == stream->index;
    };
    const bool is_picture = is_of(input_.pictures());
    if (!is_picture && (!is_of(input_.sound()) || !has_sound())) {
        return;
    }
    took_in_round_ = true;
    first_arrival_ = first_arrival_.value_or(now);
    if (packet.size <= 0) {
        return;  // the player has no place for nothing
    }
    if ((packet.flags & AV_PKT_FLAG_CORRUPT) != 0 && !is_live_) {
        if (!std::exchange(damage_reported_, true)) {
            report("contains a packet that is damaged or cut short, which is left out");
        }
        return;
    }
    // Decoding order is the order of sending.
    const AVRational unit = (is_picture ? input_.pictures() : input_.sound())->time_base;
    const std::int64_t own = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
    std::optional<std::int64_t>& last = last_timestamp_[is_picture ? 0 : 1];
    const std::int64_t timestamp =
        own != AV_NOPTS_VALUE ? av_rescale_q(own, unit, kMicroseconds) : last.value_or(0);
    last = timestamp;
    furthest_ = std::max(furthest_, timestamp);
    const Timeline::Reading reading = timeline_.read(
        is_picture ? Timeline::Stream::kPictures : Timeline::Stream::kSound, Time(timestamp), now);
    if (reading.jump) {
        report(format("its timestamps jump by %+.1f s; the stream continues without a gap",
                      in_seconds(*reading.jump)));
    }
    Item item;
    item.time = reading.time;
    item.due = is_live_ ? live_pace_.due(reading.time, now) : Clock::time_point();
    packet.pts = packet.dts = reading.time.count();
    if (is_picture) {
        take_picture(packet, std::move(item));
    } else {
        take_sound(packet, item);
    }
}

// An input can deliver sound, or frames that build on one before we came, for any length of time.
void Relay::report_missing_keyframe(Clock::time_point now) {
    if (copies_pictures_ && now - first_arrival_.value_or(now) > kSilence &&
        state() == State::kOpening && !std::exchange(missing_keyframe_reported_, true)) {
        report("no keyframe received yet");
    }
}

void Relay::take_picture(AVPacket& packet, Item item) {
    const Clock::time_point now = Clock::now();
    if (!copies_pictures_) {
        item.to_encode.reset(av_packet_clone(&packet));
        if (item.to_encode) {
            queue_item(pictures_, std::move(item), now);
        }
        return;
    }
    const std::span frame(packet.data, static_cast<std::size_t>(packet.size));
    item.size = keyframe_size(frame);
    if (!item.size && state() == State::kOpening) {
        report_missing_keyframe(now);
        return;  // nothing can be decoded before the first keyframe
    }
    if (frame.size() > kMaxFrame) {
        report_too_large(frame.size());
        return;
    }
    item.bytes.assign(frame.begin(), frame.end());
    queue_item(pictures_, std::move(item), now);
}

void Relay::take_sound(AVPacket& packet, const Item& item) {
    const Clock::time_point now = Clock::now();
    report_missing_keyframe(now);
    if (is_live_ && copies_pictures_ && state() == State::kOpening) {
        return;  // what is heard before there is anything to see is in the past by then
    }
    const std::span bytes(packet.data, static_cast<std::size_t>(packet.size));
    if (!sound_encoder_) {
        const auto parts = split_opus(bytes);
        if (parts) {
            Time time = item.time;
            Clock::time_point due = item.due;
            for (const OpusPacket& part : *parts) {
                if (part.size() <= kMaxOpusPacket) {
                    Item next;
                    next.time = time;
                    next.due = due;
                    next.bytes = part;
                    queue_item(sounds_, std::move(next), now);
                }
                const Time length = opus_duration(part).value_or(Time{});
                time += length;
                due += length;
            }
            return;
        }
        if (!reencode_sound("its Opus frames are longer than 20 ms and cannot be split")) {
            const std::lock_guard lock(mutex_);
            has_sound_ = false;
            return;
        }
    }
    queue_encoded(sound_encoder_->encode(packet), now);
    if (!sound_encoder_->converts() && !std::exchange(missing_sound_reported_, true)) {
        report("its sound cannot be converted to stereo");
    }
}

void Relay::queue_encoded(const std::vector<SoundEncoder::Encoded>& packets,
                          Clock::time_point arrival) {
    for (const SoundEncoder::Encoded& packet : packets) {
        Item item;
        item.time = packet.time;
        item.due = is_live_ ? live_pace_.due(packet.time, arrival) : Clock::time_point();
        item.bytes = packet.bytes;
        queue_item(sounds_, std::move(item), arrival);
    }
}

// Waits while there is no room.
void Relay::queue_item(Queue& queue, Item item, Clock::time_point arrival) {
    std::unique_lock lock(mutex_);
    if (state_ == State::kOpening && (&queue == &pictures_ || !has_pictures_)) {
        if (item.size) {
            size_ = *item.size;
        }
        state_ = State::kReady;
        last_progress_ = 0;  // from here on patience has no end
    }
    queued_bytes_ += size_of(item);
    last_arrival_ = arrival;
    queue.push_back(std::move(item));
    if (state_ == State::kOpening && queued_bytes_ > kMaxQueued) {
        lock.unlock();
        fail(format("no picture comes with its first %zu MiB of sound", kMaxQueued >> 20U));
        lock.lock();
    }
    changed_.notify_all();
    changed_.wait(lock, [this] { return stopping_ || !is_full(); });
}

// Its share of kMaxQueued.
std::size_t Relay::size_of(const Item& item) {
    const int to_encode = item.to_encode ? item.to_encode->size : 0;
    return sizeof(Item) + item.bytes.size() + static_cast<std::size_t>(to_encode);
}

bool Relay::is_full() const {
    if (queued_bytes_ > kMaxQueued) {
        return true;
    }
    if (is_live_ || (pictures_.empty() && sounds_.empty())) {
        return false;
    }
    if (state_ == State::kOpening) {
        return false;  // nothing is sent, and no room made, before the first picture is found
    }
    const bool lacks_other =
        (has_pictures_ && pictures_.empty()) || (has_sound_ && sounds_.empty());
    Time oldest = Time::max();
    Time newest = Time::min();
    for (const Queue* queue : {&pictures_, &sounds_}) {
        if (!queue->empty()) {
            oldest = std::min(oldest, queue->front().time);
            newest = std::max(newest, queue->back().time);
        }
    }
    return newest - oldest > (lacks_other ? Time(kReadAheadForOther) : Time(kReadAhead));
}

// ---- The sender ----

void Relay::send() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        const Clock::time_point now = Clock::now();
        const auto keyframe_due = keyframe_limit_.due();
        if (keyframe_due && *keyframe_due <= now) {
            keyframe_limit_.answer(now);
            lock.unlock();
            if (picture_) {
                link_.hurry();
                last_datagram_due_ = now;
                encode_and_send(true, now, last_interval_);
            }
            lock.lock();
            continue;
        }
        if (pictures_.empty() && read_all_ && !std::exchange(rest_sent_, true)) {
            lock.unlock();
            send_rest();
            lock.lock();
            continue;
        }
        Queue* queue = next_queue();
        if (queue == nullptr && read_all_) {
            break;
        }
        if (queue == nullptr) {
            lock.unlock();
            report_silence(now);
            lock.lock();
            if (pictures_.empty() && sounds_.empty() && !read_all_ && !stopping_) {
                changed_.wait_until(lock, keyframe_due ? *keyframe_due : now + kSilence / 10);
            }
            continue;
        }
        const Clock::time_point due = due_of(queue->front(), now);
        if (due > now) {
            changed_.wait_until(lock, keyframe_due ? std::min(due, *keyframe_due) : due);
            continue;
        }
        if (is_at_new_size(queue->front())) {
            wait_for_new_player(lock);
            continue;
        }
        const Item item = std::move(queue->front());
        queue->pop_front();
        queued_bytes_ -= size_of(item);
        changed_.notify_all();
        if (is_left_out(*queue, item, due, now)) {
            counters_.skipped += queue == &pictures_ ? 1 : 0;
            continue;
        }
        const Clock::duration room =
            queue == &pictures_ ? time_to_next_picture(item) : Clock::duration();
        lock.unlock();
        if (queue == &pictures_) {
            send_picture(item, due, room);
        } else {
            link_.send(sound_packetizer_.packetize(item.bytes), due);
        }
        lock.lock();
    }
    finished_ = true;
}

// Of the two, the one whose turn is first. Null where nothing waits.
Relay::Queue* Relay::next_queue() {
    if (pictures_.empty() || sounds_.empty()) {
        return !pictures_.empty() ? &pictures_ : !sounds_.empty() ? &sounds_ : nullptr;
    }
    const Item& picture = pictures_.front();
    const Item& sound = sounds_.front();
    const bool sound_first = is_live_ ? sound.due < picture.due : sound.time < picture.time;
    return sound_first ? &sounds_ : &pictures_;
}

Clock::time_point Relay::due_of(const Item& item, Clock::time_point now) {
    return is_live_ ? item.due : file_pace_.due(item.time, now);
}

bool Relay::is_at_new_size(const Item& item) const {
    return item.size && *item.size != size_;
}

void Relay::wait_for_new_player(std::unique_lock<std::mutex>& lock) {
    const PictureSize old = std::exchange(size_, *pictures_.front().size);
    needs_new_player_ = settings_.new_player_for_new_size;
    lines_.push_back(settings_.input + ": pictures of " + size_text(size_) + " follow those of " +
                     size_text(old) +
                     (needs_new_player_ ? ": another player is started" : ": the player stays"));
    if (needs_new_player_) {
        changed_.wait(lock, [this] { return stopping_ || !needs_new_player_; });
        file_pace_.begin_again();
    }
}

// Only of a live input, and only where it had to wait for us.
bool Relay::is_left_out(const Queue& queue, const Item& item, Clock::time_point due,
                        Clock::time_point now) const {
    if (!is_live_) {
        return false;
    }
    if (&queue == &sounds_) {
        return now - due > kStaleSound;
    }
    const auto is_keyframe = [](const Item& later) { return later.size.has_value(); };
    return now - due > kStalePicture && !item.to_encode &&
           std::ranges::any_of(pictures_, is_keyframe);
}

// Where that is not known yet, as long as since the one before.
Clock::duration Relay::time_to_next_picture(const Item& item) {
    Time interval{};
    if (!pictures_.empty()) {
        interval = pictures_.front().time - item.time;
    } else if (last_picture_) {
        interval = item.time - *last_picture_;
    }
    last_picture_ = item.time;
    if (interval > Time::zero()) {
        last_step_ = std::min<Clock::duration>(interval, kLongestStep);
    }
    last_interval_ = std::clamp(Clock::duration(interval), Clock::duration::zero(),
                                Clock::duration(kLongestSpread));
    return last_interval_;
}

void Relay::report_silence(Clock::time_point now) {
    bool silent = false;
    {
        const std::lock_guard lock(mutex_);
        silent = now - last_arrival_ > kSilence && !std::exchange(silence_reported_, true);
    }
    if (silent) {
        report(format("nothing received for %d s", static_cast<int>(kSilence.count())));
    }
}

void Relay::send_picture(const Item& item, Clock::time_point due, Clock::duration room) {
    last_due_ = due;
    if (item.to_encode) {
        send_encoded(decoder_.decode(*item.to_encode), due, room);
        return;
    }
    // A decoder may hold a picture back until the frame after it arrives; of a copied stream only a
    // keyframe can be repeated without a change to what comes after it.
    send_frame(item.bytes, item.size && may_repeat() ? 2 : 1, due, room);
}

// Asked before a picture is sent: whether the player has taken the previous one.
bool Relay::may_repeat() const {
    return settings_.stream.low_delay && keeps_up(link_.player_port());
}

void Relay::send_frame(const std::vector<std::uint8_t>& frame, int times, Clock::time_point due,
                       Clock::duration room) {
    std::vector<Datagram> datagrams;
    for (int time = 0; time < times; ++time) {
        for (Datagram& datagram : video_packetizer_.packetize(frame)) {
            datagrams.push_back(std::move(datagram));
        }
    }
    // The frame before may not have left yet.
    Clock::time_point leaves = std::max(due, last_datagram_due_);
    const Clock::duration spacing =
        settings_.stream.burst ? Clock::duration::zero()
                               : datagram_spacing(std::ssize(datagrams), due + room - leaves);
    for (Datagram& datagram : datagrams) {
        link_.send(std::move(datagram), leaves);
        last_datagram_due_ = leaves;
        leaves += spacing;
    }
    const std::lock_guard lock(mutex_);
    counters_.frames += static_cast<std::uint64_t>(times);
}

// The pictures that the decoder holds back, to put them in order. At the seam of a loop the next
// round's packets bring them.
void Relay::send_rest() {
    Clock::time_point due = last_due_;
    for (Picture& picture : decoder_.finish()) {
        due = std::max(due + last_step_, Clock::now());
        picture_ = std::move(picture);
        encode_and_send(false, due, last_interval_);
    }
}

// The first of `pictures` at `due`, each other one after `room`.
void Relay::send_encoded(std::vector<Picture> pictures, Clock::time_point due,
                         Clock::duration room) {
    if (!decoder_.converts() && !std::exchange(missing_picture_reported_, true)) {
        const Vp8Settings& video = settings_.stream.video;
        report("its pictures cannot be converted to " +
               size_text({.width = video.width, .height = video.height}));
    }
    for (Picture& picture : pictures) {
        const bool first = !picture_;
        picture_ = std::move(picture);
        // Neither the first, so that something is shown, nor more than one in two, so that it
        // moves.
        behind_ = !first && !behind_ && Clock::now() - due > room;
        if (behind_) {
            const std::lock_guard lock(mutex_);
            ++counters_.skipped;
        } else {
            encode_and_send(false, due, room);
        }
        due += room;
    }
}

void Relay::encode_and_send(bool keyframe, Clock::time_point due, Clock::duration room) {
    const std::vector<std::uint8_t> frame = video_encoder_.encode(picture_, keyframe);
    if (frame.size() > kMaxFrame) {
        report_too_large(frame.size());
        return;
    }
    if (frame.empty()) {
        return;
    }
    const bool repeated = may_repeat();
    send_frame(frame, 1, due, room);
    if (repeated) {
        send_frame(repeat_, 1, last_datagram_due_, Clock::duration::zero());
    }
}

}  // namespace vesper::tools
