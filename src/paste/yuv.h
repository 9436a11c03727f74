// RGB bytes to Y, U and V bytes in limited range. Every value is within 1 of the exact one, and
// the same on every instruction set: the sums are integers.
#pragma once

#include <array>
#include <cstdint>

#include "common/cpu.h"
#include "paste/frame_view.h"

namespace zorv {

/// Shares of R, G and B. U and V are made from the sums of a block of four pixels.
struct YuvWeights {
    static constexpr int kLumaBits = 15;    ///< a luma weight of 1 is 1 << kLumaBits
    static constexpr int kChromaBits = 18;  ///< a weight of 1 in each of four pixels
    std::array<std::int16_t, 3> y, u, v;    ///< those of u and of v add up to 0
};
const YuvWeights& yuvWeights(YuvMatrix matrix);

struct YuvKernels {
    /// y[i] from pixel i of `rgb` (3 bytes each).
    void (*lumaRow)(const std::uint8_t* rgb, const YuvWeights& weights, std::uint8_t* y, int count);

    /// u[i] and v[i] from pixels 2 i and 2 i + 1 of both rows, which may be the same one. With an
    /// odd count the last column counts twice: (count + 1) / 2 values.
    void (*chromaRow)(const std::uint8_t* top, const std::uint8_t* bottom,
                      const YuvWeights& weights, std::uint8_t* u, std::uint8_t* v, int count);
};

extern const YuvKernels kYuvKernelsPortable;
extern const YuvKernels kYuvKernelsAvx2;

/// No AVX-512 version: a frame's conversion takes some ten microseconds.
inline constexpr Kernel<const YuvKernels*> kYuvKernels[] = {
    {SimdLevel::kAvx2, "avx2", nullptr, &kYuvKernelsAvx2},
    {SimdLevel::kPortable, "portable", nullptr, &kYuvKernelsPortable},
};

}  // namespace zorv
