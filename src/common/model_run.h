// One user's way of running a model.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "common/model_contract.h"

namespace zorv {

/// When the memory that runs have needed goes back to the system.
enum class GiveBack {
    kNever,
    kAfterFirst,  ///< a model's first run needs more than all later ones
    kAlways,
};

/// Inputs and outputs of one user, kept from run to run. The model is shared: several ModelRuns run
/// it at once, and what one does (stop() too) is not seen by another. One thread at a time, but for
/// stop().
class ModelRun {
  public:
    /// Throws as agreementOf does.
    ModelRun(std::shared_ptr<const Model> model, const ModelContract& contract,
             GiveBack giveBack = GiveBack::kNever);
    ~ModelRun();
    ModelRun(ModelRun&&) noexcept;
    ModelRun& operator=(ModelRun&&) noexcept;

    const Model& model() const;

    /// From now on runs read `data`, which stays where it is. `shape` is for inputs that the
    /// contract leaves open; all others have their agreed one. Indices are the contract's.
    void bindInput(std::size_t index, const float* data);
    void bindInput(std::size_t index, const float* data, const std::vector<std::int64_t>& shape);
    /// From now on runs write to `data`. Without it the first run makes memory for the output,
    /// which all later ones write again.
    void bindOutput(std::size_t index, float* data);
    /// The next run makes the memory of its outputs anew. To be called before runs whose outputs
    /// have another shape.
    void forgetOutputs();

    /// Throws with the runtime's text. An output of another shape than the bound one is a failure.
    void run();

    /// The values of an output that is not bound, at least `least` of them; valid until the next
    /// run. Throws "output NAME: expected at least N float32 values, found ...".
    const float* floats(std::size_t index, std::size_t least);
    /// The same of a half-precision output, with its shape.
    struct Halves {
        const std::uint16_t* values;
        std::vector<std::int64_t> shape;
    };
    Halves halves(std::size_t index) const;

    /// Ends a run on another thread: it throws soon, and so does every later one until rearm(). Any
    /// thread; the two calls must not overlap.
    void stop();
    void rearm();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace zorv
