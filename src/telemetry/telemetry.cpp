#include "telemetry/telemetry.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "common/error.h"
#include "telemetry/recorder.h"

namespace zorv::telemetry {
namespace {

Key keyOf(Kind kind, const Metric& metric) {
    return {kind, metric.name, metric.unit, metric.attribute ? metric.attribute : "",
            metric.attributeValue ? metric.attributeValue : ""};
}

bool switchedOn() {
    const char* value = std::getenv("ZORV_TELEMETRY");
    return value && value[0] == '1';
}

/// The words before the next colon, up to the first one that holds a path: a path would tell about
/// the host's machine.
std::string_view leadingWords(std::string_view text) {
    text = text.substr(0, text.find(':'));
    const std::size_t path = text.find('/');
    if (path == std::string_view::npos) return text;
    const std::size_t space = text.rfind(' ', path);
    return text.substr(0, space == std::string_view::npos ? 0 : space);
}

}  // namespace

std::atomic<bool> enabled{[] {
    failureObserver = failure;
    return switchedOn();
}()};

void count(const Metric& metric, std::uint64_t n) {
    if (on()) recorder().count(keyOf(Kind::kCounter, metric), n);
}

void gauge(const Metric& metric, double value) {
    if (on()) recorder().gauge(keyOf(Kind::kGauge, metric), value);
}

void duration(const Metric& metric, double seconds) {
    if (on()) recorder().duration(keyOf(Kind::kHistogram, metric), seconds);
}

void failure(const char* text) {
    if (!on()) return;
    std::string_view rest = text;
    // A text may begin with its function's name more than once.
    std::string_view where = "zorv";
    for (std::size_t end; rest.starts_with("zorv_") && (end = rest.find(": ")) != rest.npos;) {
        where = rest.substr(0, end);
        rest.remove_prefix(end + 2);
    }
    const std::string_view reason = leadingWords(rest);
    std::array<char, 128> cause;
    std::snprintf(cause.data(), cause.size(), "%.*s: %.*s", static_cast<int>(where.size()),
                  where.data(), static_cast<int>(reason.size()), reason.data());
    recorder().count({Kind::kCounter, "zorv.failures", "{failure}", "zorv.cause", cause.data()}, 1);
}

}  // namespace zorv::telemetry
