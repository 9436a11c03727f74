// The time that the engine goes by, handed in so that tests can move it.
#pragma once

#include <chrono>
#include <limits>

#include "common/mutex.h"

namespace zorv {

class Clock {
  public:
    static constexpr double kNever = std::numeric_limits<double>::infinity();

    virtual ~Clock() = default;

    /// Milliseconds on a scale that never goes back.
    virtual double nowMs() = 0;

    /// Waits until `wake` is notified or `dueMs` has come; may end early. A time too far ahead for
    /// the clock never comes.
    virtual void wait(CondVar& wake, Mutex& mutex, double dueMs) ZORV_REQUIRES(mutex) = 0;
};

class SteadyClock final : public Clock {
  public:
    double nowMs() override {
        return std::chrono::duration<double, std::milli>(Steady::now().time_since_epoch()).count();
    }

    void wait(CondVar& wake, Mutex& mutex, double dueMs) override ZORV_REQUIRES(mutex) {
        if (dueMs >= kBeyondMs) {
            wake.wait(mutex);
            return;
        }
        const auto due = std::chrono::duration<double, std::milli>(dueMs);
        wake.waitUntil(mutex,
                       Steady::time_point(std::chrono::duration_cast<Steady::duration>(due)));
    }

  private:
    using Steady = std::chrono::steady_clock;
    /// Times from here on do not fit the clock's own unit; they never come.
    static constexpr double kBeyondMs =
        std::chrono::duration<double, std::milli>(Steady::duration::max()).count() / 2;
};

}  // namespace zorv
