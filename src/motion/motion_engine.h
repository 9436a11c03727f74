// The motion engine: speech in pieces becomes keypoint frames.
#pragma once

#include <string>

#include "motion/motion_emitter.h"
#include "motion/motion_features.h"
#include "motion/motion_generator.h"
#include "motion/motion_math.h"
#include "motion/motion_models.h"

namespace zorv::motion {

/// One stream at a time, one thread at a time.
///
///     push -> audio -> windows -> rows -> chunks -> results -> pull
///             `------ FrontEnd -------'  `-- Generator --'    `- Emitter
///
/// push only appends; avail and pull first advance() windows and chunks as far as the audio
/// allows. Without eager passes a frame is handed out only when nothing later can change it, so
/// that the frames do not depend on how the audio was cut or when anyone asked.
class MotionEngine {
  public:
    /// `threads` below 1 means 1. `ep` as in MotionModels.
    MotionEngine(const std::string& dir, int threads, const std::string& ep);

    int nt() const { return tables_.nt; }
    bool finished() const { return total_ >= 0; }
    /// Frames of the finished stream, -1 before.
    std::int64_t total() const { return total_; }
    /// At most so many samples, from a frame's first one on, must have come before it can be
    /// pulled. With adaptive passes it depends on their cost so far.
    int lookAheadSamples() const;
    /// Eager: 0 off, N > 0 a pass every N frames of audio, negative by the cost of a pass.
    void setEager(int value) { eager_ = value; }

    void push(const float* samples, std::size_t n) { front_.push(samples, n); }
    void finish();
    /// Frames that pull would hand out now.
    std::int64_t avail();
    /// Hands out up to `max` frames; `idx` may be null.
    int pull(int* idx, float* xs, float* xd, int max);
    void reset(int startFrame, int direction, bool loop);

  private:
    void advance();
    bool windowDue() const;
    bool chunkDue() const;
    bool eagerPassDue(std::int64_t covered) const;
    void eagerAdvance(std::int64_t covered);
    std::int64_t ready() const;
    void emitNext(int* idx, float* xs, float* xd);
    void dumpRows() const;

    const Dump dump_ = Dump::fromEnvironment();
    const MotionTables tables_;
    MotionModels models_;
    FrontEnd front_;
    Generator generator_;
    Emitter emitter_;

    std::int64_t total_ = -1;
    std::int64_t emitted_ = 0;
    Cursor cursor_;

    int eager_ = 0;
    double latencyMs_ = 0;              ///< average cost of an eager pass; 0 before the first
    std::int64_t eagerCovered_ = 0;     ///< frames that the last pass covered
    std::int64_t eagerHighest_ = 0;     ///< the highest provisional frame
    bool chunkSinceEagerPass_ = false;  ///< a real chunk ran
};

}  // namespace zorv::motion
