// The operator DepthToSpaceFast: DepthToSpace of float tensors in blocks of 2.
#pragma once

#include <cstdint>

#include "render/custom_operators.h"

namespace zorv {

/// y [c, 2 h, 2 w] from x [4 c, h, w]: channel k of y takes, in the order of its block's pixels,
/// row by row, channels k, k + c, k + 2 c and k + 3 c of x, or with `blocksTogether` 4 k to 4 k
/// + 3.
void depthToSpace(const float* x, float* y, std::int64_t c, std::int64_t h, std::int64_t w,
                  bool blocksTogether);

struct DepthToSpaceKernel {
    explicit DepthToSpaceKernel(const OrtKernelInfo* info);
    void compute(Ort::KernelContext context);

    bool blocksTogether = false;  ///< attribute mode: "CRD" instead of "DCR", the default
};

/// com.velmarin.int8::DepthToSpaceFast, X float [N, 4 C, H, W] -> Y float [N, C, 2 H, 2 W].
struct DepthToSpaceFast : CpuOperator<DepthToSpaceFast, DepthToSpaceKernel> {
    static constexpr const char* kDomain = "com.velmarin.int8";
    const char* GetName() const { return "DepthToSpaceFast"; }
};

}  // namespace zorv
