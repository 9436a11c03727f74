// The streaming delta model: a whole clip of speech becomes keypoint offsets.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "common/model_run.h"
#include "stream/delta_math.h"

namespace zorv {

/// What the recurrent model has to look like: context, previous offsets and state in, offsets and
/// state out.
ModelContract deltaContract();

/// Owns the speech encoder and the recurrent model. One thread at a time.
///
/// A clip flows through window by window: encoder -> embeddings of the window's frames -> centred
/// embeddings in a short ring -> recurrent model, as soon as a frame's context is there. Of the
/// whole clip only the energies are kept, one float per frame.
class DeltaModel {
  public:
    DeltaModel(const std::string& encoderPath, const std::string& streamingPath, int threads);

    /// While `stop` is true, deltas throws Cancelled before its next model run. The flag
    /// outlives the model.
    void stopWhen(const std::atomic<bool>& stop) { stop_ = &stop; }

    /// Writes frameCount(n) x 63 offsets. n >= 1.
    void deltas(const float* audio, int n, float* out);

  private:
    struct Recurrence;

    void checkStop() const;
    /// One frame: context, previous offsets and state become the frame's offsets and next state.
    void step(Recurrence& state, float* out);

    ModelRun encoder_, streaming_;
    const std::atomic<bool>* stop_ = nullptr;
};

}  // namespace zorv

struct zorv_fca : zorv::DeltaModel {
    using DeltaModel::DeltaModel;
};
