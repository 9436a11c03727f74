#include "motion/motion_spectrum.h"

#include <xmmintrin.h>

#include <algorithm>
#include <cmath>
#include <numbers>

#include "motion/motion_spectrum_lanes.h"

namespace zorv::motion {
namespace {

/// Four lanes, which every x86-64 processor has.
struct Baseline {
    using F = __m128;
    static constexpr int kLanes = 4;
    static F load(const float* at) { return _mm_loadu_ps(at); }
    static void store(float* at, F a) { _mm_storeu_ps(at, a); }
    static F set(float a) { return _mm_set1_ps(a); }
    static F fma(F a, F b, F c) { return a * b + c; }
    static F sqrt(F a) { return _mm_sqrt_ps(a); }
};

void transform(const SpectrumTables& tables, SpectrumScratch& scratch) {
    for (int lane = 0; lane < kLaneStride; lane += Baseline::kLanes) {
        LaneTransform<Baseline>(tables, scratch, lane).run();
    }
}

void project(const SpectrumTables& tables, SpectrumScratch& scratch) {
    projectBands<Baseline, 3>(tables, scratch);
}

void padReflecting(const float* samples, float* padded) {
    std::copy_n(samples, kWindowSamples, padded + kPadding);
    for (int i = 1; i <= kPadding; ++i) {
        padded[kPadding - i] = samples[i];
        padded[kPadding + kWindowSamples - 1 + i] = samples[kWindowSamples - 1 - i];
    }
}

}  // namespace

SpectrumTables::SpectrumTables(const float* window, const float* weights) {
    for (std::size_t n = 0; n < halfWindow.size(); ++n) halfWindow[n] = 0.5f * window[n];
    for (std::size_t n = 0; n < twiddles.size(); ++n) {
        const double angle = -2 * std::numbers::pi * static_cast<double>(n) / kTransformSamples;
        twiddles[n] = std::complex<float>(std::complex<double>(std::cos(angle), std::sin(angle)));
    }
    std::copy_n(weights, binmat.size(), binmat.begin());
    for (std::size_t i = 0; i < ranges.size(); ++i) {
        const auto silent = [&](int bin) {
            const float* row = weights + static_cast<std::size_t>(bin) * kBands + i * kRangeBands;
            return std::all_of(row, row + kRangeBands, [](float weight) { return weight == 0; });
        };
        Range& range = ranges[i] = {0, kBins};
        while (range.first < range.last && silent(range.first)) ++range.first;
        while (range.first < range.last && silent(range.last - 1)) --range.last;
    }
}

const SpectrumKernels kSpectrumKernelsPortable = {transform, project};

/// Four by four. The last column ends before the others; what is behind it
/// belongs to no transform.
void fillColumns(SpectrumScratch& scratch) {
    constexpr int kColumns = (kPaddedSamples + kTransformHop - 1) / kTransformHop;
    static_assert(kColumns <= kLaneStride);
    const auto from = [&](int column, int b) {
        const int at = std::min(column * kTransformHop + b, kPaddedSamples - 4);
        return _mm_loadu_ps(scratch.padded.data() + at);
    };
    for (int b = 0; b < kTransformHop; b += 4) {
        for (int column = 0; column < kLaneStride; column += 4) {
            __m128 r0 = from(column, b);
            __m128 r1 = from(column + 1, b);
            __m128 r2 = from(column + 2, b);
            __m128 r3 = from(column + 3, b);
            _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
            float* to = scratch.columns.data() + b * kLaneStride + column;
            _mm_storeu_ps(to, r0);
            _mm_storeu_ps(to + kLaneStride, r1);
            _mm_storeu_ps(to + 2 * kLaneStride, r2);
            _mm_storeu_ps(to + 3 * kLaneStride, r3);
        }
    }
    // Read by the loads that start one lane late in the last row; belongs to no transform.
    std::fill_n(scratch.columns.end() - kLaneStride, kLaneStride, 0.f);
}

void bandFeatures(const SpectrumTables& tables, const SpectrumKernels& kernels,
                  const float* samples, SpectrumScratch& scratch, float* features) {
    padReflecting(samples, scratch.padded.data());
    fillColumns(scratch);
    kernels.transform(tables, scratch);
    kernels.project(tables, scratch);
    for (int band = 0; band < kBands; ++band) {
        for (int t = 0; t < kTransforms; ++t) {
            const float value = scratch.bands[static_cast<std::size_t>(t * kBands + band)];
            *features++ = std::log(value + 1e-8f);
        }
    }
}

}  // namespace zorv::motion
