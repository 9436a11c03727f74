// The plain vector sampler that the benchmark compares with: one gather per corner.
#pragma once

#include <cstdint>

/// Needs AVX2 and FMA; W must be a multiple of 8.
void gatherPerCorner(const float* x, const float* grid, float* y, std::int64_t C, std::int64_t H,
                     std::int64_t W);
