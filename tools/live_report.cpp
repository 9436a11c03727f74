#include "live_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace zorv::tools {
namespace {

constexpr double kFirstSecond = 1000, kAtInterrupt = 100;  // ms
constexpr int kIdle = 0, kSpeech = 1;

FirstFrame first_frame(const LineLog& line, size_t look_ahead_pieces) {
    FirstFrame first;
    first.finished = line.first_finished_ms;
    const size_t needed = std::min(look_ahead_pieces, line.pushed_ms.size());
    if (needed > 0) first.look_ahead = static_cast<double>(line.pushed_ms[needed - 1]);
    return first;
}

void count_late(LiveReport& report, const Tick& tick, const std::vector<LineLog>& lines) {
    ++report.late;
    if (tick.line < 0) {
        ++report.late_after_first_second;
        return;
    }
    const LineLog& line = lines[static_cast<size_t>(tick.line)];
    if (tick.begin_ms <= line.begin_ms + kFirstSecond) return;
    ++report.late_after_first_second;
    if (line.interrupted && tick.begin_ms >= line.interrupted_ms &&
        tick.begin_ms < line.interrupted_ms + kAtInterrupt)
        ++report.late_at_interrupt;
}

void count_frame(LiveReport& report, const Tick& tick, const std::vector<LineLog>& lines,
                 std::vector<FirstFrame>& firsts) {
    if (tick.kind != kSpeech) {
        ++(tick.kind == kIdle ? report.idle : report.ramp);
        return;
    }
    ++report.speech;
    if (tick.line < 0) return;
    const LineLog& line = lines[static_cast<size_t>(tick.line)];
    if (!line.interrupted) ++report.shown_speech;
    if (line.interrupted && tick.begin_ms > line.interrupted_ms) ++report.speech_after_interrupt;
    if (tick.speech_sequence == 0)
        firsts[static_cast<size_t>(tick.line)].pulled =
            tick.begin_ms + static_cast<double>(tick.pull_ms) - line.begin_ms;
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

LiveReport make_report(double ready_seconds, const SessionLog& log, size_t look_ahead_pieces) {
    LiveReport report;
    report.ready_seconds = ready_seconds;
    report.render_ms = log.stats.render_ms;
    report.cpu_seconds = log.cpu_seconds;
    report.failures = log.failures;
    report.failure = log.failure;
    std::vector<FirstFrame> firsts;
    for (const LineLog& line : log.lines) {
        firsts.push_back(first_frame(line, look_ahead_pieces));
        if (line.interrupted)
            report.interrupt_ms.push_back(line.interrupt_to_frame_ms);
        else
            report.due_speech +=
                static_cast<int64_t>((line.samples + kFrameSamples - 1) / kFrameSamples);
    }
    std::vector<double> delays;
    int64_t seen = 0;  // the video begins with the first frame that was had
    for (const Tick& tick : log.ticks) {
        if (tick.kind == kSpeech && std::isnan(report.speech_begins))
            report.speech_begins = static_cast<double>(seen) / 25;
        if (tick.frame >= 0) ++seen;
        if (tick.kind == Tick::kLate) {
            count_late(report, tick, log.lines);
            continue;
        }
        count_frame(report, tick, log.lines, firsts);
        delays.push_back(static_cast<double>(tick.delay_ms));
    }
    report.video_seconds = static_cast<double>(seen) / 25;
    report.jitter_p50 = quantile(delays, 0.5);
    report.jitter_p99 = quantile(delays, 0.99);
    for (const FirstFrame& first : firsts)
        if (!std::isnan(first.pulled)) report.first_frames.push_back(first);
    return report;
}

std::string live_report_text(const LiveReport& report) {
    std::string text = fmt::format("ready after {:.2f} s\n", report.ready_seconds);
    if (!report.first_frames.empty()) {
        const FirstFrame& first = report.first_frames.front();
        text += fmt::format(
            "first speech frame: {:.0f} ms after the first sample it was finished ({:.0f} ms of "
            "audio look-ahead, {:.0f} ms of computing), after {:.0f} ms it was pulled\n",
            first.finished, first.look_ahead, first.computing(), first.pulled);
    }
    if (!report.interrupt_ms.empty())
        text += fmt::format(
            "interrupt: another frame after {:.1f} ms, {} speech frames pulled after it\n",
            report.interrupt_ms.front(), report.speech_after_interrupt);
    text += fmt::format(
        "frames: {} idle, {} speech, {} ramp; {} late, {} of them after the first second\n",
        report.idle, report.speech, report.ramp, report.late, report.late_after_first_second);
    text += fmt::format(
        "pulled {:.1f} ms (median), {:.1f} ms (99 %) after the schedule; {:.1f} ms of rendering "
        "per speech frame; {:.2f} s of processor time per second\n",
        report.jitter_p50, report.jitter_p99, report.render_ms,
        report.cpu_seconds / report.video_seconds);
    if (report.synced)
        text += fmt::format("mouth and sound: lag {} frames, correlation {:.3f}\n", report.sync.lag,
                            report.sync.correlation);
    if (report.failures > 0)
        text += fmt::format("{} failures, the latest: {}\n", report.failures, report.failure);
    return text;
}

std::string live_report_json(const LiveReport& report) {
    const FirstFrame first = report.first_frames.empty() ? FirstFrame() : report.first_frames[0];
    nlohmann::json result = {
        {"output", report.output.empty() ? nlohmann::json() : nlohmann::json(report.output)},
        {"ready_seconds", report.ready_seconds},
        {"first_frame_finished_ms", number(first.finished)},
        {"first_frame_pulled_ms", number(first.pulled)},
        {"look_ahead_ms", number(first.look_ahead)},
        {"computing_ms", number(first.computing())},
        {"interrupt_to_frame_ms", number(quantile(report.interrupt_ms, 0))},
        {"speech_after_interrupt", report.speech_after_interrupt},
        {"speech_begins_seconds", number(report.speech_begins)},
        {"pull_jitter_p50_ms", number(report.jitter_p50)},
        {"pull_jitter_p99_ms", number(report.jitter_p99)},
        {"idle_frames", report.idle},
        {"speech_frames", report.speech},
        {"ramp_frames", report.ramp},
        {"late_frames", report.late},
        {"late_after_first_second", report.late_after_first_second},
        {"late_at_interrupt", report.late_at_interrupt},
        {"due_speech_frames", report.due_speech},
        {"shown_speech_frames", report.shown_speech},
        {"render_ms", report.render_ms},
        {"video_seconds", report.video_seconds},
        {"cpu_per_second", report.cpu_seconds / report.video_seconds},
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
