#include "common/ort.h"

#include <onnxruntime_session_options_config_keys.h>

#include <stdexcept>

namespace zorv {
namespace {

const char* nameOf(ONNXTensorElementDataType type) {
    switch (type) {
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT:
            return "float32";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16:
            return "float16";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_DOUBLE:
            return "float64";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8:
            return "int8";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8:
            return "uint8";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32:
            return "int32";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64:
            return "int64";
        default:
            return "another type";
    }
}

ModelTensor describe(const char* name, const Ort::TypeInfo& type) {
    if (type.GetONNXType() != ONNX_TYPE_TENSOR) return {name, "no tensor", {}};
    const auto info = type.GetTensorTypeAndShapeInfo();
    return {name, nameOf(info.GetElementType()), info.GetShape()};
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
    // Weights outside the arena, which grows by powers of two and would keep what the runtime
    // leaves for packed copies.
    options.AddConfigEntry(kOrtSessionOptionsUseDeviceAllocatorForInitializers, "1");
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

std::shared_ptr<const Model> makeModel(const std::string& path, Ort::Env env,
                                       Ort::Session session) {
    return std::make_shared<const Model>(
        path, std::make_unique<Model::Session>(std::move(env), std::move(session)));
}

Model::Model(std::string path, std::unique_ptr<Session> session)
    : path_(std::move(path)), session_(std::move(session)) {
    const Ort::Session& opened = session_->session;
    Ort::AllocatorWithDefaultOptions allocator;
    for (std::size_t i = 0; i < opened.GetInputCount(); ++i) {
        inputs_.push_back(
            describe(opened.GetInputNameAllocated(i, allocator).get(), opened.GetInputTypeInfo(i)));
    }
    for (std::size_t i = 0; i < opened.GetOutputCount(); ++i) {
        outputs_.push_back(describe(opened.GetOutputNameAllocated(i, allocator).get(),
                                    opened.GetOutputTypeInfo(i)));
    }
}

Model::~Model() = default;

const ModelTensor* Model::input(const std::string& name) const {
    for (const ModelTensor& tensor : inputs_) {
        if (tensor.name == name) return &tensor;
    }
    return nullptr;
}

}  // namespace zorv
