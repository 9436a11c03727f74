// 256-bit lanes of the int8 convolution without the dot product, which the including file adds.
#pragma once

#ifndef __AVX2__
#error "this file needs -mavx2"
#endif
#include <immintrin.h>

#include <cstring>

#include "render/int8conv/enlarged_lanes.h"

namespace zorv {
namespace {

struct Lanes256 {
    static constexpr int kLanes = 8;
    static constexpr int kEnlargedSegments = 1;  // nine sums of the 16 registers
    using F = __m256;
    typedef std::int32_t Sum [[gnu::vector_size(32)]];  // not __m256i: see Vnni512

    static Sum zero() { return Sum{}; }
    static F zeroFloat() { return _mm256_setzero_ps(); }
    static F load(const float* p) { return _mm256_loadu_ps(p); }
    static void storeAll(float* p, F v) { _mm256_storeu_ps(p, v); }
    static F min(F a, F b) { return _mm256_min_ps(a, b); }
    static F max(F a, F b) { return _mm256_max_ps(a, b); }

    static F toFloat(Sum sum, float factor, float bias) {
        const F value = _mm256_cvtepi32_ps(__m256i(sum));
        return _mm256_add_ps(_mm256_mul_ps(value, _mm256_set1_ps(factor)), _mm256_set1_ps(bias));
    }
    static void store(float* p, F v, int lanes) {
        if (lanes == kLanes) return _mm256_storeu_ps(p, v);
        float all[kLanes];
        _mm256_storeu_ps(all, v);
        std::memcpy(p, all, static_cast<std::size_t>(lanes) * sizeof(float));
    }

    static F set(float v) { return _mm256_set1_ps(v); }
    static Sum setInt(std::int32_t v) { return Sum(_mm256_set1_epi32(v)); }
    static F sub(F a, F b) { return _mm256_sub_ps(a, b); }
    static F div(F a, F b) { return _mm256_div_ps(a, b); }
    static F multiplyAdd(F a, F b, F c) { return _mm256_fmadd_ps(a, b, c); }
    static F multiplySubtract(F a, F b, F c) { return _mm256_fmsub_ps(a, b, c); }
    static Sum maxInt(Sum a, Sum b) { return Sum(_mm256_max_epi32(__m256i(a), __m256i(b))); }
    static Sum magnitudeBits(F a) {
        return Sum(_mm256_and_si256(_mm256_castps_si256(a), _mm256_set1_epi32(0x7fffffff)));
    }
    static bool anyAbove(Sum bits, float limit) {
        const __m256i limits = _mm256_castps_si256(_mm256_set1_ps(limit));
        return _mm256_movemask_epi8(_mm256_cmpgt_epi32(__m256i(bits), limits)) != 0;
    }
    static Sum loadInts(const std::int32_t* p) {
        return Sum(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)));
    }
    static void storeInts(std::int32_t* p, Sum v) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), __m256i(v));
    }
    /// a and b by turns.
    static void interleave(F a, F b, F (&out)[2]) {
        const F low = _mm256_unpacklo_ps(a, b), high = _mm256_unpackhi_ps(a, b);
        out[0] = _mm256_permute2f128_ps(low, high, 0x20);
        out[1] = _mm256_permute2f128_ps(low, high, 0x31);
    }

    static Sum toInt(F a) { return Sum(_mm256_cvtps_epi32(a)); }
    static Sum addInt(Sum a, Sum b) { return Sum(_mm256_add_epi32(__m256i(a), __m256i(b))); }

    /// Saturating packs clamp to bytes; the shuffle makes quads of them.
    static __m256i quads(const Sum (&v)[4]) {
        const __m256i ab = _mm256_packs_epi32(__m256i(v[0]), __m256i(v[1]));
        const __m256i cd = _mm256_packs_epi32(__m256i(v[2]), __m256i(v[3]));
        const __m256i order =
            _mm256_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15, 0, 4, 8, 12, 1,
                             5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
        return _mm256_shuffle_epi8(_mm256_packus_epi16(ab, cd), order);
    }
    /// From integers in the low 16 bits of each lane.
    static __m256i quadsOfLowHalves(const F (&v)[4]) {
        const __m256i ab = lowHalves(v[0], v[1]), cd = lowHalves(v[2], v[3]);
        const __m256i order =
            _mm256_setr_epi8(0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15, 0, 1, 8, 9, 2, 3,
                             10, 11, 4, 5, 12, 13, 6, 7, 14, 15);
        return _mm256_shuffle_epi8(_mm256_packus_epi16(ab, cd), order);
    }
    static __m256i lowHalves(F a, F b) {
        const __m256i high = _mm256_slli_epi32(_mm256_castps_si256(b), 16);
        return _mm256_blend_epi16(_mm256_castps_si256(a), high, 0xaa);
    }
    static void storeQuads(std::uint32_t* p, __m256i v) {
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v);
    }
};

}  // namespace
}  // namespace zorv
