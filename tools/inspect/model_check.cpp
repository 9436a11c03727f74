#include "model_check.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <onnxruntime_cxx_api.h>
#include <zorv_core.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "bundle_files.h"
#include "common/file.h"
#include "common/model_run.h"
#include "common/ort.h"
#include "common/units.h"
#include "failure.h"
#include "interrupt.h"
#include "operator_census.h"
#include "render/custom_operators.h"
#include "render/gridsample/op.h"
#include "render/int8conv/int8conv_vnni.h"
#include "render/renderer_model.h"
#include "stream/zorv_fca.h"

namespace zorv::tools {
namespace {

constexpr float kOneLevel = 1.0f / 255;  // of a picture

ModelTensor describe(const zorv::ModelTensor& declared, const Ort::TypeInfo& type) {
    std::vector<const char*> symbols(declared.shape.size(), "");
    if (!symbols.empty()) {
        type.GetTensorTypeAndShapeInfo().GetSymbolicDimensions(symbols.data(), symbols.size());
    }
    ModelTensor tensor{declared.name, declared.type, {}};
    for (size_t i = 0; i < symbols.size(); ++i) {
        tensor.shape.push_back({declared.shape[i], symbols[i]});
    }
    return tensor;
}

ModelReport describe(const Model& model) {
    const Ort::Session& session = model.session().session;
    ModelReport report;
    for (size_t i = 0; i < model.inputs().size(); ++i) {
        report.inputs.push_back(describe(model.inputs()[i], session.GetInputTypeInfo(i)));
    }
    for (size_t i = 0; i < model.outputs().size(); ++i) {
        report.outputs.push_back(describe(model.outputs()[i], session.GetOutputTypeInfo(i)));
    }
    return report;
}

/// Opens the model of `report` quickly and without a word; what keeps it from loading is a fault.
std::shared_ptr<const Model> openModel(const std::string& directory, FileReport& report) {
    throwIfInterrupted();
    const auto size = fileSizeOf(directory, report);
    if (!size) return nullptr;
    report.content = fmt::format("{} bytes", *size);
    const std::string path = directory + "/" + report.name;
    try {
        Ort::Env env(ORT_LOGGING_LEVEL_FATAL, "zorv");
        Ort::SessionOptions options = makeSessionOptions(1);
        options.SetGraphOptimizationLevel(ORT_DISABLE_ALL);
        registerGridSampleFast(options);
        registerInt8ConvVNNI(options);
        Ort::Session session = createOperatorSession(env, path, options);
        auto model = makeModel(path, std::move(env), std::move(session));
        report.model.emplace(describe(*model));
        return model;
    } catch (const Ort::Exception& error) {
        report.fault(fmt::format("does not load: {}", error.what()), "an ONNX model");
        return nullptr;
    }
}

const ModelTensor* find(const std::vector<ModelTensor>& tensors, const std::string& name) {
    const auto at = std::find_if(tensors.begin(), tensors.end(),
                                 [&](const ModelTensor& tensor) { return tensor.name == name; });
    return at == tensors.end() ? nullptr : &*at;
}

std::string wantedText(const TensorContract& wanted) {
    if (wanted.fit == Fit::kAtLeast) {
        return fmt::format("at least {} {} values", elementCount(wanted.shape), wanted.type);
    }
    std::vector<std::string> words;
    for (const int64_t size : wanted.shape) words.push_back(size < 0 ? "?" : std::to_string(size));
    return fmt::format("{} {}", fmt::join(words, " x "), wanted.type);
}

/// What is there in place of `wanted`.
std::string foundText(const zorv::ModelTensor& found, const TensorContract& wanted,
                      const std::vector<ModelTensor>& described) {
    const bool known =
        std::all_of(found.shape.begin(), found.shape.end(), [](int64_t size) { return size >= 0; });
    if (wanted.fit == Fit::kAtLeast && known) {
        return fmt::format("has {} {} values", elementCount(found.shape), found.type);
    }
    return fmt::format("is {} {}", shapeText(*find(described, found.name)), found.type);
}

/// A size that the bundle does not tell cannot be wrong: it is taken from the model.
std::vector<TensorContract> completed(std::vector<TensorContract> contract,
                                      const std::vector<zorv::ModelTensor>& declared) {
    for (TensorContract& wanted : contract) {
        for (const zorv::ModelTensor& found : declared) {
            if (found.name != wanted.name || found.shape.size() != wanted.shape.size()) continue;
            for (size_t i = 0; i < wanted.shape.size(); ++i) {
                if (wanted.shape[i] < 0) wanted.shape[i] = found.shape[i];
            }
        }
    }
    return contract;
}

/// Holds the model against what the library binds to it; a size of -1 is not known.
void compare(const Model& model, const ModelContract& contract, FileReport& report) {
    const ModelContract known{completed(contract.inputs, model.inputs()),
                              completed(contract.outputs, model.outputs())};
    const ModelAgreement agreement(model, known);
    for (const ContractBreach& breach : agreement.breaches) {
        const char* const kind = breach.input ? "input" : "output";
        if (!breach.wanted) {
            report.fault(fmt::format("{} \"{}\" is not fed by anything", kind, breach.found->name),
                         "no other inputs");
            continue;
        }
        const auto& asked = breach.input ? contract.inputs : contract.outputs;
        const auto& judged = breach.input ? known.inputs : known.outputs;
        const std::string expected =
            wantedText(asked[static_cast<size_t>(breach.wanted - judged.data())]);
        if (!breach.found) {
            report.fault(fmt::format("{} \"{}\" is missing", kind, breach.wanted->name), expected);
            continue;
        }
        const auto& described = breach.input ? report.model->inputs : report.model->outputs;
        report.fault(fmt::format("{} \"{}\" {}", kind, breach.found->name,
                                 foundText(*breach.found, *breach.wanted, described)),
                     expected);
    }
}

/// The batch that the pooled input fixes; a fault when the library refuses it.
void judgeBatch(const Model& model, FileReport& report) {
    report.model->batch = fixedBatch(model);
    const std::string pooled = pooledName(isFeatSynth(model));
    const ModelTensor* tensor = find(report.model->inputs, pooled);
    if (!report.model->batch && tensor && tensor->shape.size() == 4) {
        report.fault(fmt::format("the batch of input \"{}\" is {}", pooled, shapeText(*tensor)),
                     "a fixed number of at least 1 in front");
    }
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
        most = difference <= most ? most : difference;  // NaN stays
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

/// One run on zeros.
void runDeltaModel(const std::shared_ptr<const Model>& model, const ModelContract& contract) {
    ModelRun run(model, contract);
    std::vector<std::vector<float>> zeros;
    for (const TensorContract& input : contract.inputs) {
        zeros.emplace_back(elementCount(input.shape));
    }
    for (size_t i = 0; i < zeros.size(); ++i) run.bindInput(i, zeros[i].data());
    run.run();
    for (size_t i = 0; i < contract.outputs.size(); ++i) {
        run.floats(i, elementCount(contract.outputs[i].shape));
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
    const auto model = openModel(directory, report);
    if (!model) return;
    const bool synth = isFeatSynth(*model);
    report.model->graph = synth ? "FeatSynth" : "standard";
    judgeBatch(*model, report);
    countOperatorsOf(directory, report);
    compare(*model,
            rendererContract(synth, report.model->batch.value_or(-1), facts.crop.value_or(-1)),
            report);
}

void checkDeltaModel(const std::string& directory, FileReport& report) {
    const auto model = openModel(directory, report);
    if (!model) return;
    report.model->graph = "delta";
    const ModelContract contract = deltaContract();
    compare(*model, contract, report);
    if (report.severity() == Severity::kFault) return;
    try {
        runDeltaModel(model, contract);
    } catch (const std::exception& error) {
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
