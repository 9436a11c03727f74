// What the library's own ONNX Runtime operators share: their process-wide domains, the way errors
// leave a kernel, and the creation of sessions that use them.
//
// An operator is a CpuOperator with `static constexpr const char* kDomain`; its kernel has a
// constructor from `const OrtKernelInfo*` and `void compute(Ort::KernelContext)`. Both may throw.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <memory>
#include <string>

#include "common/fault.h"

namespace zorv {

/// Runs `body`; an exception becomes the status that the runtime reports as its own failure.
template <class Body>
OrtStatusPtr statusOf(Body&& body) noexcept {
    const fault::InLibrary in;
    try {
        body();
        return nullptr;
    } catch (const std::exception& error) {
        return Ort::GetApi().CreateStatus(ORT_RUNTIME_EXCEPTION, error.what());
    }
}

/// Gives a kernel class the entry that the runtime calls.
template <class Kernel>
struct GuardedKernel : Kernel {
    using Kernel::Kernel;
    OrtStatusPtr ComputeV2(OrtKernelContext* context) {
        return statusOf([&] { Kernel::compute(Ort::KernelContext(context)); });
    }
};

template <class Operator, class Kernel>
struct CpuOperator : Ort::CustomOpBase<Operator, GuardedKernel<Kernel>, true> {
    const char* GetExecutionProviderType() const { return "CPUExecutionProvider"; }
    // One input and one output of floats, unless the operator says otherwise.
    std::size_t GetInputTypeCount() const { return 1; }
    ONNXTensorElementDataType GetInputType(std::size_t) const {
        return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT;
    }
    std::size_t GetOutputTypeCount() const { return 1; }
    ONNXTensorElementDataType GetOutputType(std::size_t) const {
        return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT;
    }
    OrtStatusPtr CreateKernelV2(const OrtApi&, const OrtKernelInfo* info, void** kernel) const {
        return statusOf([&] { *kernel = new GuardedKernel<Kernel>(info); });
    }
};

/// Makes operators of one domain known to sessions made with `options`. They and the domain are
/// created on the first call in the process and never freed: sessions keep pointing at them.
/// Any thread.
template <class Operator, class... More>
void registerOperators(Ort::SessionOptions& options) {
    static OrtCustomOpDomain* const domain = [] {
        Ort::CustomOpDomain owner(Operator::kDomain);
        const auto add = [&](auto op) {
            owner.Add(op.get());
            static_cast<void>(op.release());  // the domain keeps it
        };
        add(std::make_unique<Operator>());
        (add(std::make_unique<More>()), ...);
        return owner.release();
    }();
    options.Add(domain);
}

/// Sessions from a model file or from a model in memory (which may go afterwards). One is created
/// at a time in the process: the runtime's table of custom domains takes no lock of its own.
Ort::Session createOperatorSession(const Ort::Env& env, const std::string& path,
                                   const Ort::SessionOptions& options);
Ort::Session createOperatorSession(const Ort::Env& env, const void* model, std::size_t bytes,
                                   const Ort::SessionOptions& options);

}  // namespace zorv
