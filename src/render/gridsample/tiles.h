// The walk that the vector samplers share. Points are taken in groups of one vector, row by row
// across the plane; points and output have the same order, so a group may run over the end of a
// row. What a group needs (places and weights) is worked out once and used for all channels.
//
// For one instruction set only: included by kernel_avx2.cpp and kernel_avx512.cpp, and everything
// here has internal linkage or a type of theirs as its parameter, so that no code of a wider set is
// shared with the baseline.
#pragma once

#include <immintrin.h>

#include <cstdint>

#include "render/gridsample/gridsample_fast.h"

namespace zorv {
namespace {

/// One plane's shape as the samplers use it.
struct PlaneShape {
    std::int32_t height;
    std::int32_t width;
    std::int64_t pixels;
};

/// Channels of one group that are sampled in a row, before the next group's: enough to pay for
/// fetching the group's places and weights, few enough that the rows stay in the nearest cache.
constexpr std::int64_t kChannelBlock = 4;

/// Samples a group's channels with `one` (offset of the channel's plane -> vector) and stores them
/// at `y`. A full block goes to `stores` at its end: planes often lie a multiple of 4 KiB apart,
/// and a load waits for a store before it whose address has the same low 12 bits.
template <class Stores, class One>
inline __attribute__((always_inline)) void forEachChannel(std::int64_t channels, std::int64_t plane,
                                                          float* y, Stores& stores,
                                                          const One& one) {
    if (channels == kChannelBlock) {
        stores.block(y, plane, {{one(0), one(plane), one(2 * plane), one(3 * plane)}});
        return;
    }
    for (std::int64_t c = 0; c < channels; ++c) Stores::store(y + c * plane, one(c * plane));
}

/// Pixels of a tile, whose places and weights lie on the stack (12 KiB): enough that scattered
/// points find a plane that was fetched for their tile, few enough for small stacks. (Not on the
/// heap: stores to the tile could then be stores to anything, and the compiler loads all anew.)
constexpr int kTilePixels = 512;

/// Sampler has kLanes, Group, Stores (writes full blocks, all of them by flush()), and
///   bool prepare(Group&, const float* grid, const PlaneShape&): takes kLanes points; says whether
///       they lie close together;
///   void sample(const Group&, const float* x, float* y, std::int64_t channels, const PlaneShape&,
///               Stores&).
template <class Sampler>
class Tile {
  public:
    /// Takes the points from `first` on; returns the first that it does not take.
    std::int64_t prepare(const float* grid, std::int64_t first, const PlaneShape& shape) {
        int close = 0;
        count_ = 0;
        for (; count_ < kGroups && first < shape.pixels; ++count_, first += Sampler::kLanes) {
            // The last group ends with the plane and does some pixels of its neighbour again.
            const std::int64_t latest = shape.pixels - Sampler::kLanes;
            starts_[count_] = first < latest ? first : latest;
            close += Sampler::prepare(groups_[count_], grid + 2 * starts_[count_], shape);
        }
        // Scattered points read the whole plane, which should stay in the nearest cache: fewer
        // planes at a time.
        channelBlock_ = 2 * close < count_ ? 2 : kChannelBlock;
        return first;
    }

    void sample(const float* x, float* y, std::int64_t C, const PlaneShape& shape) const {
        for (std::int64_t c = 0; c < C; c += channelBlock_) {
            const std::int64_t channels = C - c < channelBlock_ ? C - c : channelBlock_;
            const std::int64_t plane = c * shape.pixels;
            typename Sampler::Stores stores;
            for (int i = 0; i < count_; ++i) {
                Sampler::sample(groups_[i], x + plane, y + plane + starts_[i], channels, shape,
                                stores);
            }
            stores.flush();
        }
    }

  private:
    static constexpr int kGroups = kTilePixels / Sampler::kLanes;
    typename Sampler::Group groups_[kGroups];
    std::int64_t starts_[kGroups];
    int count_ = 0;
    std::int64_t channelBlock_ = kChannelBlock;
};

template <class Sampler>
void sampleByTiles(const float* x, const float* grid, float* y, std::int64_t C,
                   const PlaneShape& shape) {
    Tile<Sampler> tile;
    for (std::int64_t next = 0; next < shape.pixels;) {
        next = tile.prepare(grid, next, shape);
        tile.sample(x, y, C, shape);
    }
}

/// Whether the vector paths' index arithmetic covers this shape; the rest is for the formulas.
template <class Sampler>
bool takesShape(std::int64_t H, std::int64_t W) {
    constexpr std::int64_t kExactInFloat = std::int64_t{1} << 24;
    return W >= 2 && W < kExactInFloat && H < kExactInFloat && H * W >= Sampler::kLanes;
}

}  // namespace
}  // namespace zorv
