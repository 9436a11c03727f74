// Bilinear sampling of planes at the points of a grid, edges repeated, corners not aligned: the
// kernels of the operator GridSampleFast. Without the model runtime, whose header brings code of
// its own that files of one instruction set must not define.
#pragma once

#include <cstdint>
#include <span>

#include "common/cpu.h"

namespace zorv {

/// Samples C planes of H x W floats `x` at H x W points into C planes of H x W floats `y`.
/// `grid` holds (x, y) pairs, -1 .. 1 from edge to edge of the plane (x along W). A point outside
/// takes the nearest border pixel, a NaN coordinate some pixel. `y` overlaps nothing.
/// All sizes are at least 1 and a plane has fewer than 2^31 pixels.
using GridSampleFunction = void(const float* x, const float* grid, float* y, std::int64_t C,
                                std::int64_t H, std::int64_t W);

/// The formulas, one pixel after the other.
GridSampleFunction gs_portable;

/// Eight and sixteen pixels at a time; see gridsample_tiles.h.
GridSampleFunction gs_avx2;
GridSampleFunction gs_avx512;

struct GridSampleKernel {
    SimdLevel level;
    const char* name;
    GridSampleFunction* run;
};

/// All kernels, each level once, the portable one first. They differ in the last bits at most:
/// the wider ones fuse multiplications and additions.
std::span<const GridSampleKernel> gridSampleKernels();

/// The highest kernel that `level` allows.
const GridSampleKernel& gridSampleKernel(SimdLevel level);

/// Runs the kernel of `simdLevel()`.
GridSampleFunction gridsample_fast;

}  // namespace zorv
