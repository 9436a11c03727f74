// RGB bytes to RGBA bytes with an alpha of 255.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/cpu.h"

namespace zorv {

/// Reads 3 x pixels bytes, writes 4 x pixels bytes; the ranges must not overlap.
void rgbToRgba(const std::uint8_t* rgb, std::uint8_t* rgba, std::size_t pixels);

namespace kernels {
void rgbToRgbaPortable(const std::uint8_t* rgb, std::uint8_t* rgba, std::size_t pixels);
void rgbToRgbaAvx2(const std::uint8_t* rgb, std::uint8_t* rgba, std::size_t pixels);
}  // namespace kernels

/// No AVX-512 version: the packing waits for memory.
inline constexpr Kernel<decltype(&rgbToRgba)> kRgbaKernels[] = {
    {SimdLevel::kAvx2, "avx2", nullptr, kernels::rgbToRgbaAvx2},
    {SimdLevel::kPortable, "portable", nullptr, kernels::rgbToRgbaPortable},
};

}  // namespace zorv
