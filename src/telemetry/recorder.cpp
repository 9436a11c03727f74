#include "telemetry/recorder.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <numeric>
#include <utility>

#include "telemetry/device.h"
#include "telemetry/json_writer.h"

namespace zorv::telemetry {
namespace {

constexpr int kSchemaVersion = 1;

std::int64_t unixMs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

/// Opens the object of one instrument.
JsonWriter& openInstrument(JsonWriter& json, const Instrument& instrument) {
    json.open('{');
    json.key("name").value(instrument.metricName.view());
    json.key("unit").value(instrument.unit.view());
    if (!instrument.attribute.view().empty()) {
        json.key("attributes").open('{');
        json.key(instrument.attribute.view()).value(instrument.attributeValue.view());
        json.close('}');
    }
    return json;
}

void writeCounter(JsonWriter& json, const Instrument& counter) {
    if (counter.sum > 0) openInstrument(json, counter).key("value").value(counter.sum).close('}');
}

void writeGauge(JsonWriter& json, const Instrument& gauge) {
    openInstrument(json, gauge).key("value").value(gauge.value).close('}');
}

void writeHistogram(JsonWriter& json, const Instrument& histogram) {
    const std::uint64_t count =
        std::accumulate(histogram.buckets.begin(), histogram.buckets.end(), std::uint64_t{0});
    openInstrument(json, histogram).key("count").value(count);
    json.key("sum").value(static_cast<double>(histogram.sum) * 1e-9);
    json.key("bounds").open('[');
    for (const double bound : kBounds) json.value(bound);
    json.close(']').key("buckets").open('[');
    for (const std::uint64_t bucket : histogram.buckets) json.value(bucket);
    json.close(']').close('}');
}

std::string textOf(const Store& store) {
    JsonWriter json;
    json.open('{').key("schema_version").value(kSchemaVersion);
    json.key("start_unix_ms").value(store.startUnixMs).key("end_unix_ms").value(store.endUnixMs);
    json.key("device");
    writeDevice(json);
    const auto list = [&](const char* name, Kind kind, auto write) {
        json.key(name).open('[');
        for (const Instrument& instrument : store.instruments) {
            if (instrument.taken && instrument.kind == kind) write(json, instrument);
        }
        json.close(']');
    };
    list("counters", Kind::kCounter, writeCounter);
    list("gauges", Kind::kGauge, writeGauge);
    list("histograms", Kind::kHistogram, writeHistogram);
    json.key("events").open('[');
    for (std::size_t i = 0; i < store.eventCount; ++i) {
        const Event& event = store.events[i];
        json.open('{').key("time_unix_ms").value(event.unixMs);
        json.key("name").value(event.name.view()).key("text").value(event.text.view()).close('}');
    }
    json.close(']');
    json.key("dropped").open('{');
    json.key("metrics").value(store.droppedMetrics);
    json.key("events").value(store.droppedEvents);
    json.key("values").value(store.droppedValues);
    json.close('}').close('}');
    return json.take();
}

}  // namespace

Recorder::Recorder() {
    stores_[0].startUnixMs = unixMs();
}

void Recorder::count(const Key& key, std::uint64_t n) {
    const std::size_t slot = Store::slotOf(key);
    const MutexLock lock(recording_);
    open_->any = true;
    if (Instrument* counter = open_->find(key, slot)) counter->sum += n;
}

void Recorder::gauge(const Key& key, double value) {
    const std::size_t slot = Store::slotOf(key);
    const MutexLock lock(recording_);
    open_->any = true;
    if (Instrument* gauge = open_->find(key, slot)) gauge->value = value;
}

void Recorder::duration(const Key& key, double seconds) {
    constexpr double kMost = 1e9;  // seconds: the sum is kept in 64-bit nanoseconds
    const bool valid = seconds >= 0 && seconds <= kMost;
    const auto bound = std::lower_bound(kBounds.begin(), kBounds.end(), seconds);
    const std::size_t slot = Store::slotOf(key);
    const MutexLock lock(recording_);
    open_->any = true;
    if (!valid) {
        ++open_->droppedValues;
    } else if (Instrument* histogram = open_->find(key, slot)) {
        histogram->sum += static_cast<std::uint64_t>(seconds * 1e9);
        ++histogram->buckets[static_cast<std::size_t>(bound - kBounds.begin())];
    }
}

void Recorder::event(std::string_view name, std::string_view text) {
    const std::int64_t now = unixMs();
    const MutexLock lock(recording_);
    open_->any = true;
    if (open_->eventCount == Store::kMostEvents) {
        ++open_->droppedEvents;
        return;
    }
    Event& event = open_->events[open_->eventCount++];
    event.unixMs = now;
    event.name.set(name);
    event.text.set(text);
}

std::size_t Recorder::pending() {
    const MutexLock lock(reading_);
    close();
    return batch_.empty() ? 0 : batch_.size() + 1;
}

std::size_t Recorder::take(char* buffer, std::size_t capacity) {
    const MutexLock lock(reading_);
    close();
    if (batch_.empty()) return 0;
    const std::size_t size = batch_.size() + 1;
    if (!buffer || capacity < size) return size;
    std::memcpy(buffer, batch_.c_str(), size);
    batch_.clear();
    return size;
}

void Recorder::clear() {
    const MutexLock reading(reading_);
    batch_.clear();
    closed_->clear();
    const MutexLock recording(recording_);
    open_->clear();
    open_->startUnixMs = unixMs();
}

void Recorder::close() {
    if (!batch_.empty()) return;
    if (!closed_->any) {  // else its text could not be written
        const MutexLock lock(recording_);
        if (!open_->any) return;
        std::swap(open_, closed_);
        closed_->endUnixMs = open_->startUnixMs = unixMs();
    }
    batch_ = textOf(*closed_);
    closed_->clear();
}

Recorder& recorder() {
    // Never destroyed: threads of the host may record until the process ends. Not on the heap:
    // recording must not fail.
    alignas(Recorder) static std::byte memory[sizeof(Recorder)];
    static Recorder* const instance = new (memory) Recorder;
    return *instance;
}

}  // namespace zorv::telemetry
