// How a renderer's model is opened, and what it has to look like.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "common/model_contract.h"

namespace zorv {

/// What an execution-provider string asks for.
struct ExecutionProvider {
    std::string name;  ///< as ONNX Runtime knows it; empty for the default CPU provider
    std::unordered_map<std::string, std::string> options;
};

/// "" -> CPU; "xnnpack[:N]" -> N threads (default `threads`; below 1 means 4);
/// "coreml[:cpu|gpu|ane]" with its model cache under `bundleDir`. Anything else throws
/// "Renderer: unknown ep '...'".
ExecutionProvider parseExecutionProvider(const std::string& ep, int threads,
                                         const std::string& bundleDir);

/// Opens the model at `path` for renderers, or takes the one that an equal call opened and somebody
/// still holds. GridSample nodes become GridSampleFast nodes where the runtime accepts them; `key`
/// is the model's name for the lines that say so on standard error. `threads` is the runtime's
/// intra-op thread count. Throws with a one-line text.
std::shared_ptr<const Model> openRendererModel(const std::string& path, const std::string& key,
                                               int threads, const ExecutionProvider& provider);

/// A model with the input fs_red is the FeatSynth graph, any other the standard one.
bool isFeatSynth(const Model& model);
/// The input of pooled features.
std::string pooledName(bool featSynth);
/// The batch that the pooled input fixes; a symbolic one is refused on purpose, as is any that
/// 32 bits do not hold.
std::optional<std::int32_t> fixedBatch(const Model& model);
/// What a renderer of B items and crops of side S binds, in this order: pooled features,
/// appearance, driving and source keypoints; out comes the crop.
ModelContract rendererContract(bool featSynth, std::int64_t B, std::int64_t S);

/// An optional feature is on when its variable starts with '1'.
bool switchedOn(const char* variable);

}  // namespace zorv
