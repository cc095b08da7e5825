// Processor time, which a busy machine distorts less than wall-clock time.
#pragma once

#include <sys/types.h>

#include <ctime>

namespace vesper::bench {

// Seconds on `clock`.
[[nodiscard]] inline double seconds_on(clockid_t clock) {
    timespec time{};
    if (::clock_gettime(clock, &time) != 0) {
        return 0;
    }
    return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

// Used by all threads of process `pid` since it started; 0 once it is gone.
[[nodiscard]] inline double processor_seconds(pid_t pid) {
    clockid_t clock{};
    return ::clock_getcpuclockid(pid, &clock) == 0 ? seconds_on(clock) : 0;
}

// By the calling thread, and by all threads of this process.
[[nodiscard]] inline double thread_seconds() {
    return seconds_on(CLOCK_THREAD_CPUTIME_ID);
}
[[nodiscard]] inline double process_seconds() {
    return seconds_on(CLOCK_PROCESS_CPUTIME_ID);
}

}  // namespace vesper::bench
