#include "motion/motion_spectrum.h"

#if !defined(__AVX512F__) || !defined(__FMA__)
#error "this file needs -mavx512f -mfma"
#endif
#include <immintrin.h>

#include "motion/motion_spectrum_lanes.h"

namespace zorv::motion {
namespace {

struct Avx512 {
    using F = __m512;
    static constexpr int kLanes = 16;
    static F load(const float* at) { return _mm512_loadu_ps(at); }
    static void store(float* at, F a) { _mm512_storeu_ps(at, a); }
    static F set(float a) { return _mm512_set1_ps(a); }
    static F fma(F a, F b, F c) { return _mm512_fmadd_ps(a, b, c); }
    static F sqrt(F a) { return _mm512_sqrt_ps(a); }
};

/// For the lanes that do not fill a vector of 16.
struct HalfVector {
    using F = __m256;
    static constexpr int kLanes = 8;
    static F load(const float* at) { return _mm256_loadu_ps(at); }
    static void store(float* at, F a) { _mm256_storeu_ps(at, a); }
    static F set(float a) { return _mm256_set1_ps(a); }
    static F fma(F a, F b, F c) { return _mm256_fmadd_ps(a, b, c); }
    static F sqrt(F a) { return _mm256_sqrt_ps(a); }
};

void transform(const SpectrumTables& tables, SpectrumScratch& scratch) {
    LaneTransform<Avx512>(tables, scratch, 0).run();
    LaneTransform<HalfVector>(tables, scratch, Avx512::kLanes).run();
}

void project(const SpectrumTables& tables, SpectrumScratch& scratch) {
    projectBands<Avx512, 21>(tables, scratch);
}

}  // namespace

const SpectrumKernels kSpectrumKernelsAvx512 = {transform, project};

}  // namespace zorv::motion
