// IEEE half precision to single precision.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zorv {

/// Widens `n` half-precision bit patterns exactly; subnormals, infinities and NaNs are kept
/// (a signalling NaN becomes the quiet one of the same payload, as the processor does it).
void halfToFloat(const std::uint16_t* source, float* destination, std::size_t n);

namespace kernels {
void halfToFloatPortable(const std::uint16_t* source, float* destination, std::size_t n);
void halfToFloatAvx2(const std::uint16_t* source, float* destination, std::size_t n);
}  // namespace kernels

}  // namespace zorv
