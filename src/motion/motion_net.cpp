#include "motion/motion_net.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace zorv::motion {
namespace {

void appendProvider(Ort::SessionOptions& options, const std::string& ep,
                    const std::string& cacheDir) {
    if (ep.empty()) return;
    if (!ep.starts_with("coreml")) {
        throw std::runtime_error("zorv_motion: unknown ep '" + ep + "'");
    }
    options.AppendExecutionProvider("CoreML", coreMlOptions(ep, cacheDir));
}

bool spinningAllowed() {
    const char* setting = std::getenv("ZORV_ORT_SPIN");
    return setting && setting[0] == '1';
}

}  // namespace

Net Net::open(const Ort::Env& env, const std::string& path, int threads, const std::string& ep,
              const std::string& cacheDir) {
    Ort::SessionOptions options = makeSessionOptions(threads);
    if (!spinningAllowed()) options.AddConfigEntry("session.intra_op.allow_spinning", "0");
    appendProvider(options, ep, cacheDir);

    Net net;
    net.path_ = path;
    Ort::Session session(env, path.c_str(), options);
    Ort::AllocatorWithDefaultOptions allocator;
    for (std::size_t i = 0; i < session.GetInputCount(); ++i) {
        net.inputNames_.emplace_back(session.GetInputNameAllocated(i, allocator).get());
        net.inputShapes_.push_back(inputShape(session, net.inputNames_.back()));
    }
    for (std::size_t i = 0; i < session.GetOutputCount(); ++i) {
        net.outputNames_.emplace_back(session.GetOutputNameAllocated(i, allocator).get());
    }
    net.session_ = std::move(session);
    return net;
}

void Net::run(std::initializer_list<FloatArray> inputs, FloatArray output,
              const std::vector<std::int64_t>& outputShape) {
    if (!isBoundTo(inputs, output)) bind(inputs, output, outputShape);
    Ort::ThrowOnError(Ort::GetApi().RunWithBinding(session_, nullptr, binding_));
}

bool Net::isBoundTo(std::initializer_list<FloatArray> inputs, FloatArray output) const {
    return bound_.size() == inputs.size() + 1 && bound_.back() == output.data &&
           std::equal(inputs.begin(), inputs.end(), bound_.begin(),
                      [](const FloatArray& input, const float* at) { return input.data == at; });
}

void Net::bind(std::initializer_list<FloatArray> inputs, FloatArray output,
               const std::vector<std::int64_t>& outputShape) {
    if (inputNames_.size() != inputs.size() || outputNames_.empty()) {
        throw std::runtime_error(path_ + " has " + std::to_string(inputNames_.size()) +
                                 " inputs, expected " + std::to_string(inputs.size()));
    }
    std::vector<Ort::Value> tensors;
    Ort::IoBinding binding(session_);
    std::vector<const float*> bound;
    for (const FloatArray& input : inputs) {
        const std::size_t i = bound.size();
        tensors.push_back(tensorOver(input.data, input.count, inputShapes_[i]));
        binding.BindInput(inputNames_[i].c_str(), tensors.back());
        bound.push_back(input.data);
    }
    tensors.push_back(tensorOver(output.data, output.count, outputShape));
    binding.BindOutput(outputNames_[0].c_str(), tensors.back());
    bound.push_back(output.data);
    binding_ = std::move(binding);
    tensors_ = std::move(tensors);
    bound_ = std::move(bound);
}

}  // namespace zorv::motion
