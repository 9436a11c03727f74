#include "gridsample_rival.h"

#include <immintrin.h>

namespace {

struct Axis {
    __m256i a, b;
    __m256 weight;
};

Axis axisOf(__m256 g, std::int64_t size) {
    const __m256 position =
        _mm256_sub_ps(_mm256_mul_ps(_mm256_add_ps(g, _mm256_set1_ps(1)),
                                    _mm256_set1_ps(static_cast<float>(size) * 0.5f)),
                      _mm256_set1_ps(0.5f));
    const __m256 before = _mm256_floor_ps(position);
    const __m256i index = _mm256_cvtps_epi32(before);
    const __m256i zero = _mm256_setzero_si256();
    const __m256i last = _mm256_set1_epi32(static_cast<int>(size - 1));
    const __m256i next = _mm256_add_epi32(index, _mm256_set1_epi32(1));
    return {_mm256_min_epi32(_mm256_max_epi32(index, zero), last),
            _mm256_min_epi32(_mm256_max_epi32(next, zero), last), _mm256_sub_ps(position, before)};
}

}  // namespace

void gatherPerCorner(const float* x, const float* grid, float* y, std::int64_t C, std::int64_t H,
                     std::int64_t W) {
    const __m256i even = _mm256_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14);
    const __m256 one = _mm256_set1_ps(1);
    for (std::int64_t p = 0; p < H * W; p += 8) {
        const Axis u = axisOf(_mm256_i32gather_ps(grid + 2 * p, even, 4), W);
        const Axis v = axisOf(_mm256_i32gather_ps(grid + 2 * p + 1, even, 4), H);
        const __m256i width = _mm256_set1_epi32(static_cast<int>(W));
        const __m256i top = _mm256_mullo_epi32(v.a, width);
        const __m256i bottom = _mm256_mullo_epi32(v.b, width);
        const __m256 left = _mm256_sub_ps(one, u.weight), up = _mm256_sub_ps(one, v.weight);
        const __m256i at[] = {_mm256_add_epi32(top, u.a), _mm256_add_epi32(top, u.b),
                              _mm256_add_epi32(bottom, u.a), _mm256_add_epi32(bottom, u.b)};
        const __m256 weights[] = {_mm256_mul_ps(left, up), _mm256_mul_ps(u.weight, up),
                                  _mm256_mul_ps(left, v.weight), _mm256_mul_ps(u.weight, v.weight)};
        for (std::int64_t c = 0; c < C; ++c) {
            const float* plane = x + c * H * W;
            __m256 sum = _mm256_mul_ps(weights[0], _mm256_i32gather_ps(plane, at[0], 4));
            for (int k = 1; k < 4; ++k) {
                sum = _mm256_fmadd_ps(weights[k], _mm256_i32gather_ps(plane, at[k], 4), sum);
            }
            _mm256_storeu_ps(y + c * H * W + p, sum);
        }
    }
}
