#include "render/int8conv/lanes256.h"

namespace zorv {
namespace {

/// Without the dot product: 16-bit multiply-add over channels 0 and 2, then 1 and 3 of each quad.
/// (The byte multiply-add would saturate.)
struct Avx2 : Lanes256 {
    struct Pixels {
        __m256i even, odd;
    };
    struct Weights {
        __m256i even, odd;
    };
    static constexpr int kBlock = 4;
    static constexpr int kSegments = 2;
    static constexpr int kQuadBytes = 8;

    static Pixels pixels(const std::uint8_t* p) {
        const __m256i quads = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
        return {_mm256_and_si256(quads, _mm256_set1_epi16(0xff)), _mm256_srli_epi16(quads, 8)};
    }
    static Weights weights(const std::int8_t* p) {
        std::int32_t pair[2];
        std::memcpy(pair, p, sizeof pair);
        return {_mm256_set1_epi32(pair[0]), _mm256_set1_epi32(pair[1])};
    }
    static void dot(Sum& sum, const Pixels& pixel, const Weights& weight) {
        sum = addInt(sum, Sum(_mm256_madd_epi16(pixel.even, weight.even)));
        sum = addInt(sum, Sum(_mm256_madd_epi16(pixel.odd, weight.odd)));
    }
};

void minmax_avx2(const float* data, std::size_t count, float* min, float* max) {
    minMaxLanes<Avx2>(data, count, min, max);
}

}  // namespace

const Int8ConvKernels kInt8ConvAvx2 = {Avx2::kBlock,
                                       true,
                                       false,
                                       32e6,
                                       minmax_avx2,
                                       quantiseRowLanes<Avx2>,
                                       convolveRowsLanes<Avx2>,
                                       convolveEnlargedLanes<Avx2>};

}  // namespace zorv
