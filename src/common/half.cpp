#include "common/half.h"

#include <bit>

#include "common/cpu.h"

namespace zorv {
namespace kernels {

static float widen(std::uint32_t half) {
    const std::uint32_t sign = (half & 0x8000u) << 16;
    const std::uint32_t exponent = (half >> 10) & 0x1fu;
    const std::uint32_t mantissa = half & 0x3ffu;
    if (exponent == 0x1f) {
        const std::uint32_t quiet = mantissa ? 0x400000u : 0u;
        return std::bit_cast<float>(sign | 0x7f800000u | quiet | (mantissa << 13));
    }
    if (exponent == 0) {  // zero or subnormal: mantissa x 2^-24, exact in single precision
        const float magnitude = static_cast<float>(mantissa) * 0x1p-24f;
        return std::bit_cast<float>(sign | std::bit_cast<std::uint32_t>(magnitude));
    }
    return std::bit_cast<float>(sign | ((exponent + 112) << 23) | (mantissa << 13));
}

void halfToFloatPortable(const std::uint16_t* source, float* destination, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) destination[i] = widen(source[i]);
}

}  // namespace kernels

void halfToFloat(const std::uint16_t* source, float* destination, std::size_t n) {
    if (simdLevel() >= SimdLevel::kAvx2) {
        kernels::halfToFloatAvx2(source, destination, n);
    } else {
        kernels::halfToFloatPortable(source, destination, n);
    }
}

}  // namespace zorv
