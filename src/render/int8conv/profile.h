// Time of the int8 convolution's phases, summed over the whole process.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace zorv {

/// Enabled by `ZORV_INT8_PROF` at library load; then writes one line to standard error at exit.
/// Phases that run on several threads count each thread's time.
class Int8Profile {
  public:
    using Total = std::atomic<std::int64_t>;  ///< nanoseconds

    static Int8Profile& instance() { return instance_; }

    const bool enabled;
    Total minmax{0}, transpose{0}, gemm{0}, requant{0};

  private:
    Int8Profile();
    ~Int8Profile();
    static Int8Profile instance_;
};

/// Adds the time of its scope to one total; without profiling it does not look at the clock.
class PhaseTimer {
  public:
    explicit PhaseTimer(Int8Profile::Total Int8Profile::*total)
        : total_(Int8Profile::instance().enabled ? &(Int8Profile::instance().*total) : nullptr) {
        if (total_) start_ = std::chrono::steady_clock::now();
    }
    ~PhaseTimer() {
        if (!total_) return;
        const auto elapsed = std::chrono::steady_clock::now() - start_;
        *total_ += std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count();
    }
    PhaseTimer(const PhaseTimer&) = delete;
    PhaseTimer& operator=(const PhaseTimer&) = delete;

  private:
    Int8Profile::Total* total_;
    std::chrono::steady_clock::time_point start_;
};

}  // namespace zorv
