// Sampling of eight points at a time, with AVX2 and FMA. Like tiles.h only for files of
// one instruction set.
#pragma once

#include <algorithm>

#include "render/gridsample/tiles.h"

#if !defined(__AVX2__) || !defined(__FMA__)
#error "compile this file with the flags of its instruction set"
#endif

namespace zorv {
namespace {

struct Eight {
    static constexpr int kLanes = 8;

    /// Columns of the plane that hold all left pixels, and all right ones.
    struct Windows {
        std::int32_t leftOrigin;    ///< offset of the window in the plane
        std::int32_t rightOrigin;   ///< offset of the other one; the same in a wide group
        std::int32_t second;        ///< offset of the second row from the first
        std::int32_t third;         ///< offset of the third row from the first
        std::int8_t left[kLanes];   ///< place in the window
        std::int8_t right[kLanes];  ///< place in the other one
        std::int8_t lower[kLanes];  ///< -1 where the top row is the second
    };
    /// Two neighbouring pixels in each of two rows.
    struct Places {
        std::int32_t top[kLanes];         ///< offset of the first pixel in the plane
        std::int32_t bottom[kLanes];      ///< offset of the one below
        std::int8_t firstTwice[kLanes];   ///< -1 at the left edge
        std::int8_t secondTwice[kLanes];  ///< -1 at the right edge
    };
    /// Small, since every group of a tile is read again for every few channels.
    struct alignas(32) Group {
        float across[kLanes];  ///< weight of the right pixels
        float down[kLanes];    ///< weight of the lower ones
        union {
            Windows windows;
            Places places;
        };
        // How the corners are fetched. Flags instead of one number, which would become an indirect
        // jump and cost a third of the time.
        bool close;      ///< from windows; otherwise pixel pair by pixel pair
        bool wide;       ///< one window of sixteen columns, not one of eight per side
        bool threeRows;  ///< between two of three neighbouring rows, not all between the same two
    };

    /// A block of channels, stored at once.
    struct Stores {
        struct Block {
            __m256 channel[kChannelBlock];
        };
        static void store(float* y, __m256 value) { _mm256_storeu_ps(y, value); }
        static void block(float* y, std::int64_t plane, const Block& values) {
            for (int c = 0; c < kChannelBlock; ++c) store(y + c * plane, values.channel[c]);
        }
        static void flush() {}
    };

    static bool prepare(Group& group, const float* grid, const PlaneShape& shape);
    static void sample(const Group& group, const float* x, float* y, std::int64_t channels,
                       const PlaneShape& shape, Stores& stores);
};

/// Eight lanes that fit into signed bytes.
inline void storeBytes(std::int8_t* to, __m256i v) {
    const __m128i words =
        _mm_packs_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to), _mm_packs_epi16(words, words));
}
inline __m256i loadBytes(const std::int8_t* from) {
    return _mm256_cvtepi8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(from)));
}
inline __m256 loadMask(const std::int8_t* from) {
    return _mm256_castsi256_ps(loadBytes(from));
}
inline void storeInts(std::int32_t* to, __m256i v) {
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), v);
}
inline bool anyBit(__m256i v) {
    return !_mm256_testz_si256(v, v);
}

/// Where eight coordinates fall on an axis: between pixels a and b, `weight` of the way.
struct Taps {
    __m256i a;
    __m256i b;
    __m256i before;  ///< a, or -1 before the first pixel: the pair is then `before` and `before` +
                     ///< 1, each moved onto the axis
    __m256 weight;
};

inline Taps tapsOf(__m256 g, std::int32_t size) {
    const __m256 half = _mm256_set1_ps(static_cast<float>(size) * 0.5f);
    const __m256 position = _mm256_sub_ps(
        _mm256_mul_ps(_mm256_add_ps(g, _mm256_set1_ps(1.0f)), half), _mm256_set1_ps(0.5f));
    const __m256 inside = _mm256_cmp_ps(position, _mm256_setzero_ps(), _CMP_GE_OQ);
    const __m256i last = _mm256_set1_epi32(size - 1);
    const __m256 clamped = _mm256_min_ps(_mm256_and_ps(inside, position), _mm256_cvtepi32_ps(last));
    const __m256i a = _mm256_cvttps_epi32(clamped);
    // The mask is -1: subtracting it adds 1.
    const __m256i after = _mm256_sub_epi32(a, _mm256_castps_si256(inside));
    return {a, _mm256_min_epi32(after, last), _mm256_sub_epi32(after, _mm256_set1_epi32(1)),
            _mm256_sub_ps(clamped, _mm256_cvtepi32_ps(a))};
}

inline std::int32_t lesserEnd(__m256i v) {
    const std::int32_t a = _mm256_extract_epi32(v, 0), b = _mm256_extract_epi32(v, 7);
    return a < b ? a : b;
}

/// The first of `kColumns` columns that begin at the lesser end of `columns` if that fits.
template <std::int32_t kColumns>
inline std::int32_t windowOrigin(__m256i columns, std::int32_t width) {
    return std::min(lesserEnd(columns), width - kColumns);
}

/// Whether all columns lie in the window of `kColumns` that begins at `origin`; they become places
/// in it.
template <std::int32_t kColumns>
inline bool placesInWindow(__m256i& columns, std::int32_t origin) {
    columns = _mm256_sub_epi32(columns, _mm256_set1_epi32(origin));
    return origin >= 0 && !anyBit(_mm256_andnot_si256(_mm256_set1_epi32(kColumns - 1), columns));
}

/// How the columns can be fetched: from narrow windows, from one wide window, or not from windows.
enum class Columns { kNarrow, kWide, kApart };

inline Columns findColumns(Eight::Windows& windows, const Taps& u, std::int32_t width) {
    __m256i left = u.a, right = u.b;
    windows.leftOrigin = windowOrigin<8>(left, width);
    windows.rightOrigin = windowOrigin<8>(right, width);
    Columns found = Columns::kNarrow;
    if (!placesInWindow<8>(left, windows.leftOrigin) ||
        !placesInWindow<8>(right, windows.rightOrigin)) {
        left = u.a, right = u.b;
        windows.leftOrigin = windows.rightOrigin = windowOrigin<16>(left, width);
        if (!placesInWindow<16>(left, windows.leftOrigin) ||
            !placesInWindow<16>(right, windows.leftOrigin)) {
            return Columns::kApart;
        }
        found = Columns::kWide;
    }
    storeBytes(windows.left, left);
    storeBytes(windows.right, right);
    return found;
}

/// The three rows from `first` on, which may begin before the plane or end behind it: the edge
/// rows then stand for those that are missing.
struct RowOffsets {
    RowOffsets(std::int32_t first, const PlaneShape& shape)
        : origin(rowAt(first, shape) * shape.width),
          second(rowAt(first + 1, shape) * shape.width - origin),
          third(rowAt(first + 2, shape) * shape.width - origin) {}
    std::int32_t origin, second, third;

  private:
    static std::int32_t rowAt(std::int32_t row, const PlaneShape& shape) {
        return std::clamp(row, 0, shape.height - 1);
    }
};

inline bool findWindows(Eight::Group& group, const Taps& u, const Taps& v,
                        const PlaneShape& shape) {
    const std::int32_t top = lesserEnd(v.before);
    const __m256i one = _mm256_set1_epi32(1);
    const __m256i below = _mm256_sub_epi32(v.before, _mm256_set1_epi32(top));
    if (anyBit(_mm256_andnot_si256(one, below))) return false;
    const Columns columns = findColumns(group.windows, u, shape.width);
    if (columns == Columns::kApart) return false;
    storeBytes(group.windows.lower, _mm256_cmpeq_epi32(below, one));
    group.wide = columns == Columns::kWide;
    group.threeRows = anyBit(below);
    const RowOffsets at(top, shape);
    group.windows.leftOrigin += at.origin;
    group.windows.rightOrigin += at.origin;
    group.windows.second = at.second;
    group.windows.third = at.third;
    return true;
}

inline void findPairs(Eight::Group& group, const Taps& u, const Taps& v, const PlaneShape& shape) {
    const __m256i width = _mm256_set1_epi32(shape.width);
    const __m256i column = _mm256_min_epi32(u.a, _mm256_set1_epi32(shape.width - 2));
    storeInts(group.places.top, _mm256_add_epi32(_mm256_mullo_epi32(v.a, width), column));
    storeInts(group.places.bottom, _mm256_add_epi32(_mm256_mullo_epi32(v.b, width), column));
    storeBytes(group.places.firstTwice, _mm256_cmpeq_epi32(u.b, column));
    storeBytes(group.places.secondTwice, _mm256_cmpgt_epi32(u.a, column));
}

/// Splits (x, y) pairs; shuffles stay within halves.
inline void splitGrid(const float* grid, __m256* gx, __m256* gy) {
    const __m256 low = _mm256_loadu_ps(grid);
    const __m256 high = _mm256_loadu_ps(grid + 8);
    const __m256 a = _mm256_permute2f128_ps(low, high, 0x20);
    const __m256 b = _mm256_permute2f128_ps(low, high, 0x31);
    *gx = _mm256_shuffle_ps(a, b, 0x88);
    *gy = _mm256_shuffle_ps(a, b, 0xdd);
}

bool Eight::prepare(Group& group, const float* grid, const PlaneShape& shape) {
    __m256 gx, gy;
    splitGrid(grid, &gx, &gy);
    const Taps u = tapsOf(gx, shape.width);
    const Taps v = tapsOf(gy, shape.height);
    _mm256_store_ps(group.across, u.weight);
    _mm256_store_ps(group.down, v.weight);
    group.close = findWindows(group, u, v, shape);
    if (!group.close) findPairs(group, u, v, shape);
    return group.close;
}

/// Eight points' weights in registers; `sum` adds the corners up in the formula's order.
struct Weights {
    explicit Weights(const Eight::Group& group)
        : Weights(_mm256_load_ps(group.across), _mm256_load_ps(group.down)) {}
    Weights(__m256 across, __m256 down) {
        const __m256 one = _mm256_set1_ps(1.0f);
        const __m256 left = _mm256_sub_ps(one, across);
        const __m256 top = _mm256_sub_ps(one, down);
        w0 = _mm256_mul_ps(left, top);
        w1 = _mm256_mul_ps(across, top);
        w2 = _mm256_mul_ps(left, down);
        w3 = _mm256_mul_ps(across, down);
    }
    __m256 sum(__m256 topLeft, __m256 topRight, __m256 bottomLeft, __m256 bottomRight) const {
        const __m256 top = _mm256_fmadd_ps(w1, topRight, _mm256_mul_ps(w0, topLeft));
        return _mm256_fmadd_ps(w3, bottomRight, _mm256_fmadd_ps(w2, bottomLeft, top));
    }
    __m256 w0, w1, w2, w3;
};

inline __m256 pick(const float* window, __m256i columns) {
    return _mm256_permutevar8x32_ps(_mm256_loadu_ps(window), columns);
}

/// A row's left and right pixels of a group.
struct Corners {
    __m256 left, right;
};

/// Fetches them from a window of eight columns each.
class NarrowWindows {
  public:
    NarrowWindows(const Eight::Windows& windows, const float* x)
        : left_(loadBytes(windows.left)),
          right_(loadBytes(windows.right)),
          l_(x + windows.leftOrigin),
          r_(x + windows.rightOrigin) {}
    Corners at(std::int64_t offset) const {
        return {pick(l_ + offset, left_), pick(r_ + offset, right_)};
    }

  private:
    __m256i left_, right_;
    const float *l_, *r_;
};

/// Fetches them from one window of sixteen columns.
class WideWindow {
  public:
    WideWindow(const Eight::Windows& windows, const float* x)
        : left_(loadBytes(windows.left)),
          right_(loadBytes(windows.right)),
          x_(x + windows.leftOrigin) {}
    Corners at(std::int64_t offset) const {
        const __m256 low = _mm256_loadu_ps(x_ + offset);
        const __m256 high = _mm256_loadu_ps(x_ + offset + 8);
        return {pick(low, high, left_), pick(low, high, right_)};
    }

  private:
    static __m256 pick(__m256 low, __m256 high, __m256i columns) {
        // A permutation looks at the low three bits; bit 3 becomes the sign that a blend looks at.
        return _mm256_blendv_ps(_mm256_permutevar8x32_ps(low, columns),
                                _mm256_permutevar8x32_ps(high, columns),
                                _mm256_castsi256_ps(_mm256_slli_epi32(columns, 28)));
    }
    __m256i left_, right_;
    const float* x_;
};

template <class Columns>
inline void sampleRow(const Eight::Group& group, const float* x, float* y, std::int64_t channels,
                      const PlaneShape& shape, Eight::Stores& stores) {
    const Weights weights(group);
    const Columns columns(group.windows, x);
    const std::int64_t second = group.windows.second;
    const auto one = [=](std::int64_t plane) {
        const Corners top = columns.at(plane), bottom = columns.at(plane + second);
        return weights.sum(top.left, top.right, bottom.left, bottom.right);
    };
    forEachChannel(channels, shape.pixels, y, stores, one);
}

template <class Columns>
inline void sampleRows(const Eight::Group& group, const float* x, float* y, std::int64_t channels,
                       const PlaneShape& shape, Eight::Stores& stores) {
    const Weights weights(group);
    const Columns columns(group.windows, x);
    const __m256 lower = loadMask(group.windows.lower);
    const std::int64_t second = group.windows.second, third = group.windows.third;
    const auto one = [=](std::int64_t plane) {
        const Corners top = columns.at(plane);
        const Corners middle = columns.at(plane + second);
        const Corners bottom = columns.at(plane + third);
        return weights.sum(_mm256_blendv_ps(top.left, middle.left, lower),
                           _mm256_blendv_ps(top.right, middle.right, lower),
                           _mm256_blendv_ps(middle.left, bottom.left, lower),
                           _mm256_blendv_ps(middle.right, bottom.right, lower));
    };
    forEachChannel(channels, shape.pixels, y, stores, one);
}

/// first[k][i] = x[k * plane + offsets[i]] and second[k][i] the pixel after it, for eight i. Two
/// floats per load and no gather: a gather costs a cycle and a half per float.
template <int Planes>
struct Pairs {
    Pairs(const float* x, std::int64_t plane, const std::int32_t* offsets) {
        __m128 two[4][Planes];
        for (int i = 0; i < 4; ++i) {
            // Pixels 0 1, 2 3, 4 5, 6 7: an offset is fetched once for all planes.
            const float* a = x + offsets[2 * i];
            const float* b = x + offsets[2 * i + 1];
            for (int k = 0; k < Planes; ++k) {
                const __m128i low =
                    _mm_loadl_epi64(reinterpret_cast<const __m128i*>(a + k * plane));
                two[i][k] = _mm_loadh_pi(_mm_castsi128_ps(low),
                                         reinterpret_cast<const __m64*>(b + k * plane));
            }
        }
        for (int k = 0; k < Planes; ++k) {
            const __m256 a = _mm256_set_m128(two[2][k], two[0][k]);
            const __m256 b = _mm256_set_m128(two[3][k], two[1][k]);
            first[k] = _mm256_shuffle_ps(a, b, 0x88);
            second[k] = _mm256_shuffle_ps(a, b, 0xdd);
        }
    }
    __m256 first[Planes];
    __m256 second[Planes];
};

template <int Planes>
inline void samplePlanes(const Eight::Group& group, const float* x, float* y, std::int64_t plane) {
    const Weights weights(group);
    const __m256 firstTwice = loadMask(group.places.firstTwice);
    const __m256 secondTwice = loadMask(group.places.secondTwice);
    const Pairs<Planes> top(x, plane, group.places.top);
    const Pairs<Planes> bottom(x, plane, group.places.bottom);
    for (int k = 0; k < Planes; ++k) {
        const __m256 sum =
            weights.sum(_mm256_blendv_ps(top.first[k], top.second[k], secondTwice),
                        _mm256_blendv_ps(top.second[k], top.first[k], firstTwice),
                        _mm256_blendv_ps(bottom.first[k], bottom.second[k], secondTwice),
                        _mm256_blendv_ps(bottom.second[k], bottom.first[k], firstTwice));
        _mm256_storeu_ps(y + k * plane, sum);
    }
}

inline void samplePairs(const Eight::Group& group, const float* x, float* y, std::int64_t channels,
                        const PlaneShape& shape) {
    const std::int64_t plane = shape.pixels;
    for (; channels >= 2; channels -= 2, x += 2 * plane, y += 2 * plane) {
        samplePlanes<2>(group, x, y, plane);
    }
    if (channels > 0) samplePlanes<1>(group, x, y, plane);
}

void Eight::sample(const Group& group, const float* x, float* y, std::int64_t channels,
                   const PlaneShape& shape, Stores& stores) {
    if (!group.close) return samplePairs(group, x, y, channels, shape);
    if (!group.wide) {
        if (!group.threeRows) return sampleRow<NarrowWindows>(group, x, y, channels, shape, stores);
        return sampleRows<NarrowWindows>(group, x, y, channels, shape, stores);
    }
    if (!group.threeRows) return sampleRow<WideWindow>(group, x, y, channels, shape, stores);
    return sampleRows<WideWindow>(group, x, y, channels, shape, stores);
}

}  // namespace
}  // namespace zorv
