#include "paste/yuv.h"

#include <algorithm>

namespace zorv {
namespace {

constexpr std::int16_t weight(double share, int bits) {
    const double scaled = share * (1 << bits);
    return static_cast<std::int16_t>(scaled < 0 ? scaled - 0.5 : scaled + 0.5);
}

/// From the shares of R and B in the luma.
constexpr YuvWeights weights(double kr, double kb) {
    constexpr double kLuma = 219.0 / 255;
    constexpr double kChroma = 224.0 / 255 / 2;  // of B - Y and R - Y, which lie in +-(1 - share)
    constexpr int kBits = YuvWeights::kChromaBits - 2;  // a mean of four
    const double kg = 1 - kr - kb;
    YuvWeights w{};
    w.y = {weight(kLuma * kr, YuvWeights::kLumaBits), weight(kLuma * kg, YuvWeights::kLumaBits),
           weight(kLuma * kb, YuvWeights::kLumaBits)};
    const std::int16_t own = weight(kChroma, kBits);
    const std::int16_t redOfU = weight(-kChroma * kr / (1 - kb), kBits);
    const std::int16_t blueOfV = weight(-kChroma * kb / (1 - kr), kBits);
    w.u = {redOfU, static_cast<std::int16_t>(-own - redOfU), own};
    w.v = {own, static_cast<std::int16_t>(-own - blueOfV), blueOfV};
    return w;
}

constexpr YuvWeights kBt601 = weights(0.299, 0.114);
constexpr YuvWeights kBt709 = weights(0.2126, 0.0722);

/// `offset` plus the weighted sum, rounded.
template <int kBits>
std::uint8_t mixed(const std::array<std::int16_t, 3>& w, int r, int g, int b, int offset) {
    const int sum = w[0] * r + w[1] * g + w[2] * b;
    return static_cast<std::uint8_t>((sum + (offset << kBits) + (1 << (kBits - 1))) >> kBits);
}

void lumaRow(const std::uint8_t* rgb, const YuvWeights& weights, std::uint8_t* y, int count) {
    for (int i = 0; i < count; ++i, rgb += 3) {
        y[i] = mixed<YuvWeights::kLumaBits>(weights.y, rgb[0], rgb[1], rgb[2], 16);
    }
}

void chromaRow(const std::uint8_t* top, const std::uint8_t* bottom, const YuvWeights& weights,
               std::uint8_t* u, std::uint8_t* v, int count) {
    for (int i = 0; i < count; i += 2, top += 6, bottom += 6, ++u, ++v) {
        const int next = i + 1 < count ? 3 : 0;
        const auto sum = [&](int c) {
            return top[c] + top[next + c] + bottom[c] + bottom[next + c];
        };
        *u = mixed<YuvWeights::kChromaBits>(weights.u, sum(0), sum(1), sum(2), 128);
        *v = mixed<YuvWeights::kChromaBits>(weights.v, sum(0), sum(1), sum(2), 128);
    }
}

}  // namespace

const YuvWeights& yuvWeights(YuvMatrix matrix) {
    return matrix == YuvMatrix::kBt601 ? kBt601 : kBt709;
}

const YuvKernels kYuvKernelsPortable = {lumaRow, chromaRow};

}  // namespace zorv
