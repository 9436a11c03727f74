// The spectrum kernels over vector lanes. `V` names one instruction set's vector: F with the
// arithmetic operators, and load, store, set, fma (a * b + c) and sqrt; it must live in an unnamed
// namespace, so that each copy stays in the file that is compiled for it.
#pragma once

#include <cstddef>

#include "motion/motion_spectrum.h"

namespace zorv::motion {

/// One complex value per lane.
template <class V>
struct ComplexLanes {
    typename V::F re, im;
};

template <class V>
[[gnu::always_inline]] inline ComplexLanes<V> times(const ComplexLanes<V>& a,
                                                    std::complex<float> w) {
    const auto re = V::set(w.real());
    const auto im = V::set(w.imag());
    return {V::fma(a.re, re, -(a.im * im)), V::fma(a.re, im, a.im * re)};
}

/// The 256-point complex transform of kLanes packed real signals: z[j] = x[2j] + i x[2j + 1].
/// Radix 4, decimation in time: values come in by digit-reversed index, which costs nothing when
/// a value is a vector, and leave in natural order.
template <class V>
class LaneTransform {
  public:
    static constexpr int kPoints = kTransformSamples / 2;

    LaneTransform(const SpectrumTables& tables, SpectrumScratch& scratch, int lane)
        : tables_(tables),
          columns_(scratch.columns.data() + lane),
          re_(scratch.work.data()),
          im_(re_ + kPoints * V::kLanes),
          magnitudes_(scratch.magnitudes.data() + lane) {}

    void run() {
        firstStage();
        for (int length = 16; length <= kPoints; length *= 4) stage(length);
        split();
    }

  private:
    using Complex = ComplexLanes<V>;

    Complex get(int i) const {
        return {V::load(re_ + i * V::kLanes), V::load(im_ + i * V::kLanes)};
    }
    void put(int i, const Complex& z) {
        V::store(re_ + i * V::kLanes, z.re);
        V::store(im_ + i * V::kLanes, z.im);
    }

    typename V::F sample(int n) const {
        const float* at = columns_ + (n % kTransformHop) * kLaneStride + n / kTransformHop;
        return V::load(at) * V::set(tables_.halfWindow[static_cast<std::size_t>(n)]);
    }
    Complex packed(int j) const { return {sample(2 * j), sample(2 * j + 1)}; }

    /// A transform of four points; its outputs go to i, i + step, i + 2 step, i + 3 step.
    [[gnu::always_inline]] void butterfly(const Complex& a, const Complex& b, const Complex& c,
                                          const Complex& d, int i, int step) {
        const Complex sum{a.re + c.re, a.im + c.im};
        const Complex difference{a.re - c.re, a.im - c.im};
        const Complex otherSum{b.re + d.re, b.im + d.im};
        const Complex otherDifference{b.re - d.re, b.im - d.im};
        put(i, {sum.re + otherSum.re, sum.im + otherSum.im});
        put(i + step, {difference.re + otherDifference.im, difference.im - otherDifference.re});
        put(i + 2 * step, {sum.re - otherSum.re, sum.im - otherSum.im});
        put(i + 3 * step, {difference.re - otherDifference.im, difference.im + otherDifference.re});
    }

    void firstStage() {
        constexpr int kQuarter = kPoints / 4;
        for (int q = 0; q < kQuarter; ++q) {
            const int j = (q & 3) << 4 | (q & 12) | q >> 4;  // q's three base-4 digits reversed
            butterfly(packed(j), packed(j + kQuarter), packed(j + 2 * kQuarter),
                      packed(j + 3 * kQuarter), 4 * q, 1);
        }
    }

    void stage(int length) {
        const int step = length / 4;
        for (int base = 0; base < kPoints; base += length) {
            butterfly(get(base), get(base + step), get(base + 2 * step), get(base + 3 * step), base,
                      step);
        }
        for (int j = 1; j < step; ++j) {
            const auto w1 = root(j * (kPoints / length));
            const auto w2 = root(2 * j * (kPoints / length));
            const auto w3 = root(3 * j * (kPoints / length));
            for (int i = j; i < kPoints; i += length) {
                butterfly(get(i), times<V>(get(i + step), w1), times<V>(get(i + 2 * step), w2),
                          times<V>(get(i + 3 * step), w3), i, step);
            }
        }
    }

    /// exp(-2 pi i n / 256), n < 192.
    std::complex<float> root(int n) const {
        const int at = 2 * n;  // the table has 512 steps to the turn and ends at half of it
        return at <= kPoints ? tables_.twiddles[static_cast<std::size_t>(at)]
                             : -tables_.twiddles[static_cast<std::size_t>(at - kPoints)];
    }

    /// Z[k] +- conj Z[256 - k] hold the spectra of the even and of the odd samples; together they
    /// give bins k and 256 - k (as its conjugate) of the 512 real samples.
    void split() {
        for (int k = 0; k <= kPoints / 2; ++k) {
            const Complex a = get(k);
            const Complex b = get((kPoints - k) % kPoints);
            const Complex even{a.re + b.re, a.im - b.im};
            const Complex odd =
                times<V>({a.im + b.im, b.re - a.re}, tables_.twiddles[static_cast<std::size_t>(k)]);
            putMagnitude(k, {even.re + odd.re, even.im + odd.im});
            putMagnitude(kPoints - k, {even.re - odd.re, even.im - odd.im});
        }
    }
    void putMagnitude(int bin, const Complex& z) {
        V::store(magnitudes_ + bin * kLaneStride, V::sqrt(V::fma(z.re, z.re, z.im * z.im)));
    }

    const SpectrumTables& tables_;
    const float* columns_;
    float* re_;
    float* im_;
    float* magnitudes_;
};

/// Bands in vectors [0, kVectors) from `band` on, of kRows transforms from `row` on.
template <class V, int kRows, int kVectors>
void projectTile(const SpectrumTables& tables, SpectrumScratch& scratch, int row, int band,
                 SpectrumTables::Range range) {
    typename V::F sums[kRows][kVectors];
    for (auto& rowSums : sums) {
        for (auto& sum : rowSums) sum = V::set(0);
    }
    for (int k = range.first; k < range.last; ++k) {
        const float* magnitudes = scratch.magnitudes.data() + k * kLaneStride + row;
        const float* weights = tables.binmat.data() + k * kBands + band;
        typename V::F w[kVectors];
        for (int v = 0; v < kVectors; ++v) w[v] = V::load(weights + v * V::kLanes);
        for (int r = 0; r < kRows; ++r) {
            const auto magnitude = V::set(magnitudes[r]);
            for (int v = 0; v < kVectors; ++v) sums[r][v] = V::fma(magnitude, w[v], sums[r][v]);
        }
    }
    for (int r = 0; r < kRows; ++r) {
        float* to = scratch.bands.data() + (row + r) * kBands + band;
        for (int v = 0; v < kVectors; ++v) V::store(to + v * V::kLanes, sums[r][v]);
    }
}

/// All bands in tiles of kRows transforms by one range of bands.
template <class V, int kRows>
void projectBands(const SpectrumTables& tables, SpectrumScratch& scratch) {
    constexpr int kVectors = SpectrumTables::kRangeBands / V::kLanes;
    static_assert(kTransforms % kRows == 0);
    for (std::size_t i = 0; i < tables.ranges.size(); ++i) {
        const int band = static_cast<int>(i) * SpectrumTables::kRangeBands;
        for (int row = 0; row < kTransforms; row += kRows) {
            projectTile<V, kRows, kVectors>(tables, scratch, row, band, tables.ranges[i]);
        }
    }
}

}  // namespace zorv::motion
