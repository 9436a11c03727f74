// ONNX Runtime as every subsystem uses it; included by sources only, never by an engine's header.
// Failures throw with the runtime's text.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/model.h"

namespace zorv {

/// An environment that logs warnings under `logId`. Throws when the loaded runtime is older than
/// the headers that the library was built with.
Ort::Env makeOrtEnv(const char* logId);

/// Options with `intraOpThreads` as given, one inter-op thread and all graph optimisations.
Ort::SessionOptions makeSessionOptions(int intraOpThreads);

/// Options of the CoreML provider for "coreml[:cpu|gpu|ane]" (any other unit: all of them);
/// compiled models go to `cacheDir`.
std::unordered_map<std::string, std::string> coreMlOptions(const std::string& ep,
                                                           const std::string& cacheDir);

/// The product of the dimensions.
std::size_t elementCount(const std::vector<std::int64_t>& shape);

/// A float tensor over memory of the caller, who keeps it alive and in place as long as the
/// tensor or a binding that holds it. `count` must be the product of the dimensions.
Ort::Value tensorOver(float* data, std::size_t count, const std::vector<std::int64_t>& shape);

struct Model::Session {
    Session(Ort::Env environment, Ort::Session opened)
        : env(std::move(environment)), session(std::move(opened)) {}

    Ort::Env env;  // released after the session
    Ort::Session session;
    std::atomic<bool> hasRun{false};  ///< a run has succeeded
};

/// The model of a session that was made in `env`. `path` is for texts only.
std::shared_ptr<const Model> makeModel(const std::string& path, Ort::Env env, Ort::Session session);

}  // namespace zorv
