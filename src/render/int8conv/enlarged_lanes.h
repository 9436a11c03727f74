// The loops of a 3 x 3 convolution whose input is first enlarged by two, every pixel becoming four,
// worked out from the small input. Along one axis, with taps a, b, c, small pixel p gives
//
//     large 2p     = a x[p - 1] + b x[p] + c x[p]
//     large 2p + 1 = a x[p] + b x[p] + c x[p + 1]
//
// so that the nine products of each small pixel are made once and then added, down the columns and
// along the rows: a quarter of the multiplications. Integers wrap, so the order is free.
#pragma once

#include "render/int8conv/lanes.h"

namespace zorv {
namespace {

/// Sums down the columns for one output channel: of each kind a line per column of the kernel. A
/// line has room for a vector on both sides of its columns.
class EnlargedLines {
  public:
    enum Kind {
        kFirst,  ///< of the row above: its products with the kernel's first row
        kBoth,   ///< of the row above: with the first and the second
        kEven,   ///< of the large row 2p, for the small row p that was added last
        kOdd,    ///< of the large row 2p - 1
    };

    EnlargedLines(std::int32_t* scratch, std::int64_t width)
        : lines_(scratch + kEnlargedMargin), stride_(enlargedLine(width)) {}

    std::int32_t* at(Kind kind, int kernelColumn) const {
        return lines_ + (kind * 3 + kernelColumn) * stride_;
    }

  private:
    std::int32_t* lines_;
    std::int64_t stride_;
};

template <int kValue>
struct Constant {
    constexpr operator int() const { return kValue; }
};

/// fn(0) .. fn(kCount - 1), every index a constant: arrays of sums must become registers before the
/// compiler unrolls loops.
template <int kCount, int kAt = 0, class Fn>
[[gnu::always_inline]] inline void unrolled(const Fn& fn) {
    if constexpr (kAt < kCount) {
        fn(Constant<kAt>{});
        unrolled<kCount, kAt + 1>(fn);
    }
}

/// Takes in kSegments vectors of small pixels from `column` on, with kRows rows of the kernel from
/// row kFirstRow on. `start` becomes part of every large pixel.
template <class V, int kFirstRow, int kRows, int kSegments>
[[gnu::noinline]] void addProducts(const ConvGeometry& g, const std::int8_t* weights,
                                   std::int32_t start, const std::uint8_t* pixels,
                                   EnlargedLines lines, std::int64_t column) {
    using Lines = EnlargedLines;
    constexpr int kTaps = kRows * 3;
    typename V::Sum sums[kTaps * kSegments];
    unrolled<kTaps * kSegments>(
        [&](auto i) { sums[i] = kRows == 3 && i / kSegments == 4 ? V::setInt(start) : V::zero(); });
    pixels += column * 4;
    weights += kFirstRow * 3 * V::kQuadBytes;
    for (std::int64_t quad = 0; quad < g.quads; ++quad) {
        typename V::Pixels loaded[kSegments];
        unrolled<kSegments>([&](auto s) { loaded[s] = V::pixels(pixels + s * V::kLanes * 4); });
        unrolled<kTaps>([&](auto tap) {
            const auto weight = V::weights(weights + tap * V::kQuadBytes);
            unrolled<kSegments>(
                [&](auto s) { V::dot(sums[tap * kSegments + s], loaded[s], weight); });
        });
        pixels += g.quadBytes;
        weights += 9 * V::kQuadBytes;
    }
    unrolled<3 * kSegments>([&](auto i) {  // a column of the kernel and a segment
        const auto line = [&](Lines::Kind kind) {
            return lines.at(kind, i / kSegments) + column + i % kSegments * V::kLanes;
        };
        const auto sum = [&](int row) { return sums[row * 3 * kSegments + i]; };
        if constexpr (kRows == 3) {
            const auto below = V::addInt(sum(1), sum(2));
            V::storeInts(line(Lines::kEven), V::addInt(V::loadInts(line(Lines::kFirst)), below));
        }
        if constexpr (kFirstRow + kRows == 3) {
            const auto above = V::loadInts(line(Lines::kBoth));
            V::storeInts(line(Lines::kOdd), V::addInt(above, sum(kRows - 1)));
        }
        if constexpr (kFirstRow == 0) V::storeInts(line(Lines::kFirst), sum(0));
        if constexpr (kRows == 3) V::storeInts(line(Lines::kBoth), V::addInt(sum(0), sum(1)));
    });
}

template <class V, int kFirstRow, int kRows>
void addRow(const ConvRun& run, std::int64_t channel, const std::uint8_t* pixels,
            const EnlargedLines& lines) {
    const ConvGeometry& g = run.geometry;
    const std::int8_t* const weights = run.weights.of(0, channel);
    std::int64_t x = 0;  // the last vector may reach beyond the row, into the lines' margin
    for (; x + V::kLanes < g.w && V::kEnlargedSegments == 2; x += 2 * V::kLanes) {
        addProducts<V, kFirstRow, kRows, 2>(g, weights, run.start[channel], pixels, lines, x);
    }
    for (; x < g.w; x += V::kLanes) {
        addProducts<V, kFirstRow, kRows, 1>(g, weights, run.start[channel], pixels, lines, x);
    }
}

/// One large row of a channel, from its sums down the columns.
template <class V>
void finishRow(const ConvRun& run, std::int64_t channel, const EnlargedLines& lines,
               EnlargedLines::Kind kind, std::int64_t row) {
    const std::int64_t w = run.geometry.w;
    std::int32_t* const line[3] = {lines.at(kind, 0), lines.at(kind, 1), lines.at(kind, 2)};
    // What the padding adds. Seldom written: loads that overlap a new store have to wait for it.
    const std::int32_t* const edges = run.edges + 2 * channel;
    if (line[0][-1] != edges[0]) line[0][-1] = edges[0];
    if (line[2][w] != edges[1]) line[2][w] = edges[1];
    float* const y = run.y + (channel * run.geometry.h * 2 + row) * w * 2;
    const int lanes = static_cast<int>(lesser(V::kLanes, w));
    const int low = static_cast<int>(lesser(V::kLanes, 2 * lanes));
    const float factor = run.factor[channel], bias = run.bias[channel];
    for (std::int64_t x = 0; x < w; x += V::kLanes) {
        const std::int64_t from = greater(0, lesser(x, w - V::kLanes));
        const auto ints = [&](int column, std::int64_t shift) {
            return V::loadInts(line[column] + from + shift);
        };
        const auto middle = ints(1, 0);
        const auto even = V::addInt(V::addInt(ints(0, -1), middle), ints(2, 0));
        const auto odd = V::addInt(V::addInt(ints(0, 0), middle), ints(2, 1));
        typename V::F out[2];
        V::interleave(V::toFloat(even, factor, bias), V::toFloat(odd, factor, bias), out);
        V::store(y + 2 * from, out[0], low);
        if (2 * lanes > low) V::store(y + 2 * from + low, out[1], 2 * lanes - low);
    }
}

template <class V>
void convolveEnlargedLanes(const ConvRun& run, std::int64_t first, std::int64_t count) {
    using Lines = EnlargedLines;
    const ConvGeometry& g = run.geometry;
    const Lines lines(run.scratch, g.w);
    for (std::int64_t channel = 0; channel < g.m; ++channel) {
        const std::uint8_t* pixels = run.rows + 4;  // of the row above, behind the padding
        addRow<V, 0, 1>(run, channel, pixels, lines);
        for (std::int64_t row = first; row < first + count; ++row) {
            // Large outputs lie far away: fetch their lines while the sums are made.
            for (std::int64_t x = 0; x < 4 * g.w; x += 16) {
                __builtin_prefetch(run.y + (channel * g.h + row) * 4 * g.w + x, 1);
            }
            addRow<V, 0, 3>(run, channel, pixels += g.rowBytes, lines);
            if (row > first) finishRow<V>(run, channel, lines, Lines::kOdd, 2 * row - 1);
            finishRow<V>(run, channel, lines, Lines::kEven, 2 * row);
        }
        addRow<V, 2, 1>(run, channel, pixels + g.rowBytes, lines);
        finishRow<V>(run, channel, lines, Lines::kOdd, 2 * (first + count) - 1);
    }
}

}  // namespace
}  // namespace zorv
