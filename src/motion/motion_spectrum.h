// From a window of speech to the log band magnitudes that the speech-feature model hears.
#pragma once

#include <array>
#include <complex>
#include <vector>

#include "common/cpu.h"
#include "motion/motion_layout.h"

namespace zorv::motion {

constexpr int kTransformSamples = 512;
constexpr int kTransformHop = 320;
constexpr int kTransforms = 21;  ///< per window
constexpr int kBins = kTransformSamples / 2 + 1;
constexpr int kBands = 80;
constexpr int kPadding = 256;  ///< samples reflected at each end of a window
constexpr int kPaddedSamples = kWindowSamples + 2 * kPadding;
constexpr int kFeatureFloats = kBands * kTransforms;

/// The transforms of a window run side by side, one per vector lane; 24 is the least whole number
/// of lanes for vectors of 4, 8 and (with one of 8) 16.
constexpr int kLaneStride = 24;
static_assert(kTransforms <= kLaneStride);

/// What the kernels read, the same for all windows.
struct SpectrumTables {
    SpectrumTables(const float* window, const float* weights);

    /// The analysis window, halved: the split of the packed real transform has a factor of 1/2.
    alignas(64) std::array<float, kTransformSamples> halfWindow;
    std::array<std::complex<float>, kTransformSamples / 2 + 1> twiddles;  ///< exp(-2 pi i n / 512)
    alignas(64) std::array<float, kBins * kBands> binmat;                 ///< [bin][band]
    /// For 16 bands each, the bins [first, last) behind and before which all weights are 0.
    struct Range {
        int first, last;
    };
    static constexpr int kRangeBands = 16;
    std::array<Range, kBands / kRangeBands> ranges;
};

/// Working memory of one window; kernels leave nothing in it for the next.
struct SpectrumScratch {
    alignas(64) std::array<float, kPaddedSamples> padded;
    /// Sample 320 a + b lies at [b][a]: sample n of transform t is at [n % 320][t + n / 320], so
    /// that one vector load takes the same sample of neighbouring transforms.
    alignas(64) std::array<float, kTransformHop * kLaneStride + kLaneStride> columns;
    alignas(64) std::array<float, kTransformSamples * 16> work;     ///< re, im of one vector
    alignas(64) std::array<float, kBins * kLaneStride> magnitudes;  ///< [bin][lane]
    alignas(64) std::array<float, kTransforms * kBands> bands;      ///< [transform][band]
};

/// The loops of one instruction set; all give the same values within float rounding.
struct SpectrumKernels {
    /// columns -> magnitudes.
    void (*transform)(const SpectrumTables& tables, SpectrumScratch& scratch);
    /// magnitudes -> bands: sums over the bins of magnitude x weight.
    void (*project)(const SpectrumTables& tables, SpectrumScratch& scratch);
};

extern const SpectrumKernels kSpectrumKernelsPortable;
extern const SpectrumKernels kSpectrumKernelsAvx2;
extern const SpectrumKernels kSpectrumKernelsAvx512;

inline constexpr Kernel<const SpectrumKernels*> kSpectrumKernels[] = {
    {SimdLevel::kAvx512, "avx512", nullptr, &kSpectrumKernelsAvx512},
    {SimdLevel::kAvx2, "avx2", nullptr, &kSpectrumKernelsAvx2},
    {SimdLevel::kPortable, "portable", nullptr, &kSpectrumKernelsPortable},
};

/// scratch.padded -> scratch.columns.
void fillColumns(SpectrumScratch& scratch);

/// Turns 6480 samples into log(band + 1e-8), [band][transform] (80 x 21): 21 transforms of 512
/// samples, 320 apart, over the window with 256 samples reflected at each end.
void bandFeatures(const SpectrumTables& tables, const SpectrumKernels& kernels,
                  const float* samples, SpectrumScratch& scratch, float* features);

}  // namespace zorv::motion
