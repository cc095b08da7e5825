#include "tools/stream/impairments.h"

#include <algorithm>
#include <utility>

namespace vesper::tools {

Impairments::Counters& Impairments::Counters::operator+=(const Counters& other) {
    lost += other.lost;
    duplicated += other.duplicated;
    reordered += other.reordered;
    corrupted += other.corrupted;
    truncated += other.truncated;
    return *this;
}

std::vector<Departure> Impairments::pass(Datagram datagram, Clock::time_point time) {
    std::vector<Departure> departures;
    if (happens(settings_.loss, counters_.lost)) {
        return departures;
    }
    if (happens(settings_.corrupt, counters_.corrupted)) {
        const std::size_t bit = draws_.below(datagram.size() * 8);
        datagram[bit / 8] ^= static_cast<std::uint8_t>(1U << (bit % 8));
    }
    if (happens(settings_.truncate, counters_.truncated)) {
        datagram.resize(1 + draws_.below(datagram.size() - 1));
    }
    const bool twice = happens(settings_.duplicate, counters_.duplicated);
    const std::optional<Datagram> overtaken = std::exchange(kept_, std::nullopt);
    const bool late = !overtaken && happens(settings_.reorder, counters_.reordered);
    if (late) {
        kept_ = datagram;
    }
    if (twice) {
        depart(datagram, time, departures);
    }
    if (!late) {
        depart(std::move(datagram), time, departures);
    }
    if (overtaken) {
        depart(*overtaken, time, departures);
    }
    return departures;
}

bool Impairments::happens(double percent, std::uint64_t& counter) {
    if (!draws_.happens(percent)) {
        return false;
    }
    ++counter;
    return true;
}

void Impairments::depart(Datagram datagram, Clock::time_point time,
                         std::vector<Departure>& departures) {
    const std::chrono::duration<double, std::milli> lateness(
        draws_.fraction() * static_cast<double>(settings_.jitter.count()));
    last_departure_ =
        std::max(last_departure_, time + std::chrono::duration_cast<Clock::duration>(lateness));
    departures.push_back({.time = last_departure_, .datagram = std::move(datagram)});
}

}  // namespace vesper::tools
