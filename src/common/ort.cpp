#include "common/ort.h"

#include <stdexcept>

namespace zorv {
namespace {

std::vector<std::string> inputNames(const Ort::Session& session) {
    Ort::AllocatorWithDefaultOptions allocator;
    std::vector<std::string> names;
    for (std::size_t i = 0; i < session.GetInputCount(); ++i) {
        names.emplace_back(session.GetInputNameAllocated(i, allocator).get());
    }
    return names;
}

}  // namespace

Ort::Env makeOrtEnv(const char* logId) {
    const OrtApiBase* base = OrtGetApiBase();
    if (!base || !base->GetApi(ORT_API_VERSION)) {
        throw std::runtime_error("ONNX Runtime is too old: need API version " +
                                 std::to_string(ORT_API_VERSION));
    }
    return Ort::Env(ORT_LOGGING_LEVEL_WARNING, logId);
}

Ort::SessionOptions makeSessionOptions(int intraOpThreads) {
    Ort::SessionOptions options;
    options.SetIntraOpNumThreads(intraOpThreads);
    options.SetInterOpNumThreads(1);
    options.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
    return options;
}

std::unordered_map<std::string, std::string> coreMlOptions(const std::string& ep,
                                                           const std::string& cacheDir) {
    constexpr std::size_t kPrefix = 7;  // "coreml:"
    const std::string unit = ep.size() > kPrefix ? ep.substr(kPrefix) : "all";
    const char* units = unit == "cpu"   ? "CPUOnly"
                        : unit == "gpu" ? "CPUAndGPU"
                        : unit == "ane" ? "CPUAndNeuralEngine"
                                        : "ALL";
    return {
        {"ModelFormat", "MLProgram"}, {"MLComputeUnits", units}, {"ModelCacheDirectory", cacheDir}};
}

std::size_t elementCount(const std::vector<std::int64_t>& shape) {
    std::size_t count = 1;
    for (const std::int64_t dimension : shape) count *= static_cast<std::size_t>(dimension);
    return count;
}

Ort::Value tensorOver(float* data, std::size_t count, const std::vector<std::int64_t>& shape) {
    const auto memory = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
    return Ort::Value::CreateTensor<float>(memory, data, count, shape.data(), shape.size());
}

const float* outputFloats(const Ort::Value& output, const char* name, std::size_t least) {
    const auto fail = [&](const std::string& found) {
        throw std::runtime_error(std::string("output ") + name + ": expected at least " +
                                 std::to_string(least) + " float32 values, found " + found);
    };
    if (!output.IsTensor()) fail("no tensor");
    const auto info = output.GetTensorTypeAndShapeInfo();
    if (info.GetElementType() != ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT) fail("another element type");
    if (info.GetElementCount() < least) fail(std::to_string(info.GetElementCount()));
    return output.GetTensorData<float>();
}

BoundSession::BoundSession(Ort::Session session)
    : session_(std::move(session)), binding_(session_) {}

void BoundSession::bindInput(const char* name, float* data, std::size_t count,
                             const std::vector<std::int64_t>& shape) {
    tensors_.push_back(tensorOver(data, count, shape));
    binding_.BindInput(name, tensors_.back());
}

void BoundSession::bindOutput(const char* name, float* data, std::size_t count,
                              const std::vector<std::int64_t>& shape) {
    tensors_.push_back(tensorOver(data, count, shape));
    binding_.BindOutput(name, tensors_.back());
}

void BoundSession::run(const Ort::RunOptions& options) {
    // A default-made Ort::RunOptions is a real object; {nullptr} stands for the runtime's defaults.
    Ort::ThrowOnError(Ort::GetApi().RunWithBinding(session_, options, binding_));
}

std::vector<std::int64_t> inputShape(const Ort::Session& session, const std::string& name) {
    const std::vector<std::string> names = inputNames(session);
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (names[i] != name) continue;
        const Ort::TypeInfo type = session.GetInputTypeInfo(i);
        if (type.GetONNXType() != ONNX_TYPE_TENSOR) return {};
        return type.GetTensorTypeAndShapeInfo().GetShape();
    }
    return {};
}

bool hasInput(const Ort::Session& session, const std::string& name) {
    for (const std::string& candidate : inputNames(session)) {
        if (candidate == name) return true;
    }
    return false;
}

}  // namespace zorv
