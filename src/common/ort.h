// Owners over ONNX Runtime that every subsystem shares. Failures throw with the runtime's text.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <cstdint>
#include <initializer_list>
#include <string>
#include <unordered_map>
#include <vector>

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

/// The float32 values of a model's output, checked to be at least `least`. Throws
/// "output NAME: expected at least N float32 values, found ...".
const float* outputFloats(const Ort::Value& output, const char* name, std::size_t least);

/// A session whose inputs and outputs are bound once to memory of the caller; `run` then neither
/// allocates tensors nor looks up names. One thread at a time.
class BoundSession {
  public:
    BoundSession() = default;
    explicit BoundSession(Ort::Session session);

    void bindInput(const char* name, float* data, std::size_t count,
                   const std::vector<std::int64_t>& shape);
    void bindOutput(const char* name, float* data, std::size_t count,
                    const std::vector<std::int64_t>& shape);

    void run(const Ort::RunOptions& options = Ort::RunOptions{nullptr});

    Ort::Session& session() { return session_; }

  private:
    // Released in reverse order: binding and tensors before the session.
    Ort::Session session_{nullptr};
    std::vector<Ort::Value> tensors_;
    Ort::IoBinding binding_{nullptr};
};

/// The shape of the input called `name`; symbolic dimensions are -1. Empty when there is no such
/// tensor input.
std::vector<std::int64_t> inputShape(const Ort::Session& session, const std::string& name);

/// Whether the model has an input called `name`.
bool hasInput(const Ort::Session& session, const std::string& name);

}  // namespace zorv
