// The compositor's loops over vector lanes, one pixel per lane. `V` names one instruction set's
// operations; it must live in an unnamed namespace, so that each copy stays in the file that is
// compiled for it.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>

#include "paste/paste_kernels.h"

namespace zorv {

/// Runs body(i) for each whole step from `from` on; returns where the rest begins.
template <int kStep, class Body>
int wholeBlocks(int from, int count, const Body& body) {
    for (; from + kStep <= count; from += kStep) body(from);
    return from;
}

template <class V, int kVectors, class Load>
[[gnu::always_inline]] inline void weighted(const float* weights, int taps, typename V::F* sums,
                                            const Load& load) {
    for (int b = 0; b < kVectors; ++b) sums[b] = V::zero();
    for (int t = 0; t < taps; ++t) {
        const auto w = V::set(weights[t]);
        for (int b = 0; b < kVectors; ++b) {
            sums[b] = V::add(sums[b], V::mul(w, load(t, b * V::kLanes)));
        }
    }
}

template <class V>
void blurRowLanes(const float* in, const float* weights, int taps, float* out, int count) {
    const auto block = [&]<int kVectors>(int i) {
        typename V::F sums[kVectors];
        weighted<V, kVectors>(weights, taps, sums,
                              [&](int t, int at) { return V::load(in + i + t + at); });
        for (int b = 0; b < kVectors; ++b) V::store(out + i + b * V::kLanes, sums[b]);
    };
    const auto four = [&](int i) { block.template operator()<4>(i); };
    const auto one = [&](int i) { block.template operator()<1>(i); };
    int i = wholeBlocks<4 * V::kLanes>(0, count, four);
    i = wholeBlocks<V::kLanes>(i, count, one);
    if (i == count) return;
    if (count >= V::kLanes) {
        one(count - V::kLanes);  // again some elements that are done, with the same result
    } else {
        kPasteKernelsPortable.blurRow(in, weights, taps, out, count);
    }
}

template <class V>
void sharpenRowLanes(const float* const* rows, const float* weights, int taps, const float* in,
                     float scale, float amount, float* out, int count) {
    const auto block = [&]<int kVectors>(int i) {
        typename V::F sums[kVectors];
        weighted<V, kVectors>(weights, taps, sums,
                              [&](int t, int at) { return V::load(rows[t] + i + at); });
        const auto keep = V::set(1 + amount);
        for (int b = 0; b < kVectors; ++b) {
            const auto value = V::mul(V::set(scale), V::load(in + i + b * V::kLanes));
            const auto mixed = V::sub(V::mul(value, keep), V::mul(sums[b], V::set(amount)));
            V::store(out + i + b * V::kLanes, V::clampKeepingNan(mixed));
        }
    };
    const auto four = [&](int i) { block.template operator()<4>(i); };
    const auto one = [&](int i) { block.template operator()<1>(i); };
    int i = wholeBlocks<4 * V::kLanes>(0, count, four);
    i = wholeBlocks<V::kLanes>(i, count, one);
    if (i == count) return;
    if (count >= V::kLanes) {
        one(count - V::kLanes);
    } else {
        kPasteKernelsPortable.sharpenRow(rows, weights, taps, in, scale, amount, out, count);
    }
}

/// Where the pixels of one vector lie in the crop: lane l reads columns left + index[l] + k of
/// the rows from `top` on. Lanes outside [first, last] repeat what lane `first` reads.
template <class V>
struct LaneGroup {
    int left = 0;
    int top = 0;
    int spanX = 0;          ///< largest index
    int spanY = 0;          ///< largest row offset
    bool adjacent = false;  ///< index[l] is l for all lanes in use
    typename V::I index, rowOffset, phaseX, phaseY;

    /// Positions are monotonic along a row, so its ends bound the whole group.
    LaneGroup(const RowPositions& row, int i, int first, int last) {
        const int xFirst = (row.colU[i + first] + row.rowU) >> 10;
        const int xLast = (row.colU[i + last] + row.rowU) >> 10;
        const int yFirst = (row.colV[i + first] + row.rowV) >> 10;
        const int yLast = (row.colV[i + last] + row.rowV) >> 10;
        left = std::min(xFirst, xLast);
        top = std::min(yFirst, yLast);
        spanX = std::max(xFirst, xLast) - left;
        spanY = std::max(yFirst, yLast) - top;
        const auto u = V::addI(V::loadLanes(row.colU + i, first, last), V::setI(row.rowU));
        const auto v = V::addI(V::loadLanes(row.colV + i, first, last), V::setI(row.rowV));
        index = V::subI(V::template shiftI<10>(u), V::setI(left));
        rowOffset = V::subI(V::template shiftI<10>(v), V::setI(top));
        phaseX = V::andI(V::template shiftI<5>(u), V::setI(kPhases - 1));
        phaseY = V::andI(V::template shiftI<5>(v), V::setI(kPhases - 1));
        adjacent = first == 0 && last == V::kLanes - 1 && V::isIota(index);
    }
    bool fits() const { return spanX < 2 * V::kLanes && spanY <= kMaxSpanY; }
    static constexpr int kMaxSpanY = 4;
};

/// Weights of one group, vertical ones spread over all rows that any lane reads.
template <class V, int kTaps>
struct LaneWeights {
    typename V::F x[kTaps];
    typename V::F y[kTaps + LaneGroup<V>::kMaxSpanY];
    typename V::M reads[kTaps + LaneGroup<V>::kMaxSpanY];  ///< lanes that read this row at all
    int rows;

    LaneWeights(const LaneGroup<V>& group, const PhaseTable& table) {
        typename V::F own[kTaps];
        V::template lookup<kTaps>(table, group.phaseX, x);
        V::template lookup<kTaps>(table, group.phaseY, own);
        rows = kTaps + group.spanY;
        if (group.spanY == 0) {
            for (int r = 0; r < kTaps; ++r) y[r] = own[r];
            return;
        }
        for (int r = 0; r < rows; ++r) {
            y[r] = V::zero();
            reads[r] = V::noLanes();
        }
        for (int d = 0; d <= group.spanY; ++d) {
            const auto lanes = V::equalI(group.rowOffset, V::setI(d));
            for (int r = 0; r < kTaps; ++r) {
                y[r + d] = V::select(lanes, own[r], y[r + d]);
                reads[r + d] = V::either(lanes, reads[r + d]);
            }
        }
    }
};

template <class V, int kTaps, class Window>
[[gnu::always_inline]] inline typename V::F resampleWith(const float* at, std::ptrdiff_t stride,
                                                         bool level,
                                                         const LaneWeights<V, kTaps>& weights,
                                                         const Window& window) {
    auto sum = V::zero();
    for (int r = 0; r < weights.rows; ++r, at += stride) {
        auto rowSum = V::zero();
        for (int k = 0; k < kTaps; ++k) {
            rowSum = V::add(rowSum, V::mul(weights.x[k], window(at + k)));
        }
        const auto next = V::add(sum, V::mul(weights.y[r], rowSum));
        sum = level ? next : V::select(weights.reads[r], next, sum);
    }
    return sum;
}

/// One plane around the group; `plane` points at element (0, 0).
template <class V, int kTaps>
inline typename V::F resampleLanes(const LaneGroup<V>& group, const LaneWeights<V, kTaps>& weights,
                                   const float* plane, std::ptrdiff_t stride, int before) {
    const float* at = plane + (group.top - before) * stride + group.left - before;
    const bool level = group.spanY == 0;
    if (group.adjacent) {
        return resampleWith<V, kTaps>(at, stride, level, weights,
                                      [](const float* p) { return V::load(p); });
    }
    if (group.spanX < V::kLanes) {
        return resampleWith<V, kTaps>(at, stride, level, weights, [&](const float* p) {
            return V::pick(V::load(p), group.index);
        });
    }
    return resampleWith<V, kTaps>(at, stride, level, weights, [&](const float* p) {
        return V::pick2(V::load(p), V::load(p + V::kLanes), group.index);
    });
}

static inline RowPositions partOf(const RowPositions& row, int i, int count) {
    return {row.colU + i, row.colV + i, row.rowU, row.rowV, count};
}

template <class V>
void coverRowLanes(const RowPositions& row, const PhaseTable& linear, const float* mask,
                   std::ptrdiff_t stride, std::uint8_t* levels) {
    for (int i = 0; i < row.count; i += V::kLanes) {
        const int n = std::min(V::kLanes, row.count - i);
        const LaneGroup<V> group(row, i, 0, n - 1);
        if (!group.fits()) {
            kPasteKernelsPortable.coverRow(partOf(row, i, n), linear, mask, stride, levels + i);
            continue;
        }
        const LaneWeights<V, 2> weights(group, linear);
        std::uint8_t bytes[V::kLanes];
        V::roundToBytes(resampleLanes<V, 2>(group, weights, mask, stride, 0), bytes);
        std::memcpy(levels + i, bytes, static_cast<std::size_t>(n));
    }
}

/// Three vectors of interleaved RGB bytes, each with its share of the colours and of alpha.
template <class V>
inline void blendLanes(const typename V::F* colours, typename V::F alpha, std::uint8_t* pixels) {
    const auto third = [&]<int kPart>() {
        const auto weight = V::template spread<kPart>(alpha);
        const auto value = V::template interleave<kPart>(colours[0], colours[1], colours[2]);
        std::uint8_t* at = pixels + kPart * V::kLanes;
        const auto kept = V::mul(V::loadBytes(at), V::sub(V::set(1), weight));
        V::storeBytes(at, V::add(kept, V::mul(weight, value)), V::above0(weight));
    };
    third.template operator()<0>();
    third.template operator()<1>();
    third.template operator()<2>();
}

template <class V, int kTaps>
void blendRowTaps(const RowPositions& row, const PhaseTable& table, const float* const* planes,
                  std::ptrdiff_t stride, const std::uint8_t* levels, std::uint8_t* pixels) {
    for (int i = 0; i < row.count; i += V::kLanes) {
        const int n = std::min(V::kLanes, row.count - i);
        std::uint8_t cover[V::kLanes] = {};
        std::memcpy(cover, levels + i, static_cast<std::size_t>(n));
        int first = 0;
        int last = n - 1;
        while (first <= last && cover[first] == 0) ++first;
        if (first > last) continue;
        while (cover[last] == 0) --last;
        std::uint8_t* out = pixels + std::ptrdiff_t{3} * i;
        const LaneGroup<V> group(row, i, first, last);
        if (!group.fits()) {
            kPasteKernelsPortable.blendRow(partOf(row, i, n), table, planes, stride, cover, out);
            continue;
        }
        const LaneWeights<V, kTaps> weights(group, table);
        typename V::F colours[3];
        for (int c = 0; c < 3; ++c) {
            colours[c] = resampleLanes<V, kTaps>(group, weights, planes[c], stride, table.before);
        }
        const auto alpha = V::div(V::loadBytes(cover), V::set(255));
        if (n == V::kLanes) {
            blendLanes<V>(colours, alpha, out);
        } else {
            std::uint8_t bytes[3 * V::kLanes] = {};
            std::memcpy(bytes, out, static_cast<std::size_t>(3 * n));
            blendLanes<V>(colours, alpha, bytes);
            std::memcpy(out, bytes, static_cast<std::size_t>(3 * n));
        }
    }
}

template <class V>
void blendRowLanes(const RowPositions& row, const PhaseTable& table, const float* const* planes,
                   std::ptrdiff_t stride, const std::uint8_t* levels, std::uint8_t* pixels) {
    const auto with = table.taps == 8   ? blendRowTaps<V, 8>
                      : table.taps == 4 ? blendRowTaps<V, 4>
                                        : blendRowTaps<V, 2>;
    with(row, table, planes, stride, levels, pixels);
}

}  // namespace zorv
