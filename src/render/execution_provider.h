// What an execution-provider string asks for.
#pragma once

#include <string>
#include <unordered_map>

namespace zorv {

struct ExecutionProvider {
    std::string name;  ///< as ONNX Runtime knows it; empty for the default CPU provider
    std::unordered_map<std::string, std::string> options;
};

/// "" -> CPU; "xnnpack[:N]" -> N threads (default `threads`; below 1 means 4);
/// "coreml[:cpu|gpu|ane]" with its model cache under `bundleDir`. Anything else throws
/// "Renderer: unknown ep '...'".
ExecutionProvider parseExecutionProvider(const std::string& ep, int threads,
                                         const std::string& bundleDir);

}  // namespace zorv
