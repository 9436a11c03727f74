// What a live session showed, in numbers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lip_sync.h"
#include "live_session.h"

namespace zorv::tools {

/** Times of the first speech frame of a line, in milliseconds since its first pushed sample. */
struct FirstFrame {
    double look_ahead = kNotMeasured;  // the sound that the source needs had been pushed
    double finished = kNotMeasured;    // the frame could be pulled
    double pulled = kNotMeasured;      // the viewer had it
    double computing() const { return finished - look_ahead; }
};

struct LiveReport {
    std::string output;  // "" when none is kept
    double ready_seconds = 0;
    std::vector<FirstFrame> first_frames;   // of the lines that had one
    std::vector<double> interrupt_ms;       // from interrupts to a frame that can be pulled
    int speech_after_interrupt = 0;         // frames of a line pulled after its end
    double speech_begins = kNotMeasured;    // in the video, seconds
    double jitter_p50 = 0, jitter_p99 = 0;  // from the schedule to the frame in hand, ms
    int idle = 0, speech = 0, ramp = 0, late = 0;
    int late_after_first_second = 0;  // of a line, late_at_interrupt among them
    int late_at_interrupt = 0;        // in the tenth of a second after one
    int64_t due_speech = 0;           // frames of the lines that were said to their end
    int64_t shown_speech = 0;         // of the same lines
    double render_ms = 0;             // per speech frame
    double video_seconds = 0, cpu_seconds = 0;
    uint64_t failures = 0;
    std::string failure;
    bool synced = false;  // `sync` was measured
    LipSync sync;
};

/** look_ahead_pieces: see pieces_before_first_frame; 0 when it was not measured. */
LiveReport make_report(double ready_seconds, const SessionLog& log, size_t look_ahead_pieces);

/** The value of which `share` of all are below; kNotMeasured of none. */
double quantile(std::vector<double> values, double share);

std::string live_report_text(const LiveReport& report);
std::string live_report_json(const LiveReport& report);

}  // namespace zorv::tools
