#include "tools/stream/pace.h"

#include <algorithm>

namespace vesper::tools {

Clock::time_point FilePace::due(Time time, Clock::time_point now) {
    if (!start_ || now - (*start_ + time) > kLate) {
        start_ = now - time;
    }
    return *start_ + time;
}

Clock::time_point LivePace::due(Time time, Clock::time_point arrival) {
    if (!start_ || arrival - (*start_ + time) > kStoodStill) {
        start_ = arrival - time;
        begin_period(arrival);
    } else if (arrival >= period_end_) {
        if (earliness_ > kTooEarly) {
            *start_ -= earliness_;
        }
        begin_period(arrival);
    }
    earliness_ = std::min(earliness_, *start_ + time - arrival);
    return std::max(*start_ + time, arrival);
}

void LivePace::begin_period(Clock::time_point now) {
    period_end_ = now + kPeriod;
    earliness_ = Clock::duration::max();
}

}  // namespace vesper::tools
