// An utterance engine in real time between a voice agent that speaks and a viewer who looks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "live_engine.h"

namespace zorv::driver {

constexpr double kNotMeasured = std::numeric_limits<double>::quiet_NaN();

/// What the agent says next: a piece of the sound.
struct Line {
    size_t begin = 0, samples = 0;
    double interruptSeconds = -1;  // after its first sample; negative: said to the end
    double pauseSeconds = 0;       // before the next one; after an interrupt, from that
    bool atOnce = false;           // as fast as it can be pushed, as from a fast synthesiser
};

/// How a line went. Times are milliseconds since the session began.
struct LineLog {
    double beginMs = 0;           // its first sample was pushed
    std::vector<float> pushedMs;  // each piece of 20 ms, since beginMs
    size_t samples = 0;           // pushed
    bool interrupted = false;
    double interruptedMs = kNotMeasured;       // zorv_utt_interrupt returned
    double interruptToFrameMs = kNotMeasured;  // from that call to a frame that can be pulled
    double firstFinishedMs = kNotMeasured;     // first speech frame, since beginMs
};

/// One turn of the viewer's 25 per second.
struct Tick {
    static constexpr int8_t kLate = -1;  // no frame: the last one stands

    double beginMs = 0;
    float pullMs = 0;     // that the pull took
    float delayMs = 0;    // from the schedule until the frame was in hand
    int8_t kind = kLate;  // else as zorv_utt_frame has it
    int32_t line = -1;    // that was spoken last
    int32_t speechSequence = -1;
    int64_t frame = -1;  // the last one pulled, counted from 0
};

struct SessionLog {
    std::vector<LineLog> lines;
    std::vector<Tick> ticks;
    double cpuSeconds = 0;  // of the whole process
    int rate = 16000;       // of the sound
    int lookAhead = 0;      // samples that a frame's first one waits for
    zorv_utt_stats stats = {};
    uint64_t leftOutLate = 0;  // speech frames
    uint64_t failures = 0;
    std::string failure;  // the latest
};

using OnFrame = std::function<void(std::vector<uint8_t>& frame, const std::vector<int16_t>& sound)>;

/// Half a second of idling, then the lines one after the other in pieces of 20 ms, pulling at 25
/// frames per second all the while, on until the last ramp is over and a second of idle frames was
/// seen. Sound and lines are at the engine's rate. `onFrame`, if there is one, gets each pulled
/// frame and its sound, and may swap the frame for another buffer of its size.
SessionLog play(const LiveEngine& engine, const std::vector<int16_t>& sound,
                const std::vector<Line>& lines, const OnFrame& onFrame = nullptr);

}  // namespace zorv::driver
