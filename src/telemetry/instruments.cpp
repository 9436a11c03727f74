#include "telemetry/instruments.h"

#include <functional>

namespace zorv::telemetry {
namespace {

/// As ShortText would keep it, so that texts that were cut are found again.
template <std::size_t N>
bool same(const ShortText<N>& kept, std::string_view text) {
    if (text.size() <= N) return kept.view() == text;
    ShortText<N> cut;
    cut.set(text);
    return kept.view() == cut.view();
}

std::size_t hash(const Key& key) {
    const std::hash<std::string_view> text;
    // The beginning is enough: cut texts must meet those that they are kept as.
    return text(key.name.substr(0, 64)) * 31 + text(key.attributeValue.substr(0, 32)) * 7 +
           static_cast<std::size_t>(key.kind);
}

}  // namespace

bool Instrument::is(const Key& key) const {
    return kind == key.kind && same(metricName, key.name) && same(unit, key.unit) &&
           same(attribute, key.attribute) && same(attributeValue, key.attributeValue);
}

void Instrument::name(const Key& key) {
    kind = key.kind;
    metricName.set(key.name);
    unit.set(key.unit);
    attribute.set(key.attribute);
    attributeValue.set(key.attributeValue);
}

void Instrument::read() noexcept {
    reading.count = 0;
    for (std::size_t i = 0; i < buckets.size(); ++i) {
        reading.buckets[i] = buckets[i].load(std::memory_order_relaxed);
        reading.count += reading.buckets[i];
    }
    reading.sum = sum.load(std::memory_order_acquire);
    reading.value = value.load(std::memory_order_relaxed);
    // A duration whose bucket comes later is told with it.
    if (kind == Kind::kHistogram && reading.count == 0) reading.sum = 0;
}

void Instrument::settle() noexcept {
    sum.fetch_sub(reading.sum, std::memory_order_relaxed);
    for (std::size_t i = 0; i < buckets.size(); ++i) {
        buckets[i].fetch_sub(reading.buckets[i], std::memory_order_relaxed);
    }
    reading = {};
}

Instrument* InstrumentTable::find(const Key& key) {
    const std::size_t first = hash(key) % kSlots;
    std::size_t at = first;
    // There is always a free slot, since kMost < kSlots.
    for (; slots_[at].taken.load(std::memory_order_acquire); at = (at + 1) % kSlots) {
        if (slots_[at].is(key)) return &slots_[at];
    }
    const MutexLock lock(naming_);
    // Another thread may have named slots since.
    for (; slots_[at].taken.load(std::memory_order_acquire); at = (at + 1) % kSlots) {
        if (slots_[at].is(key)) return &slots_[at];
    }
    if (used_ >= kMost) return nullptr;
    ++used_;
    slots_[at].name(key);
    slots_[at].taken.store(true, std::memory_order_release);
    return &slots_[at];
}

}  // namespace zorv::telemetry
