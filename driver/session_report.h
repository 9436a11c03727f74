// What a session showed, in numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "session.h"

namespace zorv::driver {

/// Times of the first speech frame of a line, in milliseconds since its first pushed sample.
struct FirstFrame {
    double lookAhead = kNotMeasured;  // the sound that the source needs had been pushed
    double finished = kNotMeasured;   // the frame could be pulled
    double pulled = kNotMeasured;     // the viewer had it
    double computing() const { return finished - lookAhead; }
};

struct SessionReport {
    double readySeconds = 0;
    std::vector<FirstFrame> firstFrames;  // of the lines that had one
    std::vector<double> interruptMs;      // from interrupts to a frame that can be pulled
    int speechAfterInterrupt = 0;         // frames of a line pulled after its end
    double speechBegins = kNotMeasured;   // in the video, seconds
    double jitterP50 = 0, jitterP99 = 0;  // from the schedule to the frame in hand, ms
    int idle = 0, speech = 0, ramp = 0, late = 0;
    int lateAfterFirstSecond = 0;  // of a line, lateAtInterrupt among them
    int lateAtInterrupt = 0;       // in the tenth of a second after one
    int64_t dueSpeech = 0;         // frames of the lines that were said to their end
    int64_t shownSpeech = 0;       // of the same lines
    uint64_t leftOutLate = 0;      // speech frames, for being late
    double renderMs = 0;           // per speech frame
    double videoSeconds = 0, cpuSeconds = 0;
    uint64_t failures = 0;
    std::string failure;
};

SessionReport makeReport(double readySeconds, const SessionLog& log);

/// The value of which `share` of all are below; kNotMeasured of none.
double quantile(std::vector<double> values, double share);

}  // namespace zorv::driver
