// What the benchmarks time with.
#pragma once

#include <time.h>

#include <algorithm>
#include <cstddef>
#include <vector>

namespace zorv::bench {

/// CLOCK_MONOTONIC is wall time; CLOCK_THREAD_CPUTIME_ID the calling thread's processor time,
/// which other load on the machine disturbs less.
inline double secondsNow(clockid_t clock) {
    timespec at{};
    ::clock_gettime(clock, &at);
    return static_cast<double>(at.tv_sec) + 1e-9 * static_cast<double>(at.tv_nsec);
}

/// How long `work` takes.
double seconds(clockid_t clock, auto&& work) {
    const double start = secondsNow(clock);
    work();
    return secondsNow(clock) - start;
}
double wallSeconds(auto&& work) {
    return seconds(CLOCK_MONOTONIC, work);
}
double cpuSeconds(auto&& work) {
    return seconds(CLOCK_THREAD_CPUTIME_ID, work);
}

inline double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace zorv::bench
