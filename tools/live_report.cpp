#include "live_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace zorv::tools {
namespace {

constexpr double kFirstSecond = 1000, kAtInterrupt = 100;  // ms
constexpr int kIdle = 0, kSpeech = 1;

FirstFrame firstFrame(const LineLog& line, size_t lookAheadPieces) {
    FirstFrame first;
    first.finished = line.firstFinishedMs;
    const size_t needed = std::min(lookAheadPieces, line.pushedMs.size());
    if (needed > 0) first.lookAhead = static_cast<double>(line.pushedMs[needed - 1]);
    return first;
}

void countLate(LiveReport& report, const Tick& tick, const std::vector<LineLog>& lines) {
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

void countFrame(LiveReport& report, const Tick& tick, const std::vector<LineLog>& lines,
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

nlohmann::json number(double value) {
    return std::isnan(value) ? nlohmann::json() : nlohmann::json(value);
}

}  // namespace

double quantile(std::vector<double> values, double share) {
    if (values.empty()) return kNotMeasured;
    const auto rank = std::lround(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + rank, values.end());
    return values[static_cast<size_t>(rank)];
}

LiveReport makeReport(double readySeconds, const SessionLog& log, size_t lookAheadPieces) {
    LiveReport report;
    report.readySeconds = readySeconds;
    report.renderMs = log.stats.render_ms;
    report.cpuSeconds = log.cpuSeconds;
    report.failures = log.failures;
    report.failure = log.failure;
    std::vector<FirstFrame> firsts;
    for (const LineLog& line : log.lines) {
        firsts.push_back(firstFrame(line, lookAheadPieces));
        if (line.interrupted) {
            report.interruptMs.push_back(line.interruptToFrameMs);
        } else {
            report.dueSpeech +=
                static_cast<int64_t>((line.samples + kFrameSamples - 1) / kFrameSamples);
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

std::string liveReportText(const LiveReport& report) {
    std::string text = fmt::format("ready after {:.2f} s\n", report.readySeconds);
    if (!report.firstFrames.empty()) {
        const FirstFrame& first = report.firstFrames.front();
        text += fmt::format(
            "first speech frame: {:.0f} ms after the first sample it was finished ({:.0f} ms of "
            "audio look-ahead, {:.0f} ms of computing), after {:.0f} ms it was pulled\n",
            first.finished, first.lookAhead, first.computing(), first.pulled);
    }
    if (!report.interruptMs.empty()) {
        text += fmt::format(
            "interrupt: another frame after {:.1f} ms, {} speech frames pulled after it\n",
            report.interruptMs.front(), report.speechAfterInterrupt);
    }
    text += fmt::format(
        "frames: {} idle, {} speech, {} ramp; {} late, {} of them after the first second\n",
        report.idle, report.speech, report.ramp, report.late, report.lateAfterFirstSecond);
    text += fmt::format(
        "pulled {:.1f} ms (median), {:.1f} ms (99 %) after the schedule; {:.1f} ms of rendering "
        "per speech frame; {:.2f} s of processor time per second\n",
        report.jitterP50, report.jitterP99, report.renderMs,
        report.cpuSeconds / report.videoSeconds);
    if (report.synced) {
        text += fmt::format("mouth and sound: lag {} frames, correlation {:.3f}\n", report.sync.lag,
                            report.sync.correlation);
    }
    if (report.failures > 0) {
        text += fmt::format("{} failures, the latest: {}\n", report.failures, report.failure);
    }
    return text;
}

std::string liveReportJson(const LiveReport& report) {
    const FirstFrame first = report.firstFrames.empty() ? FirstFrame() : report.firstFrames[0];
    nlohmann::json result = {
        {"output", report.output.empty() ? nlohmann::json() : nlohmann::json(report.output)},
        {"ready_seconds", report.readySeconds},
        {"first_frame_finished_ms", number(first.finished)},
        {"first_frame_pulled_ms", number(first.pulled)},
        {"look_ahead_ms", number(first.lookAhead)},
        {"computing_ms", number(first.computing())},
        {"interrupt_to_frame_ms", number(quantile(report.interruptMs, 0))},
        {"speech_after_interrupt", report.speechAfterInterrupt},
        {"speech_begins_seconds", number(report.speechBegins)},
        {"pull_jitter_p50_ms", number(report.jitterP50)},
        {"pull_jitter_p99_ms", number(report.jitterP99)},
        {"idle_frames", report.idle},
        {"speech_frames", report.speech},
        {"ramp_frames", report.ramp},
        {"late_frames", report.late},
        {"late_after_first_second", report.lateAfterFirstSecond},
        {"late_at_interrupt", report.lateAtInterrupt},
        {"due_speech_frames", report.dueSpeech},
        {"shown_speech_frames", report.shownSpeech},
        {"render_ms", report.renderMs},
        {"video_seconds", report.videoSeconds},
        {"cpu_per_second", report.cpuSeconds / report.videoSeconds},
        {"lag_frames", nullptr},
        {"correlation", nullptr},
        {"failures", report.failures},
        {"failure", report.failure},
    };
    if (report.synced) {
        result["lag_frames"] = report.sync.lag;
        result["correlation"] = report.sync.correlation;
    }
    return result.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace zorv::tools
