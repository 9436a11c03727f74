#include <immintrin.h>

#include "paste/paste_lanes.h"

namespace zorv {
namespace {

/// 16 lanes of AVX-512.
struct Avx512 {
    using F = __m512;
    using I = __m512i;
    using M = __mmask16;
    static constexpr int kLanes = 16;

    static F zero() { return _mm512_setzero_ps(); }
    static F set(float v) { return _mm512_set1_ps(v); }
    static F load(const float* p) { return _mm512_loadu_ps(p); }
    static void store(float* p, F v) { _mm512_storeu_ps(p, v); }
    static F add(F a, F b) { return _mm512_add_ps(a, b); }
    static F sub(F a, F b) { return _mm512_sub_ps(a, b); }
    static F mul(F a, F b) { return _mm512_mul_ps(a, b); }
    static F div(F a, F b) { return _mm512_div_ps(a, b); }
    // With a NaN the instructions give their second operand.
    static F clampKeepingNan(F v) { return _mm512_min_ps(set(255), _mm512_max_ps(zero(), v)); }

    static I setI(int v) { return _mm512_set1_epi32(v); }
    static I iota() {
        return _mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    }
    static I addI(I a, I b) { return _mm512_add_epi32(a, b); }
    static I subI(I a, I b) { return _mm512_sub_epi32(a, b); }
    static I andI(I a, I b) { return _mm512_and_si512(a, b); }
    template <int kBits>
    static I shiftI(I v) {
        return _mm512_srai_epi32(v, kBits);
    }
    static bool isIota(I v) { return _mm512_cmpneq_epi32_mask(v, iota()) == 0; }
    static M equalI(I a, I b) { return _mm512_cmpeq_epi32_mask(a, b); }
    static M noLanes() { return 0; }
    static M either(M a, M b) { return static_cast<M>(a | b); }
    /// a + b in the given lanes, a in the others.
    static F addWhere(M lanes, F a, F b) { return _mm512_mask_add_ps(a, lanes, a, b); }
    static F select(M lanes, F yes, F no) { return _mm512_mask_blend_ps(lanes, no, yes); }

    static I loadLanes(const int* p, int first, int last) {
        const auto lanes = static_cast<M>((0xffffu >> (15 - last)) & (0xffffu << first));
        return _mm512_mask_loadu_epi32(setI(p[first]), lanes, p);
    }
    static F pick(F a, I index) { return _mm512_permutexvar_ps(index, a); }
    static F pick2(F a, F b, I index) { return _mm512_permutex2var_ps(a, index, b); }
    template <int kTaps>
    static void lookup(const PhaseTable& table, I phase, F* weights) {
        for (int k = 0; k < kTaps; ++k) {
            const float* byPhase = table.byTap.data() + k * kPhases;
            weights[k] = pick2(load(byPhase), load(byPhase + kLanes), phase);
        }
    }
    /// taps[k] = the 16 values from p + k on. Nearly every load lies across two cache lines and
    /// costs twice, a shuffle costs arithmetic: half of each is faster than either.
    template <int kTaps>
    static void adjacentTaps(const float* p, F* taps) {
        for (int k = 0; k < std::min(kTaps, 4); ++k) taps[k] = load(p + k);
        if constexpr (kTaps == 8) {
            const F next = load(p + kLanes);
            taps[4] = shifted<4>(taps[0], next);
            taps[5] = shifted<5>(taps[0], next);
            taps[6] = shifted<6>(taps[0], next);
            taps[7] = shifted<7>(taps[0], next);
        }
    }
    template <int kBy>
    static F shifted(F a, F b) {
        return _mm512_castsi512_ps(
            _mm512_alignr_epi32(_mm512_castps_si512(b), _mm512_castps_si512(a), kBy));
    }

    static F loadBytes(const std::uint8_t* p) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        return _mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(bytes));
    }
    static M above0(F v) { return _mm512_cmp_ps_mask(v, zero(), _CMP_GT_OQ); }
    static void storeBytes(std::uint8_t* p, F v, M lanes) {
        v = _mm512_min_ps(_mm512_max_ps(v, zero()), set(255));  // a NaN becomes 0
        _mm512_mask_cvtepi32_storeu_epi8(p, lanes, _mm512_cvttps_epi32(v));
    }
    static void roundToBytes(F v, std::uint8_t* p) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p),
                         _mm512_cvtepi32_epi8(_mm512_cvtps_epi32(v)));
    }

    /// Lane l of part p is byte 16 p + l of the pixels: colour (16 p + l) % 3 of pixel
    /// (16 p + l) / 3.
    template <int kPart>
    static I pixelOf() {
        alignas(64) static constexpr auto kIndex = [] {
            std::array<int, 16> index{};
            for (int l = 0; l < 16; ++l) index[l] = (16 * kPart + l) / 3;
            return index;
        }();
        return _mm512_load_si512(kIndex.data());
    }
    template <int kPart>
    static constexpr M lanesOf(int colour) {
        unsigned lanes = 0;
        for (int l = 0; l < 16; ++l) lanes |= ((16 * kPart + l) % 3 == colour ? 1u : 0u) << l;
        return static_cast<M>(lanes);
    }
    template <int kPart>
    static F spread(F v) {
        return pick(v, pixelOf<kPart>());
    }
    template <int kPart>
    static F interleave(F r, F g, F b) {
        const I index = pixelOf<kPart>();
        F v = pick(r, index);
        v = _mm512_mask_permutexvar_ps(v, lanesOf<kPart>(1), index, g);
        return _mm512_mask_permutexvar_ps(v, lanesOf<kPart>(2), index, b);
    }
};

}  // namespace

const PasteKernels kPasteKernelsAvx512 = {scaleRowLanes<Avx512>, blurRowLanes<Avx512>,
                                          sharpenRowLanes<Avx512>, coverRowLanes<Avx512>,
                                          blendRowLanes<Avx512>};

}  // namespace zorv
