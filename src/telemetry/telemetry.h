// What the library records about itself: the one header that recording code includes.
//
// Recording never allocates, holds a lock for no longer than it takes to add a number or copy a
// short text, and is one predictable branch while telemetry is off. Every name is listed in
// docs/telemetry.md.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace zorv::telemetry {

/// Off until zorv_telemetry_enable or `ZORV_TELEMETRY=1`.
extern std::atomic<bool> enabled;

inline bool on() {
    return enabled.load(std::memory_order_relaxed);
}

/// An instrument: a dotted lower-case name, its unit, and at most one attribute, all literals.
struct Metric {
    const char* name;
    const char* unit;  ///< "s", "By", "{frame}"
    const char* attribute = nullptr;
    const char* attributeValue = nullptr;
};

// Each records when telemetry is on. Any thread.

void count(const Metric& metric, std::uint64_t n = 1);
void gauge(const Metric& metric, double value);
void duration(const Metric& metric, double seconds);

/// Counts a failure by the function and the beginning of its text: "zorv_create: manifest: ..."
/// counts under "zorv_create" and "manifest".
void failure(const char* text);

/// Seconds since it was made, or nothing while telemetry is off.
class Stopwatch {
  public:
    Stopwatch() : running_(on()) {
        if (running_) start_ = Clock::now();
    }

    /// Records the time since construction.
    void record(const Metric& metric) const {
        if (running_) duration(metric, seconds());
    }
    double seconds() const { return std::chrono::duration<double>(Clock::now() - start_).count(); }

  private:
    using Clock = std::chrono::steady_clock;
    bool running_;
    Clock::time_point start_{};
};

/// Runs a create function and counts what it opens, under a family's name ("motion").
template <class Make>
auto opening(const char* family, Make&& make) {
    const Stopwatch watch;
    auto* handle = make();
    if (handle) {
        count({"zorv.handle.opened", "{handle}", "zorv.family", family});
        watch.record({"zorv.handle.open.duration", "s", "zorv.family", family});
    }
    return handle;
}

/// Counts what a destroy function closes; `handle` may be null.
inline void closing(const char* family, const void* handle) {
    if (handle) count({"zorv.handle.closed", "{handle}", "zorv.family", family});
}

}  // namespace zorv::telemetry
