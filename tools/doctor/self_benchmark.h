// Live sessions and a clip of the batch path on a prepared subject, measured here and now.
#pragma once

#include <cstdint>
#include <string>

#include "live_report.h"
#include "session_verdict.h"

namespace zorv::tools {

struct BenchmarkSubject {
    std::string bundle, motionDir, encoder;
    int threads = 1;  // of the models, per session
};

struct LiveMeasure {
    LiveReport report;  // of a line said to its end and one that is interrupted
    double cpuMsPerSpeechFrame = 0;
    SessionCost cost;
    SessionsRun run;
};

struct BatchMeasure {
    int frames = 0;
    double loadSeconds = 0, seconds = 0, cpuSeconds = 0;
    double fps() const { return frames / seconds; }
};

/// One session in real time, its target frames decoded before. speechSeconds: of the line.
LiveMeasure measureLive(const BenchmarkSubject& subject, int speechSeconds);

/// So many sessions of one process at a time, as a host would have them, each speaking for so long.
SessionsRun measureSessions(const BenchmarkSubject& subject, int sessions, int speechSeconds);

/// Four seconds of speech through the batch stream, repeated until the time suffices for a figure,
/// after one run that fills the caches.
BatchMeasure measureBatch(const BenchmarkSubject& subject);

}  // namespace zorv::tools
