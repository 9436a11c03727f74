// The compositor's loops over vector lanes, one pixel per lane. `V` names one instruction set's
// operations; it must live in an unnamed namespace, so that each copy stays in the file that is
// compiled for it.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>

#include "paste/paste_kernels.h"

namespace zorv {

/// Runs block.operator()<kVectors>(i) over [0, count), in blocks of eight vectors, four and one.
/// The last vector may do some elements again, with the same result. False: less than a vector.
/// Eight sums at a time, since one sum has to wait for each of its additions.
template <class V, class Block>
[[gnu::always_inline]] inline bool overBlocks(int count, const Block& block) {
    if (count < V::kLanes) return count == 0;
    int i = 0;
    for (; i + 8 * V::kLanes <= count; i += 8 * V::kLanes) block.template operator()<8>(i);
    for (; i + 4 * V::kLanes <= count; i += 4 * V::kLanes) block.template operator()<4>(i);
    for (; i + V::kLanes <= count; i += V::kLanes) block.template operator()<1>(i);
    if (i < count) block.template operator()<1>(count - V::kLanes);
    return true;
}

/// sums[b] = sum over t of weights[t] * load(t, offset of vector b)
template <class V, int kVectors, class Load>
[[gnu::always_inline]] inline void weighted(const float* weights, int taps, typename V::F* sums,
                                            const Load& load) {
    for (int b = 0; b < kVectors; ++b) {
        sums[b] = V::mul(V::set(weights[0]), load(0, b * V::kLanes));
    }
    for (int t = 1; t < taps; ++t) {
        const auto w = V::set(weights[t]);
        for (int b = 0; b < kVectors; ++b) {
            sums[b] = V::add(sums[b], V::mul(w, load(t, b * V::kLanes)));
        }
    }
}

template <class V>
void scaleRowLanes(const float* in, float scale, float* out, int count) {
    const auto block = [&]<int kVectors>(int i) {
        for (int b = 0; b < kVectors; ++b) {
            const int at = i + b * V::kLanes;
            V::store(out + at, V::mul(V::set(scale), V::load(in + at)));
        }
    };
    if (!overBlocks<V>(count, block)) kPasteKernelsPortable.scaleRow(in, scale, out, count);
}

template <class V>
void blurRowLanes(const float* in, const float* weights, int taps, float* out, int count) {
    const auto block = [&]<int kVectors>(int i) {
        typename V::F sums[kVectors];
        weighted<V, kVectors>(weights, taps, sums,
                              [&](int t, int at) { return V::load(in + i + t + at); });
        for (int b = 0; b < kVectors; ++b) V::store(out + i + b * V::kLanes, sums[b]);
    };
    if (!overBlocks<V>(count, block)) {
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
    if (!overBlocks<V>(count, block)) {
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
    static constexpr int kMaxRows = kTaps + LaneGroup<V>::kMaxSpanY;
    typename V::F x[kTaps];
    typename V::F y[kMaxRows];
    typename V::M reads[kMaxRows];  ///< lanes that read this row at all; unset on a level group
    int rows;

    LaneWeights(const LaneGroup<V>& group, const PhaseTable& table) {
        V::template lookup<kTaps>(table, group.phaseX, x);
        V::template lookup<kTaps>(table, group.phaseY, y);
        rows = kTaps + group.spanY;
        if (group.spanY != 0) spread(group);
    }

  private:
    void spread(const LaneGroup<V>& group) {
        typename V::F own[kTaps];
        std::copy_n(y, kTaps, own);
        const auto top = V::equalI(group.rowOffset, V::setI(0));
        for (int r = 0; r < kTaps; ++r) {
            y[r] = V::select(top, own[r], V::zero());
            reads[r] = top;
        }
        for (int d = 1; d <= group.spanY; ++d) {
            const auto lanes = V::equalI(group.rowOffset, V::setI(d));
            for (int r = 0; r < kTaps - 1; ++r) {
                y[r + d] = V::select(lanes, own[r], y[r + d]);
                reads[r + d] = V::either(lanes, reads[r + d]);
            }
            y[kTaps - 1 + d] = V::select(lanes, own[kTaps - 1], V::zero());
            reads[kTaps - 1 + d] = lanes;
        }
    }
};

/// `tapsAt(p, taps)` loads what the lanes read from the row that starts at p, tap by tap. The sums
/// start with the first product: starting at 0 could change only the sign of a zero.
template <class V, int kTaps, int kPlanes, class TapsAt>
[[gnu::always_inline]] inline void resampleWith(const float* const* at, std::ptrdiff_t stride,
                                                const LaneWeights<V, kTaps>& weights,
                                                const TapsAt& tapsAt, typename V::F* sums) {
    const auto weighted = [&](int c, int r) {
        typename V::F taps[kTaps];
        tapsAt(at[c] + r * stride, taps);
        auto sum = V::mul(weights.x[0], taps[0]);
        for (int k = 1; k < kTaps; ++k) sum = V::add(sum, V::mul(weights.x[k], taps[k]));
        return V::mul(weights.y[r], sum);
    };
    for (int c = 0; c < kPlanes; ++c) sums[c] = V::zero();
    if (weights.rows == kTaps) {
        for (int r = 0; r < kTaps; ++r) {
            for (int c = 0; c < kPlanes; ++c) sums[c] = V::add(sums[c], weighted(c, r));
        }
        return;
    }
    for (int r = 0; r < weights.rows; ++r) {
        for (int c = 0; c < kPlanes; ++c) {
            sums[c] = V::addWhere(weights.reads[r], sums[c], weighted(c, r));
        }
    }
}

/// Taps picked out of two vectors per kShared taps: they lie at most 2 * kLanes - kShared apart.
template <class V, int kTaps, int kShared>
struct PickedTaps {
    typename V::I index[kShared];
    explicit PickedTaps(const LaneGroup<V>& group) {
        for (int k = 0; k < kShared; ++k) index[k] = V::addI(group.index, V::setI(k));
    }
    [[gnu::always_inline]] void operator()(const float* p, typename V::F* taps) const {
        for (int k = 0; k < kTaps; k += kShared) {
            const auto a = V::load(p + k);
            const auto b = V::load(p + k + V::kLanes);
            for (int i = 0; i < kShared; ++i) taps[k + i] = V::pick2(a, b, index[i]);
        }
    }
};

/// kPlanes planes around the group; `planes` point at elements (0, 0).
template <class V, int kTaps, int kPlanes>
inline void resampleLanes(const LaneGroup<V>& group, const LaneWeights<V, kTaps>& weights,
                          const float* const* planes, std::ptrdiff_t stride, int before,
                          typename V::F* sums) {
    const float* at[kPlanes];
    for (int c = 0; c < kPlanes; ++c) {
        at[c] = planes[c] + (group.top - before) * stride + group.left - before;
    }
    const auto with = [&](const auto& tapsAt) {
        resampleWith<V, kTaps, kPlanes>(at, stride, weights, tapsAt, sums);
    };
    constexpr int kShared = std::min(kTaps, 4);
    if (group.adjacent) {
        with([](const float* p, typename V::F* taps) { V::template adjacentTaps<kTaps>(p, taps); });
    } else if (V::kLanes >= 2 * kTaps && group.spanX <= 2 * V::kLanes - kTaps) {
        with(PickedTaps<V, kTaps, kTaps>(group));
    } else if (group.spanX <= 2 * V::kLanes - kShared) {
        with(PickedTaps<V, kTaps, kShared>(group));
    } else {
        with(PickedTaps<V, kTaps, 1>(group));
    }
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
        typename V::F level;
        resampleLanes<V, 2, 1>(group, weights, &mask, stride, 0, &level);
        V::roundToBytes(level, bytes);
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
        std::uint8_t padded[V::kLanes] = {};
        if (n < V::kLanes) std::memcpy(padded, levels + i, static_cast<std::size_t>(n));
        const std::uint8_t* cover = n < V::kLanes ? padded : levels + i;
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
        resampleLanes<V, kTaps, 3>(group, weights, planes, stride, table.before, colours);
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
