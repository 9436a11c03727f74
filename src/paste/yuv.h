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

    /// uv = u[0] v[0] u[1] v[1] ..., 2 x count bytes.
    void (*interleaveRow)(const std::uint8_t* u, const std::uint8_t* v, std::uint8_t* uv,
                          int count);
};

extern const YuvKernels kYuvKernelsPortable;

inline constexpr Kernel<const YuvKernels*> kYuvKernels[] = {
    {SimdLevel::kPortable, "portable", nullptr, &kYuvKernelsPortable},
};

}  // namespace zorv
