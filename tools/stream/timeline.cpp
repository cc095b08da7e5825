#include "tools/stream/timeline.h"

#include <algorithm>
#include <utility>

namespace vesper::tools {

Timeline::Reading Timeline::read(Stream stream, Time timestamp, Clock::time_point arrival) {
    Track& track = tracks_.at(static_cast<std::size_t>(stream));
    Reading reading;
    timestamp = std::clamp(timestamp, -kFurthest, kFurthest);
    if (!track.seen) {
        track.offset = offset_;
    }
    if (!begun_ || beginning_again_) {
        // The first packet of all, or of another round.
        offset_ = track.offset = (begun_ ? end() : Time{}) - timestamp;
    } else if (!goes_on(track, timestamp + track.offset, arrival)) {
        // The other stream may have jumped there before.
        if (!goes_on(track, timestamp + offset_, arrival)) {
            const Time expected = end();
            reading.jump = timestamp + track.offset - expected;
            offset_ = expected - timestamp;
        }
        track.offset = offset_;
    }
    begun_ = true;
    beginning_again_ = false;
    reading.time = timestamp + track.offset;
    if (track.seen && reading.time > track.last) {
        track.step = std::min(reading.time - track.last, kLongestStepBack);
    }
    newest_ = std::max(newest_, reading.time);
    track.seen = true;
    track.last = reading.time;
    track.arrival = arrival;
    return reading;
}

void Timeline::begin_again() {
    beginning_again_ = begun_;
    newest_ = end();
    for (Track& track : tracks_) {
        track.seen = false;
    }
}

bool Timeline::goes_on(const Track& track, Time time, Clock::time_point arrival) const {
    if (!track.seen) {
        return time >= newest_ - kLongestGap && time <= newest_ + kLongestGap;
    }
    const Time lead =
        live_ ? std::chrono::duration_cast<Time>(arrival - track.arrival) + kLongestLiveLead
              : kLongestGap;
    return time >= track.last - kLongestStepBack && time <= track.last + lead;
}

Timeline::Time Timeline::end() const {
    Time end = newest_;
    for (const Track& track : tracks_) {
        if (track.seen) {
            end = std::max(end, track.last + track.step);
        }
    }
    return end;
}

}  // namespace vesper::tools
