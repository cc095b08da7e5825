// Waiting for another thread.
#pragma once

#include <chrono>
#include <thread>

namespace vesper::test {

// Generous: a loaded machine under a sanitizer still gets there, a hang still ends.
inline constexpr auto kPollLimit = std::chrono::seconds(60);
inline constexpr auto kPollInterval = std::chrono::milliseconds(1);

// True as soon as `condition` holds, false when it does not come to hold.
template <typename Condition>
[[nodiscard]] bool poll(Condition condition) {
    const auto limit = std::chrono::steady_clock::now() + kPollLimit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
        std::this_thread::sleep_for(kPollInterval);
    }
    return true;
}

}  // namespace vesper::test
