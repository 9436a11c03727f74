#include "render/gridsample/gridsample_fast.h"

#include <algorithm>
#include <cmath>

#include "common/memory.h"

namespace zorv {
namespace {

/// Where one coordinate falls on an axis of `size` pixels.
struct AxisTap {
    std::int64_t a = 0;  ///< index of the pixel before the point
    std::int64_t b = 0;  ///< index of the pixel after it
    float weight = 0;    ///< of pixel b
};

AxisTap tapOf(float g, std::int64_t size) {
    const float position = (1.0f + g) * 0.5f * static_cast<float>(size) - 0.5f;
    const float before = std::floor(position);
    const auto last = static_cast<float>(size - 1);
    if (!(before >= 0.0f)) return {};  // before the first pixel, or not a number
    if (before >= last) return {size - 1, size - 1, 0.0f};
    const auto a = static_cast<std::int64_t>(before);
    return {a, a + 1, position - before};
}

/// Frees its memory when its thread ends but stays usable: destructors that run later, those of
/// static objects at exit among them, may still render.
struct Scratch {
    Scratch() : pages() {}
    ~Scratch() { pages = {}; }
    union {
        ZeroedArray<std::byte> pages;
    };
};

}  // namespace

void gs_portable(const float* x, const float* grid, float* y, std::int64_t C, std::int64_t H,
                 std::int64_t W) {
    gs_points(x, grid, y, C, H, W, H * W);
}

void gs_points(const float* x, const float* grid, float* y, std::int64_t C, std::int64_t H,
               std::int64_t W, std::int64_t points) {
    const std::int64_t plane = H * W;
    for (std::int64_t p = 0; p < points; ++p) {
        const AxisTap u = tapOf(grid[2 * p], W);
        const AxisTap v = tapOf(grid[2 * p + 1], H);
        const float* top = x + v.a * W;
        const float* bottom = x + v.b * W;
        const float w00 = (1.0f - u.weight) * (1.0f - v.weight);
        const float w10 = u.weight * (1.0f - v.weight);
        const float w01 = (1.0f - u.weight) * v.weight;
        const float w11 = u.weight * v.weight;
        for (std::int64_t c = 0; c < C; ++c) {
            const std::int64_t at = c * plane;
            y[c * points + p] = w00 * top[at + u.a] + w10 * top[at + u.b] + w01 * bottom[at + u.a] +
                                w11 * bottom[at + u.b];
        }
    }
}

void* gridSampleScratch(std::size_t bytes) {
    thread_local Scratch scratch;
    if (scratch.pages.size() < bytes) scratch.pages = ZeroedArray<std::byte>(bytes);
    return scratch.pages.data();
}

void gridsample_fast(const float* x, const float* grid, float* y, std::int64_t C, std::int64_t H,
                     std::int64_t W) {
    chooseKernel(kGridSampleKernels).entry(x, grid, y, C, H, W);
}

}  // namespace zorv
