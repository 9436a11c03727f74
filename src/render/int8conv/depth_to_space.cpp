#include "render/int8conv/depth_to_space.h"

#include <stdexcept>
#include <string>

namespace zorv {

void depthToSpace(const float* x, float* y, std::int64_t c, std::int64_t h, std::int64_t w,
                  bool blocksTogether) {
    const std::int64_t plane = h * w;
    const std::int64_t channelStep = blocksTogether ? 4 * plane : plane;
    const std::int64_t pixelStep = blocksTogether ? plane : c * plane;
    for (std::int64_t channel = 0; channel < c; ++channel) {
        for (std::int64_t row = 0; row < 2 * h; ++row, y += 2 * w) {
            const float* const left =
                x + channel * channelStep + row % 2 * 2 * pixelStep + row / 2 * w;
            const float* const right = left + pixelStep;
            for (std::int64_t i = 0; i < w; ++i) {  // becomes vectors
                y[2 * i] = left[i];
                y[2 * i + 1] = right[i];
            }
        }
    }
}

DepthToSpaceKernel::DepthToSpaceKernel(const OrtKernelInfo* info) {
    try {
        blocksTogether = Ort::ConstKernelInfo(info).GetAttribute<std::string>("mode") == "CRD";
    } catch (const Ort::Exception&) {  // the runtime's way to say "absent"
    }
}

void DepthToSpaceKernel::compute(Ort::KernelContext context) {
    const Ort::ConstValue x = context.GetInput(0);
    const auto shape = x.GetTensorTypeAndShapeInfo().GetShape();
    if (shape.size() != 4 || shape[1] % 4 != 0) {
        throw std::runtime_error("DepthToSpaceFast: X must be [N, 4 C, H, W]");
    }
    const std::int64_t c = shape[1] / 4, h = shape[2], w = shape[3];
    float* const y =
        context.GetOutput(0, {shape[0], c, 2 * h, 2 * w}).GetTensorMutableData<float>();
    for (std::int64_t n = 0; n < shape[0]; ++n) {
        const std::int64_t image = n * 4 * c * h * w;
        depthToSpace(x.GetTensorData<float>() + image, y + image, c, h, w, blocksTogether);
    }
}

}  // namespace zorv
