// A motion vector and a target frame become source and driving keypoints.
#pragma once

#include <array>

#include "common/model_run.h"
#include "motion/motion_dump.h"
#include "motion/motion_tables.h"

namespace zorv::motion {

/// Keeps the first emitted expression of a stream as the zero of all later ones.
class Emitter {
  public:
    /// All three must outlive the emitter.
    Emitter(const MotionTables& tables, ModelRun& stitch, const Dump& dump);
    Emitter(const Emitter&) = delete;  // the model is bound to its arrays
    Emitter& operator=(const Emitter&) = delete;

    /// Writes 63 source and 63 driving floats for target frame `i`. The head pose follows the
    /// target frame; of the motion vector only the lips' expression is used.
    void emitFrame(const float* motion, int i, Dump::Mode mode, float* outXs, float* outXd);
    void reset() { referenceSet_ = false; }

  private:
    const MotionTables& tables_;
    ModelRun& stitch_;
    const Dump& dump_;
    std::array<float, kKeypointFloats> reference_{};
    bool referenceSet_ = false;
    std::array<float, kKeypointFloats> xs_{}, xd_{},
        stitched_{};  ///< what the model reads and writes
};

}  // namespace zorv::motion
