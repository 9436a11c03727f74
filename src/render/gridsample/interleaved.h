// Sampling of scattered points from an interleaved copy of the planes: the eight channels of a
// pixel are one load, so a point costs four loads for eight channels, wherever it lies. Like
// tiles.h only for files of one instruction set.
#pragma once

#include <algorithm>
#include <cmath>

#include "render/gridsample/eight.h"

namespace zorv {
namespace {

/// Planes of at most kPixels pixels, eight channels at a time (128 KiB).
class InterleavedPlanes {
  public:
    static constexpr std::int64_t kChannels = 8;
    static constexpr std::int64_t kPixels = 4096;

    static bool takes(std::int64_t C, const PlaneShape& shape) {
        return C >= kChannels && shape.pixels <= kPixels;
    }

    /// Samples all points of `grid`.
    void sample(const float* x, const float* grid, float* y, std::int64_t C,
                const PlaneShape& shape);

  private:
    static constexpr int kPoints = 8;

    /// Eight points' weights, and where their pixels begin in the copy.
    struct alignas(32) Points {
        float w0[kPoints], w1[kPoints], w2[kPoints], w3[kPoints];
        std::int32_t topLeft[kPoints], topRight[kPoints];
        std::int32_t bottomLeft[kPoints], bottomRight[kPoints];
    };

    void copy(const float* x, std::int64_t plane);
    static void prepare(Points& points, const float* grid, const PlaneShape& shape);
    __m256 channelsOf(const Points& points, int i) const;

    alignas(32) float pixels_[kPixels * kChannels];
};

/// Turns eight vectors of eight into their transposition.
inline void transpose(__m256 (&rows)[8]) {
    __m256 two[8], four[8];
    for (int i = 0; i < 8; i += 2) {
        two[i] = _mm256_unpacklo_ps(rows[i], rows[i + 1]);
        two[i + 1] = _mm256_unpackhi_ps(rows[i], rows[i + 1]);
    }
    for (int i = 0; i < 8; i += 4) {
        four[i] = _mm256_shuffle_ps(two[i], two[i + 2], 0x44);
        four[i + 1] = _mm256_shuffle_ps(two[i], two[i + 2], 0xee);
        four[i + 2] = _mm256_shuffle_ps(two[i + 1], two[i + 3], 0x44);
        four[i + 3] = _mm256_shuffle_ps(two[i + 1], two[i + 3], 0xee);
    }
    for (int i = 0; i < 4; ++i) {
        rows[i] = _mm256_permute2f128_ps(four[i], four[i + 4], 0x20);
        rows[i + 4] = _mm256_permute2f128_ps(four[i], four[i + 4], 0x31);
    }
}

void InterleavedPlanes::copy(const float* x, std::int64_t plane) {
    for (std::int64_t next = 0; next < plane; next += kPoints) {
        const std::int64_t first = std::min(next, plane - kPoints);
        __m256 rows[kChannels];
        for (int c = 0; c < kChannels; ++c) rows[c] = _mm256_loadu_ps(x + c * plane + first);
        transpose(rows);
        for (int i = 0; i < kPoints; ++i) {
            _mm256_store_ps(pixels_ + (first + i) * kChannels, rows[i]);
        }
    }
}

void InterleavedPlanes::prepare(Points& points, const float* grid, const PlaneShape& shape) {
    __m256 gx, gy;
    splitGrid(grid, &gx, &gy);
    const Taps u = tapsOf(gx, shape.width);
    const Taps v = tapsOf(gy, shape.height);
    const Weights weights(u.weight, v.weight);
    _mm256_store_ps(points.w0, weights.w0);
    _mm256_store_ps(points.w1, weights.w1);
    _mm256_store_ps(points.w2, weights.w2);
    _mm256_store_ps(points.w3, weights.w3);
    static_assert(kChannels == 8);
    const __m256i width = _mm256_set1_epi32(shape.width);
    const __m256i top = _mm256_mullo_epi32(v.a, width);
    const __m256i bottom = _mm256_mullo_epi32(v.b, width);
    storeInts(points.topLeft, _mm256_slli_epi32(_mm256_add_epi32(top, u.a), 3));
    storeInts(points.topRight, _mm256_slli_epi32(_mm256_add_epi32(top, u.b), 3));
    storeInts(points.bottomLeft, _mm256_slli_epi32(_mm256_add_epi32(bottom, u.a), 3));
    storeInts(points.bottomRight, _mm256_slli_epi32(_mm256_add_epi32(bottom, u.b), 3));
}

inline __m256 InterleavedPlanes::channelsOf(const Points& p, int i) const {
    const auto pixel = [this](std::int32_t offset) { return _mm256_load_ps(pixels_ + offset); };
    __m256 sum = _mm256_mul_ps(_mm256_broadcast_ss(p.w0 + i), pixel(p.topLeft[i]));
    sum = _mm256_fmadd_ps(_mm256_broadcast_ss(p.w1 + i), pixel(p.topRight[i]), sum);
    sum = _mm256_fmadd_ps(_mm256_broadcast_ss(p.w2 + i), pixel(p.bottomLeft[i]), sum);
    return _mm256_fmadd_ps(_mm256_broadcast_ss(p.w3 + i), pixel(p.bottomRight[i]), sum);
}

void InterleavedPlanes::sample(const float* x, const float* grid, float* y, std::int64_t C,
                               const PlaneShape& shape) {
    const std::int64_t plane = shape.pixels;
    for (std::int64_t next = 0; next < C; next += kChannels) {
        // The last block of channels, or of points, ends with the last one and does some again.
        const std::int64_t channel = std::min(next, C - kChannels);
        copy(x + channel * plane, plane);
        for (std::int64_t p = 0; p < plane; p += kPoints) {
            const std::int64_t first = std::min(p, plane - kPoints);
            Points points;
            prepare(points, grid + 2 * first, shape);
            __m256 rows[kChannels];
            for (int i = 0; i < kPoints; ++i) rows[i] = channelsOf(points, i);
            transpose(rows);
            float* to = y + channel * plane + first;
            for (int c = 0; c < kChannels; ++c) _mm256_storeu_ps(to + c * plane, rows[c]);
        }
    }
}

/// Whether most groups of points are too far apart for windows, judged by the ends of some dozens.
inline bool mostlyScattered(const float* grid, const PlaneShape& shape) {
    constexpr std::int64_t kLast = 2 * (Eight::kLanes - 1);
    const std::int64_t step = std::max<std::int64_t>(128, shape.pixels / 64);
    const auto near = [](float a, float b, std::int32_t size, float pixels) {
        return std::abs(a - b) * 0.5f * static_cast<float>(size) <= pixels;
    };
    int groups = 0, close = 0;
    for (std::int64_t p = 0; p + Eight::kLanes <= shape.pixels; p += step, ++groups) {
        const float* ends = grid + 2 * p;
        close += near(ends[0], ends[kLast], shape.width, 15) &&
                 near(ends[1], ends[kLast + 1], shape.height, 2);
    }
    return 2 * close < groups;
}

/// Samples close points with `Sampler`, scattered ones from an interleaved copy or by eights.
template <class Sampler>
void sampleByGrid(const float* x, const float* grid, float* y, std::int64_t C,
                  const PlaneShape& shape) {
    if (!mostlyScattered(grid, shape)) return sampleByTiles<Sampler>(x, grid, y, C, shape);
    if (!InterleavedPlanes::takes(C, shape)) return sampleByTiles<Eight>(x, grid, y, C, shape);
    auto& planes = *new (gridSampleScratch(sizeof(InterleavedPlanes))) InterleavedPlanes;
    planes.sample(x, grid, y, C, shape);
}

}  // namespace
}  // namespace zorv
