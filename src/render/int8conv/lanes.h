// The int8 convolution's loops over vector lanes, one output pixel per lane: neighbouring pixels
// are the unsigned operand and weights are broadcast, so that neither the input nor the sums need
// transposing and the border needs no routine of its own. `V` names one instruction set's
// operations. Everything here lives in an unnamed namespace and keeps away from library templates,
// so that each copy stays in the file that is compiled for it.
#pragma once

#include "render/int8conv/kernels.h"

namespace zorv {
namespace {

inline std::int64_t lesser(std::int64_t a, std::int64_t b) {
    return b < a ? b : a;
}
inline std::int64_t greater(std::int64_t a, std::int64_t b) {
    return a < b ? b : a;
}

/// A vector's worth of neighbouring output pixels of one row.
struct ConvSegment {
    const std::uint8_t* pixels;  ///< first tap of the first pixel, in its group's first quad
    float* y;                    ///< in the block's first channel
};

/// One block of output channels and where to find and put its data.
struct ConvBlock {
    const std::int8_t* weights;
    const std::int32_t* start;
    const float* factor;
    const float* bias;
    std::int64_t channels;  ///< of V::kBlock, those that exist
    int lanes;              ///< of a vector, those that exist
};

/// kSegments vectors of pixels times V::kBlock channels, all sums in registers.
template <class V, int kSegments>
[[gnu::noinline]] void convolveTile(const ConvGeometry& g, const ConvBlock& block,
                                    const ConvSegment* segments) {
    static_assert(V::kBlock <= kMaxBlock);
    typename V::Sum sums[V::kBlock][kSegments];
    for (int i = 0; i < V::kBlock; ++i) {
        for (auto& sum : sums[i]) sum = V::setInt(block.start[i]);
    }
    // Large outputs lie far away: fetch their lines while the sums are made.
    for (int i = 0; i < block.channels; ++i) {
        for (int s = 0; s < kSegments; ++s) __builtin_prefetch(segments[s].y + i * g.oh * g.ow, 1);
    }
    const std::uint8_t* pixels[kSegments];
    for (int s = 0; s < kSegments; ++s) pixels[s] = segments[s].pixels;
    const std::int8_t* weights = block.weights;
    const std::int64_t* const taps = g.tapOffsets.data();
    const std::size_t tapCount = g.tapOffsets.size();
    for (std::int64_t quad = 0; quad < g.quads; ++quad) {
        for (std::size_t tap = 0; tap < tapCount; ++tap) {
            typename V::Pixels loaded[kSegments];
            for (int s = 0; s < kSegments; ++s) loaded[s] = V::pixels(pixels[s] + taps[tap]);
            for (int i = 0; i < V::kBlock; ++i) {
                const auto weight = V::weights(weights + i * V::kQuadBytes);
                for (int s = 0; s < kSegments; ++s) V::dot(sums[i][s], loaded[s], weight);
            }
            weights += V::kBlock * V::kQuadBytes;
        }
        for (auto& pixel : pixels) pixel += g.quadBytes;
    }
    for (int i = 0; i < V::kBlock; ++i) {
        if (i == block.channels) break;
        for (int s = 0; s < kSegments; ++s) {
            V::store(segments[s].y + i * g.oh * g.ow,
                     V::toFloat(sums[i][s], block.factor[i], block.bias[i]), block.lanes);
        }
    }
}

/// Collects segments and convolves whenever a tile is full.
template <class V>
class TileQueue {
  public:
    TileQueue(const ConvGeometry& geometry, const ConvBlock& block)
        : geometry_(geometry), block_(block) {}

    void add(const std::uint8_t* pixels, float* y) {
        segments_[count_++] = {pixels, y};
        if (count_ == V::kSegments) flush<V::kSegments>();
    }

    template <int kSegments = V::kSegments - 1>
    void finish() {
        if (count_ == kSegments) return flush<kSegments>();
        if constexpr (kSegments > 1) finish<kSegments - 1>();
    }

  private:
    template <int kSegments>
    void flush() {
        convolveTile<V, kSegments>(geometry_, block_, segments_);
        count_ = 0;
    }

    const ConvGeometry& geometry_;
    const ConvBlock& block_;
    ConvSegment segments_[V::kSegments];
    int count_ = 0;
};

/// `count` rows from `row` on, all channels: so few that the rows' quantised pixels stay in the
/// nearest cache while the weights pass by.
template <class V>
void convolveRowBlock(const ConvRun& run, const std::uint8_t* rows, std::int64_t row,
                      std::int64_t count) {
    const ConvGeometry& g = run.geometry;
    const std::int64_t step = g.attributes.strides[0] * g.rowBytes;
    for (std::int64_t group = 0; group < g.attributes.group; ++group) {
        for (std::int64_t b = 0; b < run.weights.blocks; ++b) {
            const std::int64_t channel = group * g.groupOut + b * V::kBlock;
            const ConvBlock block = {run.weights.of(group, b),
                                     run.start + channel,
                                     run.factor + channel,
                                     run.bias + channel,
                                     lesser(V::kBlock, g.groupOut - b * V::kBlock),
                                     static_cast<int>(lesser(V::kLanes, g.ow))};
            TileQueue<V> queue(g, block);
            for (std::int64_t i = 0; i < count; ++i) {
                const std::uint8_t* pixels = rows + i * step + group * g.groupBytes;
                float* y = run.y + (channel * g.oh + row + i) * g.ow;
                for (std::int64_t x = 0; x < g.ow; x += V::kLanes) {
                    // The last vector of a row goes back over pixels that are done.
                    const std::int64_t from = greater(0, lesser(x, g.ow - V::kLanes));
                    queue.add(pixels + from * 4, y + from);
                }
            }
            queue.finish();
        }
    }
}

template <class V>
void convolveRowsLanes(const ConvRun& run, std::int64_t first, std::int64_t count) {
    const ConvGeometry& g = run.geometry;
    const std::int64_t perRow = (g.ow + V::kLanes - 1) / V::kLanes;
    // So many rows that whole tiles cover them.
    std::int64_t block = 1;
    while (block < V::kSegments && block * perRow % V::kSegments != 0) ++block;
    for (std::int64_t done = 0; done < count; done += block) {
        convolveRowBlock<V>(run, run.rows + done * g.attributes.strides[0] * g.rowBytes,
                            first + done, lesser(block, count - done));
    }
}

template <class V>
void minMaxLanes(const float* data, std::size_t count, float* min, float* max) {
    constexpr int kVectors = 4;
    typename V::F low[kVectors], high[kVectors];
    for (int v = 0; v < kVectors; ++v) low[v] = high[v] = V::zeroFloat();
    std::size_t i = 0;
    for (; i + kVectors * V::kLanes <= count; i += kVectors * V::kLanes) {
        for (int v = 0; v < kVectors; ++v) {
            const auto value = V::load(data + i + static_cast<std::size_t>(v * V::kLanes));
            low[v] = V::min(value, low[v]);  // in this order: a NaN leaves the second operand
            high[v] = V::max(value, high[v]);
        }
    }
    float lanes[2][kVectors * V::kLanes];
    for (int v = 0; v < kVectors; ++v) {
        V::storeAll(lanes[0] + v * V::kLanes, low[v]);
        V::storeAll(lanes[1] + v * V::kLanes, high[v]);
    }
    kInt8ConvPortable.minMax(data + i, count - i, min, max);
    for (const float value : lanes[0]) *min = value < *min ? value : *min;
    for (const float value : lanes[1]) *max = value > *max ? value : *max;
}

/// Where a product with the reciprocal rounds to the same integer as the quotient: while neither
/// is subnormal and the quotient's magnitude stays below 512, they differ by less than 2^-13.
inline bool reciprocalServes(float scale) {
    return scale > 0x1p-100f && scale < 0x1p100f;
}
constexpr float kSafeFraction = 0.5f - 0x1p-13f;
/// Added to a small number it leaves the number's integer part in the low bits, rounded to even.
constexpr float kRounder = 0x1.8p23f;

template <class V>
void quantiseRowLanes(const float* const* channels, std::int64_t width, Quantisation q,
                      std::uint32_t* out) {
    const float* const some = channels[0];  // a quad has a first channel
    const float* const in[4] = {some, channels[1] ? channels[1] : some,
                                channels[2] ? channels[2] : some, channels[3] ? channels[3] : some};
    if (width < V::kLanes) return kInt8ConvPortable.quantiseRow(in, width, q, out);
    const auto scale = V::set(q.scale), reciprocal = V::set(1 / q.scale);
    const auto zeroPoint = V::setInt(q.zeroPoint);
    const auto rounder = V::set(kRounder + static_cast<float>(q.zeroPoint));
    const auto byQuotient = [&](std::int64_t x) {
        typename V::Sum bytes[4];
        for (int i = 0; i < 4; ++i) {
            const auto quotient = V::div(V::load(in[i] + x), scale);
            bytes[i] = V::addInt(V::toInt(quotient), zeroPoint);
        }
        V::storeQuads(out + x, V::quads(bytes));
    };
    const auto block = [&](std::int64_t x) {
        typename V::F sums[4];
        typename V::Sum farthest = V::zero();  // |fraction|, whose bits order like integers
        for (int i = 0; i < 4; ++i) {
            const auto value = V::load(in[i] + x);
            sums[i] = V::multiplyAdd(value, reciprocal, rounder);
            const auto whole = V::sub(sums[i], rounder);
            const auto fraction = V::multiplySubtract(value, reciprocal, whole);
            farthest = V::maxInt(farthest, V::magnitudeBits(fraction));
        }
        if (V::anyAbove(farthest, kSafeFraction)) return byQuotient(x);  // a NaN counts as above
        V::storeQuads(out + x, V::quadsOfLowHalves(sums));
    };
    if (!reciprocalServes(q.scale)) {
        std::int64_t x = 0;
        for (; x + V::kLanes <= width; x += V::kLanes) byQuotient(x);
        if (x < width) byQuotient(width - V::kLanes);
        return;
    }
    std::int64_t x = 0;
    for (; x + V::kLanes <= width; x += V::kLanes) block(x);
    if (x < width) block(width - V::kLanes);  // again some pixels that are done
}

}  // namespace
}  // namespace zorv
