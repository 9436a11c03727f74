// The operator ResizeFast: bilinear Resize of planes, pixel areas aligned.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "render/custom_operators.h"

namespace zorv {

/// Where along one axis the output lies: between positions first[i] and second[i] of the input, of
/// which they take the shares firstShare[i] and secondShare[i].
struct ResizeAxis {
    ResizeAxis(std::int64_t in, std::int64_t out);

    std::vector<std::int64_t> first, second;
    std::vector<float> firstShare, secondShare;
};

/// y [planes, H, W] from x [planes, h, w], in the runtime's order of operations for Resize (linear,
/// half_pixel): the same bits. Throws std::bad_alloc.
void resizePlanes(const float* x, float* y, std::int64_t planes, std::int64_t h, std::int64_t w,
                  std::int64_t H, std::int64_t W);

/// The same of y [images, H, W, channels] from x [images, h, w, channels].
void resizeChannelsLast(const float* x, float* y, std::int64_t images, std::int64_t channels,
                        std::int64_t h, std::int64_t w, std::int64_t H, std::int64_t W);

struct ResizeFastKernel {
    /// Refuses, while the model is loaded, what no run could do.
    explicit ResizeFastKernel(const OrtKernelInfo* info);
    void compute(Ort::KernelContext context);

    std::vector<std::int64_t> shapeFor(const std::vector<std::int64_t>& x) const;

    std::vector<std::int64_t> sizes;   ///< attribute: Y's shape; or empty, and then
    std::vector<std::int64_t> scales;  ///< attribute: whole factors of H and W
};

/// com.velmarin::ResizeFast, X float [N, C, h, w] -> Y float [N, C, H, W]; with `sizes` also
/// X [N, h, w, C] -> Y [N, H, W, C], since which one it is shows only when X is there.
struct ResizeFast : CpuOperator<ResizeFast, ResizeFastKernel> {
    static constexpr const char* kDomain = "com.velmarin";
    const char* GetName() const { return "ResizeFast"; }
};

/// Turns the top-level Resize nodes that state linear and half_pixel, with constant sizes of rank 4
/// or constant scales of 1, 1 and whole numbers, into ResizeFast. Names them; `out` is touched only
/// if there are any. Throws like GsReader::next.
std::vector<std::string> rewriteResizeToFast(std::string_view model, std::string& out);

}  // namespace zorv
