// What an inspection tells about one model file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zorv::tools {

/// One dimension of a model's tensor; a symbolic one has size -1.
struct Dimension {
    int64_t size;
    std::string symbol;
};

struct ModelTensor {
    std::string name, type;
    std::vector<Dimension> shape;  // empty when the model does not declare one
};

/// A GridSample node that the library leaves to the runtime.
struct KeptNode {
    std::string name, why;
};

/// A node that the load-time rewrite makes part of an int8 convolution.
struct FoldedNode {
    std::string type, name, into;
};

/// Nodes by the names that the model gives them, or by their output when it gives none.
struct OperatorCensus {
    std::vector<std::string> rewritten;  // GridSample: made GridSampleFast when the model is loaded
    std::vector<KeptNode> kept;          // GridSample: stay as they are
    std::vector<std::string> fast;       // GridSampleFast already in the file
    std::vector<std::string> int8;       // Int8ConvVNNI
    std::vector<FoldedNode> folded;
    std::vector<std::string> resized;       // Resize: made ResizeFast when the model is loaded
    std::vector<std::string> depthToSpace;  // made DepthToSpaceFast when the model is loaded
};

struct ModelReport {
    std::string graph;             // "standard", "FeatSynth" or "delta"
    std::optional<int64_t> batch;  // renderers; nothing when the model does not fix it
    std::vector<ModelTensor> inputs, outputs;
    std::optional<OperatorCensus> operators;       // renderers
    std::optional<std::pair<float, float>> range;  // of the crop that it rendered on trial
    std::optional<float> rewriteDifference;  // largest, of a crop rendered without the rewrite
};

}  // namespace zorv::tools
