#include "common/half.h"

#ifndef __F16C__
#error "this file needs -mavx2 -mf16c"
#endif
#include <immintrin.h>

namespace zorv::kernels {

void halfToFloatAvx2(const std::uint16_t* source, float* destination, std::size_t n) {
    std::size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i halves = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + i));
        _mm256_storeu_ps(destination + i, _mm256_cvtph_ps(halves));
    }
    for (; i < n; ++i) destination[i] = _mm_cvtss_f32(_mm_cvtph_ps(_mm_cvtsi32_si128(source[i])));
}

void roundToHalfAvx2(const float* source, float* destination, std::size_t n) {
    constexpr int kNearest = _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC;
    std::size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i halves = _mm256_cvtps_ph(_mm256_loadu_ps(source + i), kNearest);
        _mm256_storeu_ps(destination + i, _mm256_cvtph_ps(halves));
    }
    for (; i < n; ++i) {
        const __m128i half = _mm_cvtps_ph(_mm_set_ss(source[i]), kNearest);
        destination[i] = _mm_cvtss_f32(_mm_cvtph_ps(half));
    }
}

}  // namespace zorv::kernels
