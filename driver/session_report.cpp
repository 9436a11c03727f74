#include "session_report.h"

#include <algorithm>
#include <cmath>

namespace zorv::driver {
namespace {

constexpr double kFirstSecond = 1000, kAtInterrupt = 100;  // ms
constexpr int kIdle = 0, kSpeech = 1;

FirstFrame firstFrame(const LineLog& line, const SessionLog& log) {
    FirstFrame first;
    first.finished = line.firstFinishedMs;
    const int piece = log.rate / 50;
    const auto lookAhead = static_cast<size_t>((log.lookAhead + piece - 1) / piece);
    const size_t needed = std::min(lookAhead, line.pushedMs.size());
    if (needed > 0) first.lookAhead = static_cast<double>(line.pushedMs[needed - 1]);
    return first;
}

void countLate(SessionReport& report, const Tick& tick, const std::vector<LineLog>& lines) {
    ++report.late;
    if (tick.line < 0) {
        ++report.lateAfterFirstSecond;
        return;
    }
    const LineLog& line = lines[static_cast<size_t>(tick.line)];
    if (tick.beginMs <= line.beginMs + kFirstSecond) return;
    ++report.lateAfterFirstSecond;
    if (line.interrupted && tick.beginMs >= line.interruptedMs &&
        tick.beginMs < line.interruptedMs + kAtInterrupt) {
        ++report.lateAtInterrupt;
    }
}

void countFrame(SessionReport& report, const Tick& tick, const std::vector<LineLog>& lines,
                std::vector<FirstFrame>& firsts) {
    if (tick.kind != kSpeech) {
        ++(tick.kind == kIdle ? report.idle : report.ramp);
        return;
    }
    ++report.speech;
    if (tick.line < 0) return;
    const LineLog& line = lines[static_cast<size_t>(tick.line)];
    if (!line.interrupted) ++report.shownSpeech;
    if (line.interrupted && tick.beginMs > line.interruptedMs) ++report.speechAfterInterrupt;
    if (tick.speechSequence == 0) {
        firsts[static_cast<size_t>(tick.line)].pulled =
            tick.beginMs + static_cast<double>(tick.pullMs) - line.beginMs;
    }
}

}  // namespace

double quantile(std::vector<double> values, double share) {
    if (values.empty()) return kNotMeasured;
    const auto rank = std::lround(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + rank, values.end());
    return values[static_cast<size_t>(rank)];
}

SessionReport makeReport(double readySeconds, const SessionLog& log) {
    SessionReport report;
    report.readySeconds = readySeconds;
    report.renderMs = log.stats.render_ms;
    report.cpuSeconds = log.cpuSeconds;
    report.failures = log.failures;
    report.failure = log.failure;
    report.leftOutLate = log.leftOutLate;
    const auto frameSamples = static_cast<size_t>(log.rate) / 25;
    std::vector<FirstFrame> firsts;
    for (const LineLog& line : log.lines) {
        firsts.push_back(firstFrame(line, log));
        if (line.interrupted) {
            report.interruptMs.push_back(line.interruptToFrameMs);
        } else {
            report.dueSpeech +=
                static_cast<int64_t>((line.samples + frameSamples - 1) / frameSamples);
        }
    }
    std::vector<double> delays;
    int64_t seen = 0;  // the video begins with the first frame that was had
    for (const Tick& tick : log.ticks) {
        if (tick.kind == kSpeech && std::isnan(report.speechBegins)) {
            report.speechBegins = static_cast<double>(seen) / 25;
        }
        if (tick.frame >= 0) ++seen;
        if (tick.kind == Tick::kLate) {
            countLate(report, tick, log.lines);
            continue;
        }
        countFrame(report, tick, log.lines, firsts);
        delays.push_back(static_cast<double>(tick.delayMs));
    }
    report.videoSeconds = static_cast<double>(seen) / 25;
    report.jitterP50 = quantile(delays, 0.5);
    report.jitterP99 = quantile(delays, 0.99);
    for (const FirstFrame& first : firsts) {
        if (!std::isnan(first.pulled)) report.firstFrames.push_back(first);
    }
    return report;
}

}  // namespace zorv::driver
