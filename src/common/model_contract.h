// What the user of a model asks of it, and whether the model can give it. Checked when the model is
// opened, so that no run fails for a reason that was there from the start.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/model.h"

namespace zorv {

enum class Fit {
    kShape,    ///< the wanted shape, dimension by dimension
    kCount,    ///< as many values, in the model's own shape
    kAtLeast,  ///< as many values or more, in any shape
};

struct TensorContract {
    std::string name;                 ///< empty: whatever stands at this place
    std::vector<std::int64_t> shape;  ///< -1: any size, which each run may choose
    Fit fit = Fit::kShape;
    const char* type = "float32";
};

struct ModelContract {
    std::vector<TensorContract> inputs;   ///< all that the model has
    std::vector<TensorContract> outputs;  ///< the model may have others
};

/// A tensor that is not as the contract wants it. Points into the model and the contract.
struct ContractBreach {
    bool input;                    ///< or an output
    const TensorContract* wanted;  ///< null: an input that nobody feeds
    const ModelTensor* found;      ///< null: the model has none
    std::string text;  ///< "FILE: input NAME: wanted float32 [1, 21, 3], found float32 [1, 63]"
};

/// The contract's inputs and outputs with the model's names and the shapes to run them in: where
/// the model leaves a dimension open it takes the wanted one. A dimension that is open in both
/// stays -1. Whole when there are no breaches.
struct ModelAgreement {
    ModelAgreement(const Model& model, const ModelContract& contract);
    std::vector<ModelTensor> inputs, outputs;
    std::vector<ContractBreach> breaches;
};

/// An agreement without breaches; throws the text of the first.
ModelAgreement agreementOf(const Model& model, const ModelContract& contract);

}  // namespace zorv
