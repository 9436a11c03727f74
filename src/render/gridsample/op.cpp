#include "render/gridsample/op.h"

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "render/custom_operators.h"
#include "render/gridsample/gridsample_fast.h"
#include "render/resize/resize_fast.h"

namespace zorv {
namespace {

constexpr std::size_t kRank = 4;

[[noreturn]] void refuseRank() {
    throw std::runtime_error("GridSampleFast: X must have 4 dimensions");
}

/// Whether the output takes its height and width from the grid, not from X. A grid of another form
/// only has to hold a point for every pixel of X.
bool sizedByGrid(const std::vector<std::int64_t>& grid) {
    return grid.size() == kRank && grid[3] == 2;
}

struct GridSampleFastKernel {
    /// Refuses, while the model is loaded, what no run could do.
    explicit GridSampleFastKernel(const OrtKernelInfo* kernelInfo) {
        const Ort::ConstKernelInfo info(kernelInfo);
        const Ort::TypeInfo type = info.GetInputTypeInfo(0);
        const std::size_t rank = type.GetTensorTypeAndShapeInfo().GetDimensionsCount();
        if (rank != 0 && rank != kRank) refuseRank();  // 0: not known
    }
    void compute(Ort::KernelContext context);
};

struct GridSampleFast : CpuOperator<GridSampleFast, GridSampleFastKernel> {
    // No shape inference: the runtime's wrapper frees a shape twice when memory runs out, and the
    // runtime does not look at what an inference refuses. The kernel refuses at load.
    static constexpr const char* kDomain = "com.velmarin";
    const char* GetName() const { return "GridSampleFast"; }
    std::size_t GetInputTypeCount() const { return 2; }
};

void GridSampleFastKernel::compute(Ort::KernelContext context) {
    const Ort::ConstValue x = context.GetInput(0);
    const Ort::ConstValue grid = context.GetInput(1);
    auto shape = x.GetTensorTypeAndShapeInfo().GetShape();
    if (shape.size() != kRank) refuseRank();
    const std::int64_t N = shape[0], C = shape[1], H = shape[2], W = shape[3];
    const auto gridShape = grid.GetTensorTypeAndShapeInfo().GetShape();
    if (sizedByGrid(gridShape)) std::copy_n(gridShape.begin() + 1, 2, shape.begin() + 2);
    float* y = context.GetOutput(0, shape).GetTensorMutableData<float>();
    // N x points fits 64 bits, since Y exists; twice that may not.
    const std::int64_t points = shape[2] * shape[3];
    if (N < 1 || C < 1 || points < 1) return;
    const auto gridValues =
        static_cast<std::int64_t>(grid.GetTensorTypeAndShapeInfo().GetElementCount());
    if (gridValues / 2 < N * points) {
        throw std::runtime_error("GridSampleFast: the grid has fewer points than Y has pixels");
    }
    const std::int64_t plane = H * W;
    if (plane < 1) throw std::runtime_error("GridSampleFast: X has no pixels");
    if (plane > INT32_MAX) throw std::runtime_error("GridSampleFast: X is too large");
    const bool sameSize = shape[2] == H && shape[3] == W;
    for (std::int64_t n = 0; n < N; ++n) {
        const float* planes = x.GetTensorData<float>() + n * C * plane;
        const float* at = grid.GetTensorData<float>() + n * points * 2;
        if (sameSize) {
            gridsample_fast(planes, at, y + n * C * points, C, H, W);
        } else {
            gs_points(planes, at, y + n * C * points, C, H, W, points);
        }
    }
}

}  // namespace

void registerGridSampleFast(Ort::SessionOptions& options) {
    registerOperators<GridSampleFast, ResizeFast>(options);
}

}  // namespace zorv
