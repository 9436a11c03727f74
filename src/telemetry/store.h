// What is recorded for one batch: fixed arrays, filled in place.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

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
            // Do not cut within a character: bytes 10xxxxxx continue one.
            while (size_ > 0 && (static_cast<unsigned char>(text[size_]) & 0xC0) == 0x80) --size_;
        }
        text.copy(text_.data(), size_);
        if (text.size() > N) size_ += kCutMark.copy(text_.data() + size_, kCutMark.size());
    }
    std::string_view view() const { return {text_.data(), size_}; }

  private:
    std::array<char, N> text_;
    std::size_t size_ = 0;
};

/// Identifies an instrument: the same name with another unit or attribute is another one.
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
    bool is(const Key& key) const;
    void name(const Key& key);

    bool taken = false;
    Kind kind = Kind::kCounter;
    ShortText<96> metricName;
    ShortText<32> unit;
    ShortText<32> attribute;
    ShortText<64> attributeValue;

    std::uint64_t sum = 0;  ///< of a counter, nanoseconds of a histogram
    double value = 0;       ///< of a gauge, the latest
    std::array<std::uint64_t, kBounds.size() + 1> buckets{};  ///< of a histogram
};

struct Event {
    std::int64_t unixMs = 0;
    ShortText<96> name;
    ShortText<256> text;
};

/// One batch under way. Nothing here locks or allocates.
struct Store {
    static constexpr std::size_t kSlots = 512;
    static constexpr std::size_t kMostInstruments = 384;  ///< more are dropped
    static constexpr std::size_t kMostEvents = 256;

    /// Where a key's instrument is looked for first.
    static std::size_t slotOf(const Key& key);

    /// The key's instrument, made when it is new; null, and counted as dropped, when there is no
    /// room for it. `slot` is slotOf(key).
    Instrument* find(const Key& key, std::size_t slot);

    void clear();

    bool any = false;  ///< something was recorded
    std::int64_t startUnixMs = 0;
    std::int64_t endUnixMs = 0;
    std::array<Instrument, kSlots> instruments;
    std::size_t instrumentCount = 0;
    std::array<Event, kMostEvents> events;
    std::size_t eventCount = 0;
    std::uint64_t droppedMetrics = 0;
    std::uint64_t droppedEvents = 0;
    std::uint64_t droppedValues = 0;
};

}  // namespace zorv::telemetry
