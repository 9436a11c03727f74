// One engine's way of running a session: names and tensors kept from call to call.
#pragma once

#include <string>
#include <vector>

#include "common/ort.h"

namespace zorv::a2x {

/// Inputs stay as set until they are set again. Output tensors are made by the first run and
/// written again by every later one; runs whose outputs have another shape must be announced.
/// Several objects may run the same session at once; one thread at a time per object.
class ModelRun {
  public:
    /// The session must outlive the object and stay where it is.
    ModelRun(Ort::Session& session, std::vector<std::string> inputs,
             std::vector<std::string> outputs)
        : session_(&session), inputNames_(std::move(inputs)), outputNames_(std::move(outputs)) {
        for (const std::string& name : inputNames_) inputPointers_.push_back(name.c_str());
        for (const std::string& name : outputNames_) outputPointers_.push_back(name.c_str());
        for (std::size_t i = 0; i < inputNames_.size(); ++i) inputs_.emplace_back(nullptr);
        forgetOutputs();
    }
    ModelRun(const ModelRun&) = delete;
    ModelRun& operator=(const ModelRun&) = delete;

    void setInput(std::size_t index, Ort::Value tensor) { inputs_[index] = std::move(tensor); }

    /// The next run makes its output tensors anew.
    void forgetOutputs() {
        outputs_.clear();
        for (std::size_t i = 0; i < outputNames_.size(); ++i) outputs_.emplace_back(nullptr);
        floats_.assign(outputNames_.size(), nullptr);
    }

    void run() {
        session_->Run(Ort::RunOptions{nullptr}, inputPointers_.data(), inputs_.data(),
                      inputs_.size(), outputPointers_.data(), outputs_.data(), outputs_.size());
    }

    /// Valid until the next run.
    const Ort::Value& output(std::size_t index) const { return outputs_[index]; }
    /// The output's values, at least `least` of them; valid until the next run. Checked when the
    /// tensor is new.
    const float* floats(std::size_t index, std::size_t least) {
        const float*& values = floats_[index];
        if (!values) values = outputFloats(outputs_[index], outputPointers_[index], least);
        return values;
    }

  private:
    Ort::Session* session_;
    std::vector<std::string> inputNames_, outputNames_;
    std::vector<const char*> inputPointers_, outputPointers_;
    std::vector<Ort::Value> inputs_, outputs_;
    std::vector<const float*> floats_;  ///< of outputs_, null until checked
};

}  // namespace zorv::a2x
