#include <iterator>

#include "render/gridsample/gridsample_fast.h"

namespace zorv {

std::span<const GridSampleKernel> gridSampleKernels() {
    static constexpr GridSampleKernel kKernels[] = {
        {SimdLevel::kPortable, "portable", gs_portable},
        {SimdLevel::kAvx2, "avx2", gs_avx2},
        {SimdLevel::kAvx512, "avx512", gs_avx512},
    };
    return kKernels;
}

const GridSampleKernel& gridSampleKernel(SimdLevel level) {
    const auto kernels = gridSampleKernels();
    std::size_t chosen = 0;
    for (std::size_t i = 1; i < kernels.size(); ++i) {
        if (kernels[i].level <= level) chosen = i;
    }
    return kernels[chosen];
}

void gridsample_fast(const float* x, const float* grid, float* y, std::int64_t C, std::int64_t H,
                     std::int64_t W) {
    gridSampleKernel(simdLevel()).run(x, grid, y, C, H, W);
}

}  // namespace zorv
