#include "paste/rgba.h"

#ifndef __AVX2__
#error "this file needs -mavx2"
#endif
#include <immintrin.h>

namespace zorv::kernels {

void rgbToRgbaAvx2(const std::uint8_t* rgb, std::uint8_t* rgba, std::size_t pixels) {
    // Each 128-bit half turns 4 pixels (12 of the 16 bytes loaded) into 16 bytes.
    const __m256i spread =
        _mm256_setr_epi8(0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1,  //
                         0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, -1);
    const __m256i alpha = _mm256_set1_epi32(static_cast<int>(0xff000000u));
    std::size_t i = 0;
    // The last load of 8 pixels reads 28 bytes from 3 x i: two pixels more must be there.
    for (; i + 10 <= pixels; i += 8) {
        const auto* at = reinterpret_cast<const __m128i*>(rgb + 3 * i);
        const auto* next = reinterpret_cast<const __m128i*>(rgb + 3 * i + 12);
        const __m256i bytes = _mm256_setr_m128i(_mm_loadu_si128(at), _mm_loadu_si128(next));
        const __m256i out = _mm256_or_si256(_mm256_shuffle_epi8(bytes, spread), alpha);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(rgba + 4 * i), out);
    }
    rgbToRgbaPortable(rgb + 3 * i, rgba + 4 * i, pixels - i);
}

}  // namespace zorv::kernels
