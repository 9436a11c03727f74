#include <string.h>

#include <string_view>

#include "common/error.h"
#include "telemetry/recorder.h"
#include "telemetry/telemetry.h"
#include "zorv_core.h"

namespace {

struct TelemetryFamily;
using Errors = zorv::LastError<TelemetryFamily>;
using zorv::telemetry::Key;
using zorv::telemetry::Kind;

/// Longer texts are cut anyway; an unbounded scan for their end is not needed.
constexpr std::size_t kLongestScan = 1024;

std::string_view bounded(const char* text) {
    return {text, strnlen(text, kLongestScan)};
}

/// Records unless telemetry is off; 0 with a text when `valid` is not.
template <class Record>
int recorded(const char* badArgs, bool valid, Record&& record) {
    Errors::clear();
    if (!valid) {
        Errors::set(badArgs);
        return 0;
    }
    if (zorv::telemetry::on()) record(zorv::telemetry::recorder());
    return 1;
}

Key keyOf(Kind kind, const char* name, const char* unit) {
    return {kind, bounded(name), unit ? bounded(unit) : "1", "", ""};
}

}  // namespace

void zorv_telemetry_enable(int on) {
    Errors::clear();
    zorv::telemetry::enabled = on != 0;
}

int zorv_telemetry_enabled(void) {
    Errors::clear();
    return zorv::telemetry::on() ? 1 : 0;
}

int zorv_telemetry_count(const char* name, const char* unit, uint64_t n) {
    return recorded("zorv_telemetry_count: bad args", name && *name,
                    [&](auto& recorder) { recorder.count(keyOf(Kind::kCounter, name, unit), n); });
}

int zorv_telemetry_gauge(const char* name, const char* unit, double value) {
    return recorded("zorv_telemetry_gauge: bad args", name && *name, [&](auto& recorder) {
        recorder.gauge(keyOf(Kind::kGauge, name, unit), value);
    });
}

int zorv_telemetry_duration(const char* name, double seconds) {
    return recorded("zorv_telemetry_duration: bad args", name && *name, [&](auto& recorder) {
        recorder.duration(keyOf(Kind::kHistogram, name, "s"), seconds);
    });
}

int zorv_telemetry_event(const char* name, const char* text) {
    return recorded("zorv_telemetry_event: bad args", name && *name && text,
                    [&](auto& recorder) { recorder.event(bounded(name), bounded(text)); });
}

size_t zorv_telemetry_pending(void) {
    Errors::clear();
    return zorv::guarded<Errors>("zorv_telemetry_pending", size_t{0},
                                 [] { return zorv::telemetry::recorder().pending(); });
}

size_t zorv_telemetry_take(char* buf, size_t cap) {
    Errors::clear();
    return zorv::guarded<Errors>("zorv_telemetry_take", size_t{0}, [&] {
        const size_t size = zorv::telemetry::recorder().take(buf, cap);
        if (size > cap || (size > 0 && !buf)) {
            constexpr std::string_view kTooSmall = "zorv_telemetry_take: buffer too small";
            // Without a buffer a host asks for the size, which is no failure.
            if (buf && cap > 0) {
                Errors::set(kTooSmall);
            } else {
                Errors::repeat(kTooSmall);
            }
        }
        return size;
    });
}

void zorv_telemetry_clear(void) {
    Errors::clear();
    zorv::guarded<Errors>("zorv_telemetry_clear", 0, [] {
        zorv::telemetry::recorder().clear();
        return 1;
    });
}

const char* zorv_telemetry_last_error(void) {
    return Errors::get();
}
