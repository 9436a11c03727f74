// Where the expression engine's sessions run: on the CPU, or on a CUDA device when asked.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "common/model.h"

namespace Ort {
struct SessionOptions;
}

namespace zorv::a2x {

/// The device memory limit in bytes that `ZORV_A2X_CUDA_MEM_MIB` (null = unset) asks for;
/// 3072 MiB unless it is above 0.
std::size_t cudaMemoryLimit(const char* setting);

/// Appends the CUDA provider when `ZORV_A2X_CUDA` is "1" and the tag is "w2v" (the speech
/// encoder's sessions) or `ZORV_A2X_CUDA_ALL` is "1" too. Says on standard error what came of it
/// and returns whether it was appended; otherwise the options are as they were.
bool zorv_a2x_maybe_cuda(Ort::SessionOptions& options, const char* tag);

/// How one kind of models is opened, chosen once.
class ProviderChoice {
  public:
    /// `threads` of the model runtime, at least 1 in effect; they sleep between runs, as many
    /// engines may share one machine. `tag`: "w2v" or "enc/dec"; a literal.
    ProviderChoice(int threads, const char* tag);
    ~ProviderChoice();

    /// Opens a model, or takes an equal one that somebody still holds. A device that refuses it is
    /// given up, with the line of a provider that was not appended, and this model and all later
    /// ones run on the CPU. Throws with the runtime's text.
    std::shared_ptr<const Model> open(const std::string& path);

  private:
    std::shared_ptr<const Model> openShared(const std::string& path);

    int threads_;
    const char* tag_;
    std::unique_ptr<Ort::SessionOptions> options_;
    bool onDevice_;
};

}  // namespace zorv::a2x
