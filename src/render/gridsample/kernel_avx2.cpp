#include "render/gridsample/interleaved.h"

namespace zorv {

void gs_avx2(const float* x, const float* grid, float* y, std::int64_t C, std::int64_t H,
             std::int64_t W) {
    if (!takesShape<Eight>(H, W)) return gs_portable(x, grid, y, C, H, W);
    sampleByGrid<Eight>(x, grid, y, C,
                        {static_cast<std::int32_t>(H), static_cast<std::int32_t>(W), H * W});
}

}  // namespace zorv
