// The streaming delta model: a whole clip of speech becomes keypoint offsets.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "common/ort.h"
#include "stream/delta_math.h"

namespace zorv {

/// Owns the speech encoder and the recurrent model. One thread at a time.
///
/// A clip flows through window by window: encoder -> embeddings of the window's frames -> centred
/// embeddings in a short ring -> recurrent model, as soon as a frame's context is there. Of the
/// whole clip only the energies are kept, one float per frame.
class DeltaModel {
  public:
    DeltaModel(const std::string& encoderPath, const std::string& streamingPath, int threads);

    /// While `stop` is true, deltas throws std::runtime_error before its next model run. The flag
    /// outlives the model.
    void stopWhen(const std::atomic<bool>& stop) { stop_ = &stop; }

    /// Writes frameCount(n) x 63 offsets. n >= 1.
    void deltas(const float* audio, int n, float* out);

  private:
    struct Recurrence;

    void checkStop() const;
    /// Encodes one window; returns a checked tensor of at least 10 x 200 x 768 floats.
    Ort::Value encode(float* window);
    /// One frame: context, previous offsets and state become the frame's offsets and next state.
    void step(Recurrence& state, float* out);

    // Released in reverse order: sessions before options and environment.
    Ort::Env env_;
    Ort::SessionOptions options_;
    Ort::Session encoder_{nullptr};
    Ort::Session streaming_{nullptr};

    const std::atomic<bool>* stop_ = nullptr;
};

}  // namespace zorv

struct zorv_fca : zorv::DeltaModel {
    using DeltaModel::DeltaModel;
};
