#include <immintrin.h>

#include "paste/paste_lanes.h"

namespace zorv {
namespace {

/// 8 lanes of AVX2.
struct Avx2 {
    using F = __m256;
    using I = __m256i;
    using M = __m256;  ///< all bits of a lane set or clear
    static constexpr int kLanes = 8;

    static F zero() { return _mm256_setzero_ps(); }
    static F set(float v) { return _mm256_set1_ps(v); }
    static F load(const float* p) { return _mm256_loadu_ps(p); }
    static void store(float* p, F v) { _mm256_storeu_ps(p, v); }
    static F add(F a, F b) { return _mm256_add_ps(a, b); }
    static F sub(F a, F b) { return _mm256_sub_ps(a, b); }
    static F mul(F a, F b) { return _mm256_mul_ps(a, b); }
    static F div(F a, F b) { return _mm256_div_ps(a, b); }
    // With a NaN the instructions give their second operand.
    static F clampKeepingNan(F v) { return _mm256_min_ps(set(255), _mm256_max_ps(zero(), v)); }

    static I setI(int v) { return _mm256_set1_epi32(v); }
    static I iota() { return _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7); }
    static I addI(I a, I b) { return _mm256_add_epi32(a, b); }
    static I subI(I a, I b) { return _mm256_sub_epi32(a, b); }
    static I andI(I a, I b) { return _mm256_and_si256(a, b); }
    template <int kBits>
    static I shiftI(I v) {
        return _mm256_srai_epi32(v, kBits);
    }
    static bool isIota(I v) { return _mm256_movemask_epi8(_mm256_cmpeq_epi32(v, iota())) == -1; }
    static M equalI(I a, I b) { return _mm256_castsi256_ps(_mm256_cmpeq_epi32(a, b)); }
    static M noLanes() { return zero(); }
    static M either(M a, M b) { return _mm256_or_ps(a, b); }
    /// a + b in the given lanes, a in the others (where b may be NaN).
    static F addWhere(M lanes, F a, F b) { return add(a, _mm256_and_ps(lanes, b)); }
    static F select(M lanes, F yes, F no) { return _mm256_blendv_ps(no, yes, lanes); }

    static I loadLanes(const int* p, int first, int last) {
        if (first == 0 && last == kLanes - 1) {
            return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
        }
        const I lanes = _mm256_and_si256(_mm256_cmpgt_epi32(iota(), setI(first - 1)),
                                         _mm256_cmpgt_epi32(setI(last + 1), iota()));
        return _mm256_blendv_epi8(setI(p[first]), _mm256_maskload_epi32(p, lanes), lanes);
    }
    static F pick(F a, I index) { return _mm256_permutevar8x32_ps(a, index); }
    static F pick2(F a, F b, I index) {
        const M second = _mm256_castsi256_ps(_mm256_slli_epi32(index, 28));  // bit 3 as the sign
        return select(second, pick(b, index), pick(a, index));
    }
    static F loadHalves(const float* low, const float* high) {
        return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(low)), _mm_loadu_ps(high),
                                    1);
    }
    /// Both halves of v are 4 x 4 matrices whose rows become columns.
    static void transposeHalves(F* v) {
        const F low01 = _mm256_unpacklo_ps(v[0], v[1]);
        const F low23 = _mm256_unpacklo_ps(v[2], v[3]);
        const F high01 = _mm256_unpackhi_ps(v[0], v[1]);
        const F high23 = _mm256_unpackhi_ps(v[2], v[3]);
        v[0] = _mm256_shuffle_ps(low01, low23, 0x44);
        v[1] = _mm256_shuffle_ps(low01, low23, 0xee);
        v[2] = _mm256_shuffle_ps(high01, high23, 0x44);
        v[3] = _mm256_shuffle_ps(high01, high23, 0xee);
    }
    /// Each lane's weights lie side by side: transposing them is faster than one gather per tap.
    template <int kTaps>
    static void lookup(const PhaseTable& table, I phase, F* weights) {
        if constexpr (kTaps % 4 == 0) {
            alignas(32) int phases[kLanes];
            _mm256_store_si256(reinterpret_cast<I*>(phases), phase);
            for (int k = 0; k < kTaps; k += 4) {
                for (int l = 0; l < 4; ++l) {
                    weights[k + l] =
                        loadHalves(table.at(phases[l]) + k, table.at(phases[l + 4]) + k);
                }
                transposeHalves(weights + k);
            }
        } else {
            for (int k = 0; k < kTaps; ++k) {
                weights[k] = _mm256_i32gather_ps(table.byTap.data() + k * kPhases, phase, 4);
            }
        }
    }
    /// taps[k] = the eight values from p + k on.
    template <int kTaps>
    static void adjacentTaps(const float* p, F* taps) {
        for (int k = 0; k < kTaps; ++k) taps[k] = load(p + k);
    }

    static F loadBytes(const std::uint8_t* p) {
        const __m128i bytes = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
        return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(bytes));
    }
    static M above0(F v) { return _mm256_cmp_ps(v, zero(), _CMP_GT_OQ); }
    static __m128i toBytes(I v) {
        const __m128i words =
            _mm_packus_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
        return _mm_packus_epi16(words, words);
    }
    static void storeBytes(std::uint8_t* p, F v, M lanes) {
        v = _mm256_min_ps(_mm256_max_ps(v, zero()), set(255));  // a NaN becomes 0
        const __m128i old = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
        const I kept = _mm256_cvtepu8_epi32(old);
        const I mixed =
            _mm256_blendv_epi8(kept, _mm256_cvttps_epi32(v), _mm256_castps_si256(lanes));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), toBytes(mixed));
    }
    static void roundToBytes(F v, std::uint8_t* p) {
        _mm_storel_epi64(reinterpret_cast<__m128i*>(p), toBytes(_mm256_cvtps_epi32(v)));
    }

    /// Lane l of part p is byte 8 p + l of the pixels: colour (8 p + l) % 3 of pixel
    /// (8 p + l) / 3.
    template <int kPart>
    static I pixelOf() {
        constexpr int b = 8 * kPart;
        return _mm256_setr_epi32(b / 3, (b + 1) / 3, (b + 2) / 3, (b + 3) / 3, (b + 4) / 3,
                                 (b + 5) / 3, (b + 6) / 3, (b + 7) / 3);
    }
    template <int kPart>
    static constexpr int lanesOf(int colour) {
        int lanes = 0;
        for (int l = 0; l < 8; ++l) lanes |= ((8 * kPart + l) % 3 == colour ? 1 : 0) << l;
        return lanes;
    }
    template <int kPart>
    static F spread(F v) {
        return pick(v, pixelOf<kPart>());
    }
    template <int kPart>
    static F interleave(F r, F g, F b) {
        constexpr int kGreen = lanesOf<kPart>(1);
        constexpr int kBlue = lanesOf<kPart>(2);
        const I index = pixelOf<kPart>();
        const F v = _mm256_blend_ps(pick(r, index), pick(g, index), kGreen);
        return _mm256_blend_ps(v, pick(b, index), kBlue);
    }
};

}  // namespace

const PasteKernels kPasteKernelsAvx2 = {scaleRowLanes<Avx2>, blurRowLanes<Avx2>,
                                        sharpenRowLanes<Avx2>, coverRowLanes<Avx2>,
                                        blendRowLanes<Avx2>};

}  // namespace zorv
