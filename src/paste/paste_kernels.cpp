#include "paste/paste_kernels.h"

#include <cmath>

namespace zorv {
namespace {

void scaleRow(const float* in, float scale, float* out, int count) {
    for (int i = 0; i < count; ++i) out[i] = scale * in[i];
}

void blurRow(const float* in, const float* weights, int taps, float* out, int count) {
    for (int i = 0; i < count; ++i) out[i] = 0;
    for (int t = 0; t < taps; ++t) {
        const float w = weights[t];
        for (int i = 0; i < count; ++i) out[i] += w * in[i + t];
    }
}

void sharpenRow(const float* const* rows, const float* weights, int taps, const float* in,
                float scale, float amount, float* out, int count) {
    blurRow(rows[0], weights, 1, out, count);
    for (int t = 1; t < taps; ++t) {
        const float w = weights[t];
        const float* row = rows[t];
        for (int i = 0; i < count; ++i) out[i] += w * row[i];
    }
    const float keep = 1 + amount;
    for (int i = 0; i < count; ++i) {
        float v = scale * in[i] * keep - out[i] * amount;
        if (v < 0) v = 0;
        if (v > 255) v = 255;
        out[i] = v;
    }
}

/// A position split into the whole pixel and the phase of each axis.
struct Position {
    Position(const RowPositions& row, int i) {
        const int u = row.colU[i] + row.rowU;
        const int v = row.colV[i] + row.rowV;
        x = u >> 10;
        y = v >> 10;
        phaseX = (u >> 5) & (kPhases - 1);
        phaseY = (v >> 5) & (kPhases - 1);
    }
    int x, y, phaseX, phaseY;
};

/// Each row's sum first, then the sum of the weighted rows.
template <int kTaps>
float resample(const float* plane, std::ptrdiff_t stride, const float* wx, const float* wy) {
    float sum = 0;
    for (int r = 0; r < kTaps; ++r, plane += stride) {
        float rowSum = 0;
        for (int k = 0; k < kTaps; ++k) rowSum += wx[k] * plane[k];
        sum += wy[r] * rowSum;
    }
    return sum;
}

void coverRow(const RowPositions& row, const PhaseTable& linear, const float* mask,
              std::ptrdiff_t stride, std::uint8_t* levels) {
    for (int i = 0; i < row.count; ++i) {
        const Position at(row, i);
        const float m = resample<2>(mask + at.y * stride + at.x, stride, linear.at(at.phaseX),
                                    linear.at(at.phaseY));
        levels[i] = static_cast<std::uint8_t>(std::rint(m));
    }
}

std::uint8_t blend(std::uint8_t pixel, float alpha, float value) {
    const float out = static_cast<float>(pixel) * (1 - alpha) + alpha * value;
    if (!(out >= 0)) return 0;  // negative, or not a number
    return out > 255 ? 255 : static_cast<std::uint8_t>(out);
}

template <int kTaps>
void blendRowWith(const RowPositions& row, const PhaseTable& table, const float* const* planes,
                  std::ptrdiff_t stride, const std::uint8_t* levels, std::uint8_t* pixels) {
    for (int i = 0; i < row.count; ++i) {
        if (levels[i] == 0) continue;
        const float alpha = static_cast<float>(levels[i]) / 255;
        const Position at(row, i);
        const std::ptrdiff_t first = (at.y - table.before) * stride + at.x - table.before;
        for (int c = 0; c < 3; ++c) {
            std::uint8_t& pixel = pixels[std::ptrdiff_t{3} * i + c];
            pixel = blend(pixel, alpha,
                          resample<kTaps>(planes[c] + first, stride, table.at(at.phaseX),
                                          table.at(at.phaseY)));
        }
    }
}

void blendRow(const RowPositions& row, const PhaseTable& table, const float* const* planes,
              std::ptrdiff_t stride, const std::uint8_t* levels, std::uint8_t* pixels) {
    const auto with = table.taps == 8   ? blendRowWith<8>
                      : table.taps == 4 ? blendRowWith<4>
                                        : blendRowWith<2>;
    with(row, table, planes, stride, levels, pixels);
}

}  // namespace

const PasteKernels kPasteKernelsPortable = {scaleRow, blurRow, sharpenRow, coverRow, blendRow};

}  // namespace zorv
