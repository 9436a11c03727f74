// A fixed number of counters, gauges and histograms, recorded by many threads at once.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "common/mutex.h"

namespace zorv::telemetry {

enum class Kind : std::uint32_t { kCounter, kGauge, kHistogram };

/// Text of a fixed size; what does not fit is cut and ends with kCutMark.
template <std::size_t N>
class ShortText {
  public:
    static constexpr std::string_view kCutMark = "[cut]";

    void set(std::string_view text) {
        size_ = text.size();
        if (size_ > N) {
            size_ = N - kCutMark.size();
            // Not within a character: 10xxxxxx goes on one.
            while (size_ > 0 && (static_cast<unsigned char>(text[size_]) & 0xC0) == 0x80) --size_;
        }
        text.copy(text_.data(), size_);
        if (text.size() > N) size_ += kCutMark.copy(text_.data() + size_, kCutMark.size());
    }
    std::string_view view() const { return {text_.data(), size_}; }

  private:
    std::array<char, N> text_{};
    std::size_t size_ = 0;
};

/// What is told apart: the same name with another unit or attribute is another instrument.
struct Key {
    Kind kind;
    std::string_view name;
    std::string_view unit;
    std::string_view attribute;
    std::string_view attributeValue;
};

/// Upper bounds in seconds of the histograms' buckets; one more bucket holds what is longer.
inline constexpr std::array<double, 14> kBounds{0.001, 0.002, 0.005, 0.01, 0.02, 0.04, 0.08,
                                                0.16,  0.32,  0.64,  1.28, 2.56, 5.12, 10.24};

struct Instrument {
    using Buckets = std::array<std::atomic<std::uint64_t>, kBounds.size() + 1>;

    bool is(const Key& key) const;
    void name(const Key& key);

    // Written once, before `taken` is set.
    Kind kind = Kind::kCounter;
    ShortText<96> metricName;
    ShortText<32> unit;
    ShortText<32> attribute;
    ShortText<64> attributeValue;
    std::atomic<bool> taken{false};

    /// Of a counter, nanoseconds of a histogram, or how often a gauge was set.
    std::atomic<std::uint64_t> sum{0};
    std::atomic<double> value{0};  ///< of a gauge
    Buckets buckets{};             ///< of a histogram

    /// What the reader has seen of it and settles once it is told.
    struct Reading {
        std::uint64_t sum = 0;
        double value = 0;
        std::array<std::uint64_t, kBounds.size() + 1> buckets{};
        std::uint64_t count = 0;  ///< of all buckets
    };
    void read() noexcept;
    /// Takes the reading off, so that what was recorded meanwhile remains.
    void settle() noexcept;
    Reading reading;  ///< the reader's alone
};

/// Finds or makes instruments without a lock that a reader could hold: only a name that is new
/// takes one, for as long as it is copied. Nothing is ever removed.
class InstrumentTable {
  public:
    static constexpr std::size_t kSlots = 512;
    static constexpr std::size_t kMost = 384;  ///< instruments; more are refused

    /// Null when the table is full.
    Instrument* find(const Key& key);

    /// Visits every instrument; those made meanwhile may be left out.
    template <class Fn>
    void forEach(Fn&& fn) {
        for (Instrument& slot : slots_) {
            if (slot.taken.load(std::memory_order_acquire)) fn(slot);
        }
    }

  private:
    std::array<Instrument, kSlots> slots_;
    Mutex naming_;
    std::size_t used_ ZORV_GUARDED_BY(naming_) = 0;
};

}  // namespace zorv::telemetry
