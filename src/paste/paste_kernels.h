// The compositor's inner loops, one set per instruction set. Every version does the same
// single-precision operations in the same order for each element (a lane is an element, and a
// product and its sum round separately), so all levels give the same bytes. On the way only the
// sign of a zero may differ.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/cpu.h"
#include "paste/paste_tables.h"

namespace zorv {

/// Every plane that is resampled has this many zeros around it, so that no tap needs a bounds
/// check, and this many more behind each row for vectors that read past the last tap. On the
/// left the zeros fill a cache line, so that rows start at one.
constexpr int kApron = 4;
constexpr int kMargin = 16;
constexpr int kSlack = 56;

/// Crop positions of one frame row in 1/1024 crop pixel: pixel i lies at (colU[i] + rowU,
/// colV[i] + rowV). All of them lie in [-1024, 1024 * side).
struct RowPositions {
    const int* colU;
    const int* colV;
    int rowU;
    int rowV;
    int count;
};

struct PasteKernels {
    /// out[i] = scale * in[i].
    void (*scaleRow)(const float* in, float scale, float* out, int count);

    /// out[i] = sum over t of weights[t] * in[i + t]; in has count + taps - 1 elements.
    void (*blurRow)(const float* in, const float* weights, int taps, float* out, int count);

    /// With blur = sum over t of weights[t] * rows[t][i] and value = scale * in[i]:
    /// out[i] = value * (1 + amount) - blur * amount, clamped to 0..255.
    void (*sharpenRow)(const float* const* rows, const float* weights, int taps, const float* in,
                       float scale, float amount, float* out, int count);

    /// levels[i] = the mask's bilinear coverage at position i, rounded to 0..255. `mask` points
    /// at element (0, 0) of a plane with an apron.
    void (*coverRow)(const RowPositions& row, const PhaseTable& linear, const float* mask,
                     std::ptrdiff_t stride, std::uint8_t* levels);

    /// Blends the resampled planes into `pixels` (RGB, 3 bytes each) where levels[i] is above 0,
    /// with weight levels[i] / 255. `planes` point at elements (0, 0) of planes with an apron.
    void (*blendRow)(const RowPositions& row, const PhaseTable& table, const float* const* planes,
                     std::ptrdiff_t stride, const std::uint8_t* levels, std::uint8_t* pixels);
};

extern const PasteKernels kPasteKernelsPortable;
extern const PasteKernels kPasteKernelsAvx2;
extern const PasteKernels kPasteKernelsAvx512;

inline constexpr Kernel<const PasteKernels*> kPasteKernels[] = {
    {SimdLevel::kAvx512, "avx512", nullptr, &kPasteKernelsAvx512},
    {SimdLevel::kAvx2, "avx2", nullptr, &kPasteKernelsAvx2},
    {SimdLevel::kPortable, "portable", nullptr, &kPasteKernelsPortable},
};

}  // namespace zorv
