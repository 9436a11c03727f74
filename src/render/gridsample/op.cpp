#include "render/gridsample/op.h"

#include <stdexcept>

#include "render/custom_operators.h"
#include "render/gridsample/gridsample_fast.h"

namespace zorv {
namespace {

struct GridSampleFastKernel {
    explicit GridSampleFastKernel(const OrtKernelInfo*) {}
    void compute(Ort::KernelContext context);
};

struct GridSampleFast : CpuOperator<GridSampleFast, GridSampleFastKernel> {
    static constexpr const char* kDomain = "com.velmarin";
    const char* GetName() const { return "GridSampleFast"; }
    std::size_t GetInputTypeCount() const { return 2; }
    ONNXTensorElementDataType GetInputType(std::size_t) const {
        return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT;
    }
    std::size_t GetOutputTypeCount() const { return 1; }
    ONNXTensorElementDataType GetOutputType(std::size_t) const {
        return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT;
    }
};

void GridSampleFastKernel::compute(Ort::KernelContext context) {
    const Ort::ConstValue x = context.GetInput(0);
    const Ort::ConstValue grid = context.GetInput(1);
    const auto shape = x.GetTensorTypeAndShapeInfo().GetShape();
    if (shape.size() != 4) throw std::runtime_error("GridSampleFast: X must have 4 dimensions");
    const std::int64_t N = shape[0], C = shape[1], H = shape[2], W = shape[3];
    float* y = context.GetOutput(0, shape).GetTensorMutableData<float>();
    if (N < 1 || C < 1 || H < 1 || W < 1) return;
    // X and Y exist, so N x H x W fits; twice that may not.
    const std::int64_t plane = H * W;
    const auto gridValues =
        static_cast<std::int64_t>(grid.GetTensorTypeAndShapeInfo().GetElementCount());
    if (gridValues / 2 < N * plane) {
        throw std::runtime_error("GridSampleFast: the grid has fewer points than X has pixels");
    }
    if (plane > INT32_MAX) throw std::runtime_error("GridSampleFast: X is too large");
    const float* points = grid.GetTensorData<float>();
    for (std::int64_t n = 0; n < N; ++n) {
        gridsample_fast(x.GetTensorData<float>() + n * C * plane, points + n * plane * 2,
                        y + n * C * plane, C, H, W);
    }
}

}  // namespace

void registerGridSampleFast(Ort::SessionOptions& options) {
    registerOperators<GridSampleFast>(options);
}

}  // namespace zorv
