// What an inspection tells about one model file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zorv::tools {

/** One dimension of a model's tensor; a symbolic one has size -1. */
struct Dimension {
    int64_t size;
    std::string symbol;
};

struct ModelTensor {
    std::string name, type;
    std::vector<Dimension> shape;  // empty when the model does not declare one
};

struct ModelReport {
    std::string graph;             // "standard", "FeatSynth" or "delta"
    std::optional<int64_t> batch;  // renderers; nothing when the model does not fix it
    std::vector<ModelTensor> inputs, outputs;
    std::optional<std::pair<float, float>> range;  // of the crop that it rendered on trial
};

}  // namespace zorv::tools
