#include "telemetry/store.h"

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

std::size_t Store::slotOf(const Key& key) {
    const std::hash<std::string_view> text;
    // Only the beginning is hashed: a text and its cut form must have the same slot.
    return (text(key.name.substr(0, 64)) * 31 + text(key.attributeValue.substr(0, 32)) * 7 +
            static_cast<std::size_t>(key.kind)) %
           kSlots;
}

Instrument* Store::find(const Key& key, std::size_t slot) {
    // There is always a free slot, since kMostInstruments < kSlots.
    for (; instruments[slot].taken; slot = (slot + 1) % kSlots) {
        if (instruments[slot].is(key)) return &instruments[slot];
    }
    if (instrumentCount >= kMostInstruments) {
        ++droppedMetrics;
        return nullptr;
    }
    ++instrumentCount;
    Instrument& made = instruments[slot];
    made.taken = true;
    made.name(key);
    made.sum = 0;
    made.value = 0;
    made.buckets.fill(0);
    return &made;
}

void Store::clear() {
    any = false;
    for (Instrument& instrument : instruments) instrument.taken = false;
    instrumentCount = eventCount = 0;
    droppedMetrics = droppedEvents = droppedValues = 0;
}

}  // namespace zorv::telemetry
