#include "telemetry/recorder.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <new>

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
    const std::uint64_t sum = counter.reading.sum;
    if (sum > 0) openInstrument(json, counter).key("value").value(sum).close('}');
}

void writeGauge(JsonWriter& json, const Instrument& gauge) {
    if (gauge.reading.sum == 0) return;
    openInstrument(json, gauge).key("value").value(gauge.reading.value).close('}');
}

void writeHistogram(JsonWriter& json, const Instrument& histogram) {
    const Instrument::Reading& reading = histogram.reading;
    if (reading.count == 0) return;
    openInstrument(json, histogram).key("count").value(reading.count);
    json.key("sum").value(static_cast<double>(reading.sum) * 1e-9);
    json.key("bounds").open('[');
    for (const double bound : kBounds) json.value(bound);
    json.close(']').key("buckets").open('[');
    for (const std::uint64_t bucket : reading.buckets) json.value(bucket);
    json.close(']').close('}');
}

}  // namespace

/// What the instruments' readings leave out.
struct Recorder::Reading {
    std::int64_t endUnixMs = 0;
    std::size_t events = 0;
    std::uint64_t droppedMetrics = 0;
    std::uint64_t droppedEvents = 0;
    std::uint64_t droppedValues = 0;
};

Recorder::Recorder() : startUnixMs_(unixMs()) {}

void Recorder::count(const Key& key, std::uint64_t n) {
    any_.store(true, std::memory_order_relaxed);
    if (Instrument* counter = instruments_.find(key)) {
        counter->sum.fetch_add(n, std::memory_order_relaxed);
    } else {
        droppedMetrics_.fetch_add(1, std::memory_order_relaxed);
    }
}

void Recorder::gauge(const Key& key, double value) {
    any_.store(true, std::memory_order_relaxed);
    if (Instrument* gauge = instruments_.find(key)) {
        gauge->value.store(value, std::memory_order_relaxed);
        gauge->sum.fetch_add(1, std::memory_order_release);
    } else {
        droppedMetrics_.fetch_add(1, std::memory_order_relaxed);
    }
}

void Recorder::duration(const Key& key, double seconds) {
    any_.store(true, std::memory_order_relaxed);
    constexpr double kMost = 1e9;  // seconds: the sum is kept in 64-bit nanoseconds
    if (!(seconds >= 0 && seconds <= kMost)) {
        droppedValues_.fetch_add(1, std::memory_order_relaxed);
    } else if (Instrument* histogram = instruments_.find(key)) {
        const auto bound = std::lower_bound(kBounds.begin(), kBounds.end(), seconds);
        const auto bucket = static_cast<std::size_t>(bound - kBounds.begin());
        histogram->sum.fetch_add(static_cast<std::uint64_t>(seconds * 1e9),
                                 std::memory_order_relaxed);
        histogram->buckets[bucket].fetch_add(1, std::memory_order_relaxed);
    } else {
        droppedMetrics_.fetch_add(1, std::memory_order_relaxed);
    }
}

void Recorder::event(std::string_view name, std::string_view text) {
    any_.store(true, std::memory_order_relaxed);
    const bool kept = events_.push([&](Event& event) {
        event.unixMs = unixMs();
        event.name.set(name);
        event.text.set(text);
    });
    if (!kept) droppedEvents_.fetch_add(1, std::memory_order_relaxed);
}

std::size_t Recorder::pending() {
    const std::lock_guard lock(reading_);
    close();
    return batch_.empty() ? 0 : batch_.size() + 1;
}

std::size_t Recorder::take(char* buffer, std::size_t capacity) {
    const std::lock_guard lock(reading_);
    close();
    if (batch_.empty()) return 0;
    const std::size_t size = batch_.size() + 1;
    if (!buffer || capacity < size) return size;
    std::memcpy(buffer, batch_.c_str(), size);
    batch_.clear();
    return size;
}

void Recorder::clear() {
    const std::lock_guard lock(reading_);
    batch_.clear();
    any_ = false;
    settle(read());
}

void Recorder::close() {
    if (!batch_.empty() || !any_.exchange(false, std::memory_order_relaxed)) return;
    const Reading reading = read();
    try {
        batch_ = textOf(reading);
    } catch (...) {
        any_ = true;
        throw;
    }
    settle(reading);
}

Recorder::Reading Recorder::read() {
    instruments_.forEach([](Instrument& instrument) { instrument.read(); });
    return {unixMs(), events_.readable(), droppedMetrics_, droppedEvents_, droppedValues_};
}

/// What is recorded after the reading is in the next batch.
void Recorder::settle(const Reading& reading) {
    instruments_.forEach([](Instrument& instrument) { instrument.settle(); });
    events_.drop(reading.events);
    droppedMetrics_ -= reading.droppedMetrics;
    droppedEvents_ -= reading.droppedEvents;
    droppedValues_ -= reading.droppedValues;
    startUnixMs_ = reading.endUnixMs;
}

/// The batch's text.
std::string Recorder::textOf(const Reading& reading) {
    JsonWriter json;
    json.open('{').key("schema_version").value(kSchemaVersion);
    json.key("start_unix_ms").value(startUnixMs_).key("end_unix_ms").value(reading.endUnixMs);
    json.key("device");
    writeDevice(json);
    const auto list = [&](const char* name, Kind kind, auto write) {
        json.key(name).open('[');
        instruments_.forEach([&](Instrument& instrument) {
            if (instrument.kind == kind) write(json, instrument);
        });
        json.close(']');
    };
    list("counters", Kind::kCounter, writeCounter);
    list("gauges", Kind::kGauge, writeGauge);
    list("histograms", Kind::kHistogram, writeHistogram);
    json.key("events").open('[');
    for (std::size_t i = 0; i < reading.events; ++i) {
        const Event& event = events_.peek(i);
        json.open('{').key("time_unix_ms").value(event.unixMs);
        json.key("name").value(event.name.view()).key("text").value(event.text.view()).close('}');
    }
    json.close(']');
    json.key("dropped").open('{');
    json.key("metrics").value(reading.droppedMetrics);
    json.key("events").value(reading.droppedEvents);
    json.key("values").value(reading.droppedValues);
    json.close('}').close('}');
    return json.take();
}

Recorder& recorder() {
    // Never destroyed: threads of the host may record until the process ends. Not on the heap:
    // recording must not fail.
    alignas(Recorder) static std::byte memory[sizeof(Recorder)];
    static Recorder* const instance = new (memory) Recorder;
    return *instance;
}

}  // namespace zorv::telemetry
