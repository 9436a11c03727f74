#include <algorithm>
#include <cstring>

#include "paste/yuv.h"

#ifndef __AVX2__
#error "this file needs -mavx2"
#endif
#include <immintrin.h>

namespace zorv {
namespace {

/// A block is 32 pixels. Reading the last four of them reads the four bytes behind as well.
constexpr int kBlock = 32;
constexpr int kReadPixels = kBlock + 2;
constexpr int kReadBytes = 3 * kBlock + 4;

/// 8 pixels, 4 in each half, with the bytes of each half put in order.
__m256i pixels(const std::uint8_t* rgb, __m256i order) {
    const auto* low = reinterpret_cast<const __m128i*>(rgb);
    const auto* high = reinterpret_cast<const __m128i*>(rgb + 12);
    return _mm256_shuffle_epi8(_mm256_setr_m128i(_mm_loadu_si128(low), _mm_loadu_si128(high)),
                               order);
}

__m256i inBothHalves(char a, char b, char c, char d, char e, char f, char g, char h, char i, char j,
                     char k, char l, char m, char n, char o, char p) {
    return _mm256_broadcastsi128_si256(
        _mm_setr_epi8(a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p));
}

__m256i wordPairs(std::int16_t even, std::int16_t odd) {
    return _mm256_set1_epi32(static_cast<std::uint16_t>(even) | odd << 16);
}

/// Adds `offset`, rounds, and drops the fraction.
template <int kBits>
__m256i rounded(__m256i sum, int offset) {
    const __m256i bias = _mm256_set1_epi32((offset << kBits) + (1 << (kBits - 1)));
    return _mm256_srai_epi32(_mm256_add_epi32(sum, bias), kBits);
}

void lumaBlock(const std::uint8_t* rgb, const YuvWeights& weights, std::uint8_t* y) {
    // R and G of a pixel in one pair of words, B in another.
    const __m256i redGreen = inBothHalves(0, -1, 1, -1, 3, -1, 4, -1, 6, -1, 7, -1, 9, -1, 10, -1);
    const __m256i blue = inBothHalves(2, -1, -1, -1, 5, -1, -1, -1, 8, -1, -1, -1, 11, -1, -1, -1);
    const __m256i redGreenWeights = wordPairs(weights.y[0], weights.y[1]);
    const __m256i blueWeights = wordPairs(weights.y[2], 0);
    const auto eight = [&](int first) {
        const __m256i sum =
            _mm256_add_epi32(_mm256_madd_epi16(pixels(rgb + 3 * first, redGreen), redGreenWeights),
                             _mm256_madd_epi16(pixels(rgb + 3 * first, blue), blueWeights));
        return rounded<YuvWeights::kLumaBits>(sum, 16);
    };
    const __m256i low = _mm256_packus_epi32(eight(0), eight(8));
    const __m256i high = _mm256_packus_epi32(eight(16), eight(24));
    // Packing works on halves: every other four pixels lie in the upper one.
    const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(y),
                        _mm256_permutevar8x32_epi32(_mm256_packus_epi16(low, high), order));
}

/// Weights of sums (R, G, R, G, B, -, B, -).
__m256i chromaWeights(const std::array<std::int16_t, 3>& w) {
    return _mm256_blend_epi32(wordPairs(w[0], w[1]), wordPairs(w[2], 0), 0xcc);
}

void chromaBlock(const std::uint8_t* top, const std::uint8_t* bottom, const YuvWeights& weights,
                 std::uint8_t* u, std::uint8_t* v) {
    // Neighbours side by side: R R G G of both blocks of a half, then B B - - of both.
    const __m256i neighbours = inBothHalves(0, 3, 1, 4, 6, 9, 7, 10, 2, 5, -1, -1, 8, 11, -1, -1);
    const __m256i ones = _mm256_set1_epi8(1);
    const auto sums = [&](int first) {
        return _mm256_add_epi16(_mm256_maddubs_epi16(pixels(top + 3 * first, neighbours), ones),
                                _mm256_maddubs_epi16(pixels(bottom + 3 * first, neighbours), ones));
    };
    const __m256i blocks[] = {sums(0), sums(8), sums(16), sums(24)};
    const auto mixed = [&](const std::array<std::int16_t, 3>& w) {
        const __m256i all = chromaWeights(w);
        const auto eight = [&](__m256i a, __m256i b) {
            a = _mm256_madd_epi16(a, all);
            b = _mm256_madd_epi16(b, all);
            // R and G of the blocks 0 1 4 5 | 2 3 6 7, and their B.
            const __m256i sum =
                _mm256_add_epi32(_mm256_unpacklo_epi64(a, b), _mm256_unpackhi_epi64(a, b));
            return rounded<YuvWeights::kChromaBits>(sum, 128);
        };
        return _mm256_packus_epi32(eight(blocks[0], blocks[1]), eight(blocks[2], blocks[3]));
    };
    // Pairs of blocks, the even ones in the lower half and the odd ones in the upper half, of U
    // and then of V.
    const __m256i both = _mm256_packus_epi16(mixed(weights.u), mixed(weights.v));
    const __m128i even = _mm256_castsi256_si128(both);
    const __m128i odd = _mm256_extracti128_si256(both, 1);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(u), _mm_unpacklo_epi16(even, odd));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(v), _mm_unpackhi_epi16(even, odd));
}

void lumaRow(const std::uint8_t* rgb, const YuvWeights& weights, std::uint8_t* y, int count) {
    int i = 0;
    for (; i + kReadPixels <= count; i += kBlock) {
        lumaBlock(rgb + std::ptrdiff_t{3} * i, weights, y + i);
    }
    for (; i < count; i += kBlock) {
        const auto n = static_cast<std::size_t>(std::min(kBlock, count - i));
        std::uint8_t in[kReadBytes] = {};
        std::uint8_t out[kBlock];
        std::memcpy(in, rgb + std::ptrdiff_t{3} * i, 3 * n);
        lumaBlock(in, weights, out);
        std::memcpy(y + i, out, n);
    }
}

void chromaRow(const std::uint8_t* top, const std::uint8_t* bottom, const YuvWeights& weights,
               std::uint8_t* u, std::uint8_t* v, int count) {
    int i = 0;
    for (; i + kReadPixels <= count; i += kBlock) {
        const std::ptrdiff_t at = std::ptrdiff_t{3} * i;
        chromaBlock(top + at, bottom + at, weights, u + i / 2, v + i / 2);
    }
    for (; i < count; i += kBlock) {
        const int n = std::min(kBlock, count - i);
        std::uint8_t in[2][kReadBytes] = {};
        for (const int row : {0, 1}) {
            const std::uint8_t* from = (row == 0 ? top : bottom) + std::ptrdiff_t{3} * i;
            std::memcpy(in[row], from, static_cast<std::size_t>(3 * n));
            if (n % 2 == 1) std::memcpy(in[row] + 3 * n, from + 3 * (n - 1), 3);
        }
        std::uint8_t out[2][kBlock / 2];
        chromaBlock(in[0], in[1], weights, out[0], out[1]);
        const auto blocks = static_cast<std::size_t>((n + 1) / 2);
        std::memcpy(u + i / 2, out[0], blocks);
        std::memcpy(v + i / 2, out[1], blocks);
    }
}

}  // namespace

const YuvKernels kYuvKernelsAvx2 = {lumaRow, chromaRow};

}  // namespace zorv
