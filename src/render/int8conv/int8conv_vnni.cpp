#include "render/int8conv/int8conv_vnni.h"

#include <algorithm>
#include <stdexcept>

#include "render/custom_operators.h"
#include "render/int8conv/depth_to_space.h"

namespace zorv {
namespace {

/// Fills `out` from the attribute; one that is absent or has too few values leaves the defaults.
template <std::size_t kCount>
void readInts(Ort::ConstKernelInfo info, const char* name, std::int64_t (&out)[kCount]) {
    std::vector<std::int64_t> values;
    try {
        values = info.GetAttributes<std::int64_t>(name);
    } catch (const Ort::Exception&) {  // the runtime's way to say "absent"
    }
    if (values.size() >= kCount) std::copy_n(values.begin(), kCount, out);
}

ConvAttributes readAttributes(const OrtKernelInfo* kernelInfo) {
    const Ort::ConstKernelInfo info(kernelInfo);
    ConvAttributes attributes;
    readInts(info, "strides", attributes.strides);
    readInts(info, "pads", attributes.pads);
    readInts(info, "dilations", attributes.dilations);
    const auto readInt = [&](const char* name, std::int64_t absent) {
        try {
            return info.GetAttribute<std::int64_t>(name);
        } catch (const Ort::Exception&) {
            return absent;
        }
    };
    attributes.group = readInt("group", 1);
    attributes.enlarged = readInt("enlarged", 0) != 0;
    attributes.zeroPads = readInt("zero_pads", 0) != 0;
    return attributes;
}

struct Int8ConvKernel {
    explicit Int8ConvKernel(const OrtKernelInfo* info) : conv(readAttributes(info)) {}
    void compute(Ort::KernelContext context);

    Int8Conv conv;
};

struct Int8ConvVNNI : CpuOperator<Int8ConvVNNI, Int8ConvKernel> {
    static constexpr const char* kDomain = "com.velmarin.int8";
    const char* GetName() const { return "Int8ConvVNNI"; }
    std::size_t GetInputTypeCount() const { return 4; }
    ONNXTensorElementDataType GetInputType(std::size_t index) const {
        return index == 1 ? ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8
                          : ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT;
    }
};

void Int8ConvKernel::compute(Ort::KernelContext context) {
    const auto shapeOf = [&](std::size_t input) {
        return context.GetInput(input).GetTensorTypeAndShapeInfo().GetShape();
    };
    const ConvGeometry geometry(conv.attributes(), shapeOf(0), shapeOf(1));
    const std::vector<std::int64_t> perChannel = {geometry.m};
    if (shapeOf(2) != perChannel || shapeOf(3) != perChannel) {
        throw std::runtime_error("Int8ConvVNNI: weight scale and bias must be [M]");
    }
    const std::vector<std::int64_t> y = {geometry.n, geometry.m, geometry.oh, geometry.ow};
    conv.run(geometry, {context.GetInput(0).GetTensorData<float>(),
                        context.GetInput(1).GetTensorData<std::int8_t>(),
                        context.GetInput(2).GetTensorData<float>(),
                        context.GetInput(3).GetTensorData<float>(),
                        context.GetOutput(0, y).GetTensorMutableData<float>()});
}

}  // namespace

void registerInt8ConvVNNI(Ort::SessionOptions& options) {
    registerOperators<Int8ConvVNNI, DepthToSpaceFast>(options);
}

}  // namespace zorv
