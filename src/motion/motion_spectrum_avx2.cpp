#include "motion/motion_spectrum.h"

#if !defined(__AVX2__) || !defined(__FMA__)
#error "this file needs -mavx2 -mfma"
#endif
#include <immintrin.h>

#include "motion/motion_spectrum_lanes.h"

namespace zorv::motion {
namespace {

struct Avx2 {
    using F = __m256;
    static constexpr int kLanes = 8;
    static F load(const float* at) { return _mm256_loadu_ps(at); }
    static void store(float* at, F a) { _mm256_storeu_ps(at, a); }
    static F set(float a) { return _mm256_set1_ps(a); }
    static F fma(F a, F b, F c) { return _mm256_fmadd_ps(a, b, c); }
    static F sqrt(F a) { return _mm256_sqrt_ps(a); }
};

void transform(const SpectrumTables& tables, SpectrumScratch& scratch) {
    for (int lane = 0; lane < kLaneStride; lane += Avx2::kLanes) {
        LaneTransform<Avx2>(tables, scratch, lane).run();
    }
}

void project(const SpectrumTables& tables, SpectrumScratch& scratch) {
    projectBands<Avx2, 3>(tables, scratch);
}

}  // namespace

const SpectrumKernels kSpectrumKernelsAvx2 = {transform, project};

}  // namespace zorv::motion
