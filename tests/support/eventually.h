// Waiting for something that another thread or process does.
#pragma once

#include <chrono>
#include <thread>

namespace vesper::test {

// Long enough for a sanitizer build beside many busy processes; reached only by a test that fails.
inline constexpr std::chrono::milliseconds kPatience = std::chrono::minutes(3);

inline constexpr std::chrono::milliseconds kPollInterval{5};

// Asks `condition` again and again until it holds. False when it did not within `limit`.
template <typename Condition>
[[nodiscard]] bool eventually(Condition condition, std::chrono::milliseconds limit = kPatience) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(kPollInterval);
    }
    return true;
}

}  // namespace vesper::test
