// One neural model of the motion engine.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "common/ort.h"

namespace zorv::motion {

struct FloatArray {
    float* data;
    std::size_t count;
};

/// Owns one session. Inputs are bound by position, in the shapes that the model declares. One
/// thread at a time.
class Net {
  public:
    Net() = default;

    /// `ep`: "" for the CPU or "coreml[:cpu|gpu|ane]", whose compiled models go to `cacheDir`;
    /// anything else throws "zorv_motion: unknown ep '...'".
    static Net open(const Ort::Env& env, const std::string& path, int threads,
                    const std::string& ep, const std::string& cacheDir);

    /// Reads the inputs and writes the output in place. The arrays are bound on the first run and
    /// stay bound while the same ones are given: such runs allocate nothing outside the runtime.
    void run(std::initializer_list<FloatArray> inputs, FloatArray output,
             const std::vector<std::int64_t>& outputShape);

  private:
    void bind(std::initializer_list<FloatArray> inputs, FloatArray output,
              const std::vector<std::int64_t>& outputShape);
    bool isBoundTo(std::initializer_list<FloatArray> inputs, FloatArray output) const;

    std::string path_;
    std::vector<std::string> inputNames_, outputNames_;
    std::vector<std::vector<std::int64_t>> inputShapes_;
    // Released in reverse order: binding and tensors before the session.
    Ort::Session session_{nullptr};
    std::vector<Ort::Value> tensors_;
    Ort::IoBinding binding_{nullptr};
    std::vector<const float*> bound_;  ///< inputs, then the output
};

}  // namespace zorv::motion
