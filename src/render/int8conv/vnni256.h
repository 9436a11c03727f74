// The 256-bit dot product, compiled once for each encoding of the instruction.
#pragma once

#include "render/int8conv/lanes256.h"

namespace zorv {
namespace {

struct Vnni256 : Lanes256 {
    using Pixels = __m256i;
    static constexpr int kBlock = 4;
    static constexpr int kSegments = 3;  // 12 sums, 3 pixels and a weight fill the 16 registers
    static constexpr int kQuadBytes = 4;

    static Pixels pixels(const std::uint8_t* p) {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    }
    static __m256i weights(const std::int8_t* p) {
        std::int32_t quad = 0;
        std::memcpy(&quad, p, sizeof quad);
        return _mm256_set1_epi32(quad);
    }
    static void dot(Sum& sum, Pixels pixel, __m256i weight) {
#ifdef __AVXVNNI__
        sum = Sum(_mm256_dpbusd_avx_epi32(__m256i(sum), pixel, weight));
#else
        sum = Sum(_mm256_dpbusd_epi32(__m256i(sum), pixel, weight));
#endif
    }
};

}  // namespace
}  // namespace zorv
