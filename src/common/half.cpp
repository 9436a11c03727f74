#include "common/half.h"

#include <bit>

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

/// Half precision has 10 mantissa bits down to 2^-14 and steps of 2^-24 below.
static float rounded(float value) {
    const std::uint32_t bits = std::bit_cast<std::uint32_t>(value);
    const std::uint32_t sign = bits & 0x80000000u;
    const std::uint32_t magnitude = bits ^ sign;
    if (magnitude > 0x7f800000u) return std::bit_cast<float>((bits & 0xffffe000u) | 0x400000u);
    if (magnitude >= 0x477ff000u) return std::bit_cast<float>(sign | 0x7f800000u);  // from 65520 on
    if (magnitude >= 0x38800000u) {
        const std::uint32_t even = (magnitude >> 13) & 1u;
        return std::bit_cast<float>(sign | ((magnitude + 0xfffu + even) & ~0x1fffu));
    }
    // Singles between 0.5 and 1 are 2^-24 apart: the addition rounds.
    const float steps = (std::bit_cast<float>(magnitude) + 0.5f) - 0.5f;
    return std::bit_cast<float>(sign | std::bit_cast<std::uint32_t>(steps));
}

void roundToHalfPortable(const float* source, float* destination, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) destination[i] = rounded(source[i]);
}

}  // namespace kernels

void roundToHalf(const float* source, float* destination, std::size_t n) {
    chooseKernel(kHalfKernels).entry.round(source, destination, n);
}

float roundToHalf(double value) {
    constexpr int kDropped = 52 - 10;  // mantissa bits
    const std::uint64_t bits = std::bit_cast<std::uint64_t>(value);
    const std::uint64_t sign = bits & (std::uint64_t{1} << 63);
    const double magnitude = std::bit_cast<double>(bits ^ sign);
    if (!(magnitude < 65520.0)) {  // infinite, or NaN: the rule for singles holds
        return kernels::rounded(static_cast<float>(value));
    }
    double steps;
    if (magnitude < 0x1p-14) {
        steps = (magnitude + 0x1p28) - 0x1p28;  // doubles above 2^28 are 2^-24 apart
    } else {
        const std::uint64_t even = ((bits ^ sign) >> kDropped) & 1u;
        const std::uint64_t half = (std::uint64_t{1} << (kDropped - 1)) - 1 + even;
        steps = std::bit_cast<double>(((bits ^ sign) + half) >> kDropped << kDropped);
    }
    return static_cast<float>(std::bit_cast<double>(sign | std::bit_cast<std::uint64_t>(steps)));
}

void halfToFloat(const std::uint16_t* source, float* destination, std::size_t n) {
    chooseKernel(kHalfKernels).entry.widen(source, destination, n);
}

}  // namespace zorv
