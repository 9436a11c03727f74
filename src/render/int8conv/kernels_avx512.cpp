#ifndef __AVX512VNNI__
#error "this file needs -mavx512vnni and the other AVX-512 flags"
#endif
#include <immintrin.h>

#include <cstring>

#include "render/int8conv/enlarged_lanes.h"

namespace zorv {
namespace {

struct Vnni512 {
    static constexpr int kLanes = 16;
    static constexpr int kBlock = 4;
    static constexpr int kSegments = 4;
    static constexpr int kEnlargedSegments = 2;
    static constexpr int kQuadBytes = 4;
    using F = __m512;
    // The dot product's own element type: with __m512i in between, compilers copy every sum.
    typedef std::int32_t Sum [[gnu::vector_size(64)]];
    using Pixels = __m512i;

    static Sum zero() { return Sum{}; }
    static F zeroFloat() { return _mm512_setzero_ps(); }
    static F load(const float* p) { return _mm512_loadu_ps(p); }
    static void storeAll(float* p, F v) { _mm512_storeu_ps(p, v); }
    static F min(F a, F b) { return _mm512_min_ps(a, b); }
    static F max(F a, F b) { return _mm512_max_ps(a, b); }

    static Pixels pixels(const std::uint8_t* p) { return _mm512_loadu_si512(p); }
    static __m512i weights(const std::int8_t* p) {
        std::int32_t quad = 0;
        std::memcpy(&quad, p, sizeof quad);
        return _mm512_set1_epi32(quad);
    }
    static void dot(Sum& sum, Pixels pixel, __m512i weight) {
        sum = Sum(_mm512_dpbusd_epi32(__m512i(sum), pixel, weight));
    }

    static F toFloat(Sum sum, float factor, float bias) {
        const F value = _mm512_cvtepi32_ps(__m512i(sum));
        return _mm512_add_ps(_mm512_mul_ps(value, _mm512_set1_ps(factor)), _mm512_set1_ps(bias));
    }
    static void store(float* p, F v, int lanes) {
        _mm512_mask_storeu_ps(p, static_cast<__mmask16>((1u << lanes) - 1), v);
    }

    static F set(float v) { return _mm512_set1_ps(v); }
    static Sum setInt(std::int32_t v) { return Sum(_mm512_set1_epi32(v)); }
    static F sub(F a, F b) { return _mm512_sub_ps(a, b); }
    static F div(F a, F b) { return _mm512_div_ps(a, b); }
    static F multiplyAdd(F a, F b, F c) { return _mm512_fmadd_ps(a, b, c); }
    static F multiplySubtract(F a, F b, F c) { return _mm512_fmsub_ps(a, b, c); }
    static Sum maxInt(Sum a, Sum b) { return Sum(_mm512_max_epi32(__m512i(a), __m512i(b))); }
    static Sum magnitudeBits(F a) {
        return Sum(_mm512_and_si512(_mm512_castps_si512(a), _mm512_set1_epi32(0x7fffffff)));
    }
    static bool anyAbove(Sum bits, float limit) {
        const __m512i limits = _mm512_castps_si512(_mm512_set1_ps(limit));
        return _mm512_cmpgt_epi32_mask(__m512i(bits), limits) != 0;
    }
    static Sum loadInts(const std::int32_t* p) { return Sum(_mm512_loadu_si512(p)); }
    static void storeInts(std::int32_t* p, Sum v) { _mm512_storeu_si512(p, __m512i(v)); }
    /// a and b by turns.
    static void interleave(F a, F b, F (&out)[2]) {
        const __m512i order =
            _mm512_setr_epi32(0, 16, 1, 17, 2, 18, 3, 19, 4, 20, 5, 21, 6, 22, 7, 23);
        out[0] = _mm512_permutex2var_ps(a, order, b);
        out[1] = _mm512_permutex2var_ps(a, _mm512_or_si512(order, _mm512_set1_epi32(8)), b);
    }

    static Sum toInt(F a) { return Sum(_mm512_cvtps_epi32(a)); }
    static Sum addInt(Sum a, Sum b) { return Sum(_mm512_add_epi32(__m512i(a), __m512i(b))); }

    /// Saturating packs clamp to bytes; the shuffle makes quads of them.
    static __m512i quads(const Sum (&v)[4]) {
        const __m512i ab = _mm512_packs_epi32(__m512i(v[0]), __m512i(v[1]));
        const __m512i cd = _mm512_packs_epi32(__m512i(v[2]), __m512i(v[3]));
        const __m512i order = _mm512_broadcast_i32x4(
            _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15));
        return _mm512_shuffle_epi8(_mm512_packus_epi16(ab, cd), order);
    }
    /// From integers in the low 16 bits of each lane.
    static __m512i quadsOfLowHalves(const F (&v)[4]) {
        const __m512i ab = lowHalves(v[0], v[1]), cd = lowHalves(v[2], v[3]);
        const __m512i order = _mm512_broadcast_i32x4(
            _mm_setr_epi8(0, 1, 8, 9, 2, 3, 10, 11, 4, 5, 12, 13, 6, 7, 14, 15));
        return _mm512_shuffle_epi8(_mm512_packus_epi16(ab, cd), order);
    }
    static __m512i lowHalves(F a, F b) {
        const __m512i high = _mm512_slli_epi32(_mm512_castps_si512(b), 16);
        return _mm512_mask_blend_epi16(0xaaaaaaaau, _mm512_castps_si512(a), high);
    }
    static void storeQuads(std::uint32_t* p, __m512i v) { _mm512_storeu_si512(p, v); }
};

}  // namespace

const Int8ConvKernels kInt8ConvAvx512 = {Vnni512::kBlock,
                                         false,
                                         true,
                                         128e6,
                                         minMaxLanes<Vnni512>,
                                         quantiseRowLanes<Vnni512>,
                                         convolveRowsLanes<Vnni512>,
                                         convolveEnlargedLanes<Vnni512>};

}  // namespace zorv
