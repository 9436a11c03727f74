#include "model_check.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <onnxruntime_cxx_api.h>
#include <zorv_core.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "bundle/zorv_bundle.h"
#include "bundle_files.h"
#include "common/file.h"
#include "failure.h"
#include "interrupt.h"
#include "operator_census.h"

namespace zorv::tools {
namespace {

constexpr float kOneLevel = 1.0f / 255;  // of a picture

/// Stands in for an operator of the library, so that models with it can be loaded and looked at.
struct NoKernel {
    void Compute(OrtKernelContext*) {}
};
class OperatorStub : public Ort::CustomOpBase<OperatorStub, NoKernel> {
  public:
    OperatorStub(const char* name, std::initializer_list<ONNXTensorElementDataType> inputs)
        : name_(name), inputs_(inputs) {}
    void* CreateKernel(const OrtApi&, const OrtKernelInfo*) const { return new NoKernel; }
    const char* GetName() const { return name_; }
    size_t GetInputTypeCount() const { return inputs_.size(); }
    ONNXTensorElementDataType GetInputType(size_t index) const { return inputs_[index]; }
    size_t GetOutputTypeCount() const { return 1; }
    ONNXTensorElementDataType GetOutputType(size_t) const { return kFloat; }

    static constexpr auto kFloat = ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT;

  private:
    const char* name_;
    std::vector<ONNXTensorElementDataType> inputs_;
};

/// The runtime, and options that load models quickly and without a word.
struct Runtime {
    Ort::Env env{ORT_LOGGING_LEVEL_FATAL, "zorv"};
    OperatorStub sampler{"GridSampleFast", {OperatorStub::kFloat, OperatorStub::kFloat}};
    OperatorStub convolution{"Int8ConvVNNI",
                             {OperatorStub::kFloat, ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8,
                              OperatorStub::kFloat, OperatorStub::kFloat}};
    Ort::CustomOpDomain samplerDomain{"com.velmarin"}, int8Domain{"com.velmarin.int8"};
    Ort::SessionOptions options;

    Runtime() {
        samplerDomain.Add(&sampler);
        int8Domain.Add(&convolution);
        options.Add(samplerDomain);
        options.Add(int8Domain);
        options.SetGraphOptimizationLevel(ORT_DISABLE_ALL);
        options.SetIntraOpNumThreads(1);
    }
};

Ort::Session load(const std::string& path) {
    static Runtime runtime;
    return Ort::Session(runtime.env, path.c_str(), runtime.options);
}

const char* typeName(ONNXTensorElementDataType type) {
    switch (type) {
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT:
            return "float32";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16:
            return "float16";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_DOUBLE:
            return "float64";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_UINT8:
            return "uint8";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8:
            return "int8";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT32:
            return "int32";
        case ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64:
            return "int64";
        default:
            return "another type";
    }
}

ModelTensor describe(std::string name, const Ort::TypeInfo& type) {
    if (type.GetONNXType() != ONNX_TYPE_TENSOR) return {std::move(name), "no tensor", {}};
    const auto info = type.GetTensorTypeAndShapeInfo();
    ModelTensor tensor{std::move(name), typeName(info.GetElementType()), {}};
    const std::vector<int64_t> sizes = info.GetShape();
    std::vector<const char*> symbols(sizes.size(), "");
    if (!symbols.empty()) info.GetSymbolicDimensions(symbols.data(), symbols.size());
    for (size_t i = 0; i < sizes.size(); ++i) tensor.shape.push_back({sizes[i], symbols[i]});
    return tensor;
}

ModelReport describe(const Ort::Session& session) {
    const Ort::AllocatorWithDefaultOptions allocator;
    ModelReport model;
    for (size_t i = 0; i < session.GetInputCount(); ++i) {
        model.inputs.push_back(describe(session.GetInputNameAllocated(i, allocator).get(),
                                        session.GetInputTypeInfo(i)));
    }
    for (size_t i = 0; i < session.GetOutputCount(); ++i) {
        model.outputs.push_back(describe(session.GetOutputNameAllocated(i, allocator).get(),
                                         session.GetOutputTypeInfo(i)));
    }
    return model;
}

/// Loads the model of `report`; what keeps it from loading is a fault.
std::optional<Ort::Session> openModel(const std::string& directory, FileReport& report) {
    throwIfInterrupted();
    const auto size = fileSizeOf(directory, report);
    if (!size) return std::nullopt;
    report.content = fmt::format("{} bytes", *size);
    try {
        return load(directory + "/" + report.name);
    } catch (const Ort::Exception& error) {
        report.fault(fmt::format("does not load: {}", error.what()), "an ONNX model");
        return std::nullopt;
    }
}

const ModelTensor* find(const std::vector<ModelTensor>& tensors, const std::string& name) {
    const auto at = std::find_if(tensors.begin(), tensors.end(),
                                 [&](const ModelTensor& tensor) { return tensor.name == name; });
    return at == tensors.end() ? nullptr : &*at;
}

/// What the library binds to one input or output; sizes below 1 are unknown.
struct Slot {
    const char* name;
    std::vector<int64_t> shape;
};

std::string wantedText(const Slot& slot) {
    std::vector<std::string> words;
    for (const int64_t size : slot.shape) words.push_back(size < 1 ? "?" : std::to_string(size));
    return fmt::format("{} float32", fmt::join(words, " x "));
}

bool fits(const ModelTensor& tensor, const Slot& slot) {
    if (tensor.shape.empty()) return true;  // any shape
    return std::equal(tensor.shape.begin(), tensor.shape.end(), slot.shape.begin(),
                      slot.shape.end(), [](const Dimension& found, int64_t wanted) {
                          return found.size < 0 || wanted < 1 || found.size == wanted;
                      });
}

void compare(const char* kind, const Slot& slot, const std::vector<ModelTensor>& tensors,
             FileReport& report) {
    const ModelTensor* tensor = find(tensors, slot.name);
    if (!tensor) {
        report.fault(fmt::format("{} \"{}\" is missing", kind, slot.name), wantedText(slot));
    } else if (tensor->type != "float32" || !fits(*tensor, slot)) {
        report.fault(
            fmt::format("{} \"{}\" is {} {}", kind, slot.name, shapeText(*tensor), tensor->type),
            wantedText(slot));
    }
}

void compareAll(const std::vector<Slot>& inputs, const std::vector<Slot>& outputs,
                FileReport& report) {
    const ModelReport& model = *report.model;
    for (const Slot& slot : inputs) compare("input", slot, model.inputs, report);
    for (const ModelTensor& tensor : model.inputs) {
        if (std::none_of(inputs.begin(), inputs.end(),
                         [&](const Slot& slot) { return slot.name == tensor.name; })) {
            report.fault(fmt::format("input \"{}\" is not fed by anything", tensor.name),
                         "no other inputs");
        }
    }
    for (const Slot& slot : outputs) compare("output", slot, model.outputs, report);
}

/// The batch that the pooled input fixes; nothing, and a fault, when the library refuses it.
std::optional<int64_t> batchOf(const ModelReport& model, const char* pooled, FileReport& report) {
    const ModelTensor* tensor = find(model.inputs, pooled);
    if (!tensor) return std::nullopt;  // reported with the other inputs
    if (tensor->shape.size() == 4 && tensor->shape[0].size >= 1 &&
        tensor->shape[0].size <= INT32_MAX) {
        return tensor->shape[0].size;
    }
    if (tensor->shape.size() == 4) {
        report.fault(fmt::format("the batch of input \"{}\" is {}", pooled, shapeText(*tensor)),
                     "a fixed number of at least 1 in front");
    }
    return std::nullopt;
}

/// A crop of frame 0, or of the first frame of the stored sequence.
const float* renderOne(zorv_ctx* context) {
    if (zorv_drive_frames(context) > 0) return zorv_render_drive_crop(context, 0);
    const float still[kKeypointFloats] = {};
    return zorv_render_kp_crop(context, 0, still, still);
}

void judgeCrop(const std::vector<float>& crop, FileReport& report) {
    float low = HUGE_VALF, high = -HUGE_VALF;
    size_t bad = 0;
    for (const float value : crop) {
        if (!std::isfinite(value)) ++bad;
        low = std::min(low, value), high = std::max(high, value);
    }
    if (bad > 0) {
        report.warn(
            fmt::format("{} of {} values that it rendered are not finite", bad, crop.size()),
            "values of about 0 to 1");
    } else {
        report.model->range = {low, high};
    }
    if (bad == 0 && (low > 1 || high < 0)) {
        report.warn(fmt::format("renders {:.2f} to {:.2f}", low, high), "values of about 0 to 1");
    }
}

/// Whether the model says the same with its own GridSample nodes as with those of the library.
void compareCrops(const std::vector<float>& rewritten, const std::vector<float>& asItIs,
                  FileReport& report) {
    float most = 0;
    for (size_t i = 0; i < rewritten.size(); ++i) {
        if (std::isnan(rewritten[i]) && std::isnan(asItIs[i])) continue;
        const float difference = std::abs(rewritten[i] - asItIs[i]);
        most = difference <= most ? most : difference;  // one that is not a number stays
    }
    report.model->rewriteDifference = most;
    if (most <= kOneLevel) return;
    report.fault(
        fmt::format("renders otherwise with GridSampleFast in place of GridSample: by up "
                    "to {:.3g}",
                    most),
        fmt::format("at most {:.3g}; ZORV_GS_FAST=0 leaves the nodes as they are", kOneLevel));
}

/// Opens the bundle in the library and renders one frame: the crop, or why there is none.
struct Trial {
    std::vector<float> crop;
    std::string failure;

    Trial(const std::string& directory, const std::string& key) {
        throwIfInterrupted();
        const int threads = static_cast<int>(std::thread::hardware_concurrency());
        const ContextPtr context(zorv_create(directory.c_str(), key.c_str(), threads, nullptr));
        if (!context) {
            failure = fmt::format("the library cannot open it: {}", zorv_last_error());
            return;
        }
        const float* rendered = renderOne(context.get());
        if (!rendered) {
            failure = fmt::format("fails when it is run: {}", zorv_last_error());
            return;
        }
        const auto side = static_cast<size_t>(zorv_crop(context.get()));
        crop.assign(rendered, rendered + 3 * side * side);
    }
};

/// Contexts that are opened meanwhile leave models as they are on disk. Only while no other thread
///  reads the environment.
class WithoutRewrite {
  public:
    WithoutRewrite() {
        if (const char* value = std::getenv(kSwitch)) before_ = value;
        setenv(kSwitch, "0", 1);  // NOLINT(concurrency-mt-unsafe)
    }
    ~WithoutRewrite() {
        if (before_) {
            setenv(kSwitch, before_->c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
        } else {
            unsetenv(kSwitch);  // NOLINT(concurrency-mt-unsafe)
        }
    }
    WithoutRewrite(const WithoutRewrite&) = delete;
    WithoutRewrite& operator=(const WithoutRewrite&) = delete;

  private:
    static constexpr const char* kSwitch = "ZORV_GS_FAST";
    std::optional<std::string> before_;
};

/// Zeros for a delta model's input.
struct Zeros {
    std::vector<float> values;
    Ort::Value tensor;
    explicit Zeros(const Slot& slot)
        : values([&] {
              size_t count = 1;
              for (const int64_t size : slot.shape) count *= static_cast<size_t>(size);
              return count;
          }()),
          tensor(Ort::Value::CreateTensor<float>(
              Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault), values.data(),
              values.size(), slot.shape.data(), slot.shape.size())) {}
};

void runDeltaModel(Ort::Session& session, const std::vector<Slot>& slots, FileReport& report) {
    struct Output {
        const char* name;
        size_t least;
    };
    constexpr Output kOutputs[] = {{"m", kKeypointFloats}, {"hn", 384}};
    std::vector<const char*> names;
    std::vector<Zeros> zeros;
    std::vector<Ort::Value> tensors;
    for (const Slot& slot : slots) {
        names.push_back(slot.name);
        zeros.emplace_back(slot);
        tensors.push_back(std::move(zeros.back().tensor));
    }
    const char* wanted[] = {kOutputs[0].name, kOutputs[1].name};
    const auto results = session.Run(Ort::RunOptions{nullptr}, names.data(), tensors.data(),
                                     tensors.size(), wanted, 2);
    for (size_t i = 0; i < 2; ++i) {
        const auto info = results[i].GetTensorTypeAndShapeInfo();
        if (info.GetElementType() != OperatorStub::kFloat ||
            info.GetElementCount() < kOutputs[i].least) {
            report.fault(fmt::format("output \"{}\" has {} {} values", kOutputs[i].name,
                                     info.GetElementCount(), typeName(info.GetElementType())),
                         fmt::format("at least {} float32 values", kOutputs[i].least));
        }
    }
}

/// What the library's operators run of the model of `report`.
void countOperatorsOf(const std::string& directory, FileReport& report) {
    std::string bytes;
    if (readWholeFile(directory + "/" + report.name, bytes) != ReadStatus::kOk) return;
    try {
        report.model->operators = countOperators(bytes);
    } catch (const std::runtime_error& error) {
        report.fault(fmt::format("the library cannot read it: {}", error.what()));
    }
}

}  // namespace

std::string shapeText(const ModelTensor& tensor) {
    std::vector<std::string> words;
    for (const auto& [size, symbol] : tensor.shape) {
        words.push_back(size >= 0 ? std::to_string(size) : symbol.empty() ? "?" : symbol);
    }
    return words.empty() ? "any shape" : fmt::format("{}", fmt::join(words, " x "));
}

void checkRendererModel(const std::string& directory, const BundleFacts& facts,
                        FileReport& report) {
    const auto session = openModel(directory, report);
    if (!session) return;
    ModelReport& model = report.model.emplace(describe(*session));
    const bool synth = find(model.inputs, "fs_red") != nullptr;
    model.graph = synth ? "FeatSynth" : "standard";
    model.batch = batchOf(model, synth ? "pooled" : "pooled64", report);
    countOperatorsOf(directory, report);

    const int64_t b = model.batch.value_or(0), s = facts.crop.value_or(0);
    const std::vector<Slot> standard = {{"pooled64", {b, 64, 32, 32}},
                                        {"P_rgb", {b, 3, s, s}},
                                        {"kp_driving", {b, 21, 3}},
                                        {"kp_source", {b, 21, 3}}};
    const std::vector<Slot> featSynth = {{"fs_red", {b, 64, 64, 64}},
                                         {"pooled", {b, 64, 32, 32}},
                                         {"kd", {b, 21, 3}},
                                         {"ks", {b, 21, 3}}};
    compareAll(synth ? featSynth : standard, {{"rgb", {b, 3, s, s}}}, report);
}

void checkDeltaModel(const std::string& directory, FileReport& report) {
    auto session = openModel(directory, report);
    if (!session) return;
    report.model.emplace(describe(*session)).graph = "delta";
    const std::vector<Slot> inputs = {{"cond", {1, 5376}}, {"prev", {1, 63}}, {"h", {1, 1, 384}}};
    compareAll(inputs, {}, report);
    for (const char* output : {"m", "hn"}) {
        if (!find(report.model->outputs, output)) {
            report.fault(fmt::format("output \"{}\" is missing", output));
        }
    }
    if (report.severity() == Severity::kFault) return;
    try {
        runDeltaModel(*session, inputs, report);
    } catch (const Ort::Exception& error) {
        report.fault(fmt::format("fails when it is run: {}", error.what()));
    }
}

void tryRenderer(const std::string& directory, const std::string& key, FileReport& report) {
    const Trial trial(directory, key);
    if (!trial.failure.empty()) {
        report.fault(trial.failure);
        return;
    }
    judgeCrop(trial.crop, report);
    const auto& operators = report.model->operators;
    // Operators of the library that are in the file itself cannot be had without the rewrite.
    if (!operators || operators->rewritten.empty() || !operators->fast.empty()) return;
    const WithoutRewrite switched;
    const Trial asItIs(directory, key);
    if (asItIs.failure.empty()) {
        compareCrops(trial.crop, asItIs.crop, report);
    } else {
        report.warn("only as GridSampleFast: " + asItIs.failure);
    }
}

}  // namespace zorv::tools
