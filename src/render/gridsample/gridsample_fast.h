// Bilinear sampling of planes at the points of a grid, edges repeated, corners not aligned: the
// kernels of the operator GridSampleFast. The model runtime's header is not included: its inline
// functions must not be compiled for one instruction set.
#pragma once

#include <cstddef>
#include <cstdint>

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

/// The same formulas at any number of points: `y` is C x points floats.
void gs_points(const float* x, const float* grid, float* y, std::int64_t C, std::int64_t H,
               std::int64_t W, std::int64_t points);

/// Eight and sixteen pixels at a time; see tiles.h.
GridSampleFunction gs_avx2;
GridSampleFunction gs_avx512;

/// They differ in the last bits at most: the wider ones fuse multiplications and additions.
inline constexpr Kernel<GridSampleFunction*> kGridSampleKernels[] = {
    {SimdLevel::kAvx512, "avx512", nullptr, gs_avx512},
    {SimdLevel::kAvx2, "avx2", nullptr, gs_avx2},
    {SimdLevel::kPortable, "portable", nullptr, gs_portable},
};

/// Working memory that is too large for the stacks of hosts' threads: at least `bytes` bytes at the
/// start of a page, the calling thread's own until its next call, with any content. Allocated by
/// the thread's first calls and kept until it ends. Throws std::bad_alloc. (Not inline: it must not
/// be compiled for one instruction set.)
void* gridSampleScratch(std::size_t bytes);

/// Runs the kernel of this process.
GridSampleFunction gridsample_fast;

}  // namespace zorv
