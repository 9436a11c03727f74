// Live sessions and a clip of the batch path on a prepared subject, measured here and now.
#pragma once

#include <cstdint>
#include <string>

#include "live_report.h"
#include "session_verdict.h"

namespace zorv::tools {

struct BenchmarkSubject {
    std::string bundle, motion_dir, encoder;
    int threads = 1;  // of the models, per session
};

struct LiveMeasure {
    LiveReport report;  // of a line said to its end and one that is interrupted
    double cpu_ms_per_speech_frame = 0;
    SessionCost cost;
    SessionsRun run;
};

struct BatchMeasure {
    int frames = 0;
    double load_seconds = 0, seconds = 0, cpu_seconds = 0;
    double fps() const { return frames / seconds; }
};

/** One session in real time, its target frames decoded before. speech_seconds: of the line. */
LiveMeasure measure_live(const BenchmarkSubject& subject, int speech_seconds);

/** So many sessions at a time, each speaking for as long; those of one process, as a host would. */
SessionsRun measure_sessions(const BenchmarkSubject& subject, int sessions, int speech_seconds);

/** Four seconds of speech through the batch stream, again and again until that makes a figure,
 * after a first time for the caches. */
BatchMeasure measure_batch(const BenchmarkSubject& subject);

}  // namespace zorv::tools
