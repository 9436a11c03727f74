// IEEE half precision to single precision, and rounding to half precision.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/cpu.h"

namespace zorv {

/// Widens `n` half-precision bit patterns exactly; subnormals, infinities and NaNs are kept
/// (a signalling NaN becomes the quiet one of the same payload, as the processor does it).
void halfToFloat(const std::uint16_t* source, float* destination, std::size_t n);

/// Rounds `n` values to the nearest half-precision value, ties to even, and stores them as single
/// precision. From 65520 on they become infinite; a NaN keeps its sign and its upper ten payload
/// bits and is quiet. `source` and `destination` may be the same array.
void roundToHalf(const float* source, float* destination, std::size_t n);

/// The same for one value in double precision, in one rounding: going through single precision
/// first could move a value onto a tie.
float roundToHalf(double value);

namespace kernels {
void halfToFloatPortable(const std::uint16_t* source, float* destination, std::size_t n);
void halfToFloatAvx2(const std::uint16_t* source, float* destination, std::size_t n);
void roundToHalfPortable(const float* source, float* destination, std::size_t n);
void roundToHalfAvx2(const float* source, float* destination, std::size_t n);
}  // namespace kernels

/// The conversions of arrays.
struct HalfKernels {
    void (*widen)(const std::uint16_t* source, float* destination, std::size_t n);
    void (*round)(const float* source, float* destination, std::size_t n);
};

/// No AVX-512 version: the conversions wait for memory.
inline constexpr Kernel<HalfKernels> kHalfKernels[] = {
    {SimdLevel::kAvx2, "avx2", nullptr, {kernels::halfToFloatAvx2, kernels::roundToHalfAvx2}},
    {SimdLevel::kPortable,
     "portable",
     nullptr,
     {kernels::halfToFloatPortable, kernels::roundToHalfPortable}},
};

}  // namespace zorv
