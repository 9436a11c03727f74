#include "live_report.h"

#include <fmt/format.h>

#include <cmath>
#include <nlohmann/json.hpp>

namespace zorv::tools {
namespace {

nlohmann::json number(double value) {
    return std::isnan(value) ? nlohmann::json() : nlohmann::json(value);
}

}  // namespace

std::string liveReportText(const LiveReport& report) {
    const driver::SessionReport& session = report.session;
    std::string text = fmt::format("ready after {:.2f} s\n", session.readySeconds);
    if (!session.firstFrames.empty()) {
        const driver::FirstFrame& first = session.firstFrames.front();
        text += fmt::format(
            "first speech frame: {:.0f} ms after the first sample it was finished ({:.0f} ms of "
            "audio look-ahead, {:.0f} ms of computing), after {:.0f} ms it was pulled\n",
            first.finished, first.lookAhead, first.computing(), first.pulled);
    }
    if (!session.interruptMs.empty()) {
        text += fmt::format(
            "interrupt: another frame after {:.1f} ms, {} speech frames pulled after it\n",
            session.interruptMs.front(), session.speechAfterInterrupt);
    }
    text += fmt::format(
        "frames: {} idle, {} speech, {} ramp; {} late, {} of them after the first second\n",
        session.idle, session.speech, session.ramp, session.late, session.lateAfterFirstSecond);
    text += fmt::format(
        "pulled {:.1f} ms (median), {:.1f} ms (99 %) after the schedule; {:.1f} ms of rendering "
        "per speech frame; {:.2f} s of processor time per second\n",
        session.jitterP50, session.jitterP99, session.renderMs,
        session.cpuSeconds / session.videoSeconds);
    if (report.sync) {
        text += fmt::format("mouth and sound: lag {} frames, correlation {:.3f}\n",
                            report.sync->lag, report.sync->correlation);
    }
    if (session.failures > 0) {
        text += fmt::format("{} failures, the latest: {}\n", session.failures, session.failure);
    }
    return text;
}

std::string liveReportJson(const LiveReport& report) {
    const driver::SessionReport& session = report.session;
    const driver::FirstFrame first =
        session.firstFrames.empty() ? driver::FirstFrame() : session.firstFrames[0];
    nlohmann::json result = {
        {"output", report.output.empty() ? nlohmann::json() : nlohmann::json(report.output)},
        {"ready_seconds", session.readySeconds},
        {"first_frame_finished_ms", number(first.finished)},
        {"first_frame_pulled_ms", number(first.pulled)},
        {"look_ahead_ms", number(first.lookAhead)},
        {"computing_ms", number(first.computing())},
        {"interrupt_to_frame_ms", number(driver::quantile(session.interruptMs, 0))},
        {"speech_after_interrupt", session.speechAfterInterrupt},
        {"speech_begins_seconds", number(session.speechBegins)},
        {"pull_jitter_p50_ms", number(session.jitterP50)},
        {"pull_jitter_p99_ms", number(session.jitterP99)},
        {"idle_frames", session.idle},
        {"speech_frames", session.speech},
        {"ramp_frames", session.ramp},
        {"late_frames", session.late},
        {"late_after_first_second", session.lateAfterFirstSecond},
        {"late_at_interrupt", session.lateAtInterrupt},
        {"due_speech_frames", session.dueSpeech},
        {"shown_speech_frames", session.shownSpeech},
        {"left_out_late", session.leftOutLate},
        {"render_ms", session.renderMs},
        {"video_seconds", session.videoSeconds},
        {"cpu_per_second", session.cpuSeconds / session.videoSeconds},
        {"lag_frames", nullptr},
        {"correlation", nullptr},
        {"failures", session.failures},
        {"failure", session.failure},
    };
    if (report.sync) {
        result["lag_frames"] = report.sync->lag;
        result["correlation"] = report.sync->correlation;
    }
    return result.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace zorv::tools
