#include "common/model_run.h"

#include <stdexcept>
#include <string>
#include <utility>

#include "common/ort.h"

namespace zorv {
namespace {

constexpr const char* kShrinkKey = "memory.enable_memory_arena_shrinkage";

std::vector<const char*> namesOf(const std::vector<ModelTensor>& tensors) {
    std::vector<const char*> names;
    names.reserve(tensors.size());
    for (const ModelTensor& tensor : tensors) names.push_back(tensor.name.c_str());
    return names;
}

std::vector<Ort::Value> noValues(std::size_t count) {
    std::vector<Ort::Value> values;
    values.reserve(count);
    for (std::size_t i = 0; i < count; ++i) values.emplace_back(nullptr);
    return values;
}

/// The float32 values of an output, checked to be at least `least`.
const float* checkedFloats(const Ort::Value& output, const char* name, std::size_t least) {
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

}  // namespace

struct ModelRun::Impl {
    Impl(std::shared_ptr<const Model> opened, const ModelContract& contract, GiveBack when)
        : model(std::move(opened)),
          agreement(agreementOf(*model, contract)),
          giveBack(when),
          inputNames(namesOf(agreement.inputs)),
          outputNames(namesOf(agreement.outputs)),
          inputs(noValues(inputNames.size())),
          outputs(noValues(outputNames.size())),
          bound(outputNames.size()),
          checked(outputNames.size()) {
        shrinkingOptions.AddConfigEntry(kShrinkKey, "cpu:0");
    }

    // Released in reverse order: tensors before the session.
    const std::shared_ptr<const Model> model;
    const ModelAgreement agreement;
    const GiveBack giveBack;
    const std::vector<const char*> inputNames, outputNames;
    Ort::RunOptions options;
    Ort::RunOptions shrinkingOptions;  ///< gives the arena's memory back after the run
    std::vector<Ort::Value> inputs, outputs;
    std::vector<bool> bound;            ///< outputs over memory of the user
    std::vector<const float*> checked;  ///< of outputs, null until checked
};

ModelRun::ModelRun(std::shared_ptr<const Model> model, const ModelContract& contract,
                   GiveBack giveBack)
    : impl_(std::make_unique<Impl>(std::move(model), contract, giveBack)) {}

ModelRun::~ModelRun() = default;
ModelRun::ModelRun(ModelRun&&) noexcept = default;
ModelRun& ModelRun::operator=(ModelRun&&) noexcept = default;

const Model& ModelRun::model() const {
    return *impl_->model;
}

void ModelRun::bindInput(std::size_t index, const float* data) {
    bindInput(index, data, impl_->agreement.inputs[index].shape);
}

void ModelRun::bindInput(std::size_t index, const float* data,
                         const std::vector<std::int64_t>& shape) {
    // The runtime's interface knows no constant tensors; it writes to no input.
    impl_->inputs[index] = tensorOver(const_cast<float*>(data), elementCount(shape), shape);
}

void ModelRun::bindOutput(std::size_t index, float* data) {
    const std::vector<std::int64_t>& shape = impl_->agreement.outputs[index].shape;
    impl_->outputs[index] = tensorOver(data, elementCount(shape), shape);
    impl_->bound[index] = true;
}

void ModelRun::forgetOutputs() {
    for (std::size_t i = 0; i < impl_->outputs.size(); ++i) {
        if (!impl_->bound[i]) impl_->outputs[i] = Ort::Value(nullptr);
        impl_->checked[i] = nullptr;
    }
}

void ModelRun::run() {
    Impl& impl = *impl_;
    Model::Session& session = impl.model->session();
    const bool first = impl.giveBack == GiveBack::kAfterFirst && !session.hasRun;
    const bool shrinks = first || impl.giveBack == GiveBack::kAlways;
    session.session.Run(shrinks ? impl.shrinkingOptions : impl.options, impl.inputNames.data(),
                        impl.inputs.data(), impl.inputs.size(), impl.outputNames.data(),
                        impl.outputs.data(), impl.outputs.size());
    session.hasRun = true;
}

const float* ModelRun::floats(std::size_t index, std::size_t least) {
    const float*& values = impl_->checked[index];
    if (!values) {
        values = checkedFloats(impl_->outputs[index], impl_->outputNames[index], least);
    }
    return values;
}

ModelRun::Halves ModelRun::halves(std::size_t index) const {
    const Ort::Value& output = impl_->outputs[index];
    const auto info = output.GetTensorTypeAndShapeInfo();
    if (info.GetElementType() != ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16) {
        throw std::runtime_error(std::string("output ") + impl_->outputNames[index] +
                                 ": expected half precision, found another element type");
    }
    return {output.GetTensorData<std::uint16_t>(), info.GetShape()};
}

void ModelRun::stop() {
    impl_->options.SetTerminate();
    impl_->shrinkingOptions.SetTerminate();
}

void ModelRun::rearm() {
    impl_->options.UnsetTerminate();
    impl_->shrinkingOptions.UnsetTerminate();
}

}  // namespace zorv
