// Sampling of eight points at a time, with AVX2 and FMA. Like gridsample_tiles.h only for files of
// one instruction set.
#pragma once

#include "render/gridsample_tiles.h"

#if !defined(__AVX2__) || !defined(__FMA__)
#error "compile this file with the flags of its instruction set"
#endif

namespace zorv {
namespace {

/// How a group's corners are fetched.
enum class Fetch : std::int32_t {
    kRow,   ///< all points lie between the same two rows: windows of eight columns in each
    kRows,  ///< between two of three neighbouring rows
    kPairs  ///< anywhere: two pixels per load
};

struct Eight {
    static constexpr int kLanes = 8;

    /// Eight columns of the plane that hold all left ones, and eight for the right ones.
    struct Windows {
        std::int64_t leftOrigin;    ///< offset of the window in the plane
        std::int64_t rightOrigin;   ///< offset of the other one
        std::int8_t left[kLanes];   ///< place in the window
        std::int8_t right[kLanes];  ///< place in the other one
        std::int8_t lower[kLanes];  ///< kRows: -1 where the top row is the second
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
            Places places;  ///< kPairs
        };
        Fetch fetch;
    };

    static bool prepare(Group& group, const float* grid, const PlaneShape& shape);
    static void sample(const Group& group, const float* x, float* y, std::int64_t channels,
                       const PlaneShape& shape);
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
    const __m256i b = _mm256_min_epi32(_mm256_sub_epi32(a, _mm256_castps_si256(inside)), last);
    return {a, b, _mm256_sub_ps(clamped, _mm256_cvtepi32_ps(a))};
}

inline std::int32_t lesserEnd(__m256i v) {
    const std::int32_t a = _mm256_extract_epi32(v, 0), b = _mm256_extract_epi32(v, 7);
    return a < b ? a : b;
}

/// The eight columns from `*origin` on hold all of `columns`, which become places among them.
inline bool findColumns(__m256i& columns, std::int32_t width, std::int32_t* origin) {
    const std::int32_t begin = lesserEnd(columns);
    const std::int32_t latest = width - Eight::kLanes;
    if (latest < 0) return false;
    *origin = begin < latest ? begin : latest;
    columns = _mm256_sub_epi32(columns, _mm256_set1_epi32(*origin));
    return !anyBit(_mm256_andnot_si256(_mm256_set1_epi32(7), columns));
}

inline bool findWindows(Eight::Group& group, Taps u, const Taps& v, const PlaneShape& shape) {
    const std::int32_t top = lesserEnd(v.a);
    const __m256i one = _mm256_set1_epi32(1);
    const __m256i below = _mm256_sub_epi32(v.a, _mm256_set1_epi32(top));
    const __m256i rowsApart = _mm256_xor_si256(_mm256_sub_epi32(v.b, v.a), one);
    if (anyBit(_mm256_or_si256(rowsApart, _mm256_andnot_si256(one, below)))) return false;
    std::int32_t left = 0, right = 0;
    if (!findColumns(u.a, shape.width, &left)) return false;
    if (!findColumns(u.b, shape.width, &right)) return false;
    storeBytes(group.windows.left, u.a);
    storeBytes(group.windows.right, u.b);
    storeBytes(group.windows.lower, _mm256_cmpeq_epi32(below, one));
    group.fetch = anyBit(below) ? Fetch::kRows : Fetch::kRow;
    group.windows.leftOrigin = std::int64_t{top} * shape.width + left;
    group.windows.rightOrigin = std::int64_t{top} * shape.width + right;
    return true;
}

inline void findPairs(Eight::Group& group, const Taps& u, const Taps& v, const PlaneShape& shape) {
    const __m256i width = _mm256_set1_epi32(shape.width);
    const __m256i column = _mm256_min_epi32(u.a, _mm256_set1_epi32(shape.width - 2));
    storeInts(group.places.top, _mm256_add_epi32(_mm256_mullo_epi32(v.a, width), column));
    storeInts(group.places.bottom, _mm256_add_epi32(_mm256_mullo_epi32(v.b, width), column));
    storeBytes(group.places.firstTwice, _mm256_cmpeq_epi32(u.b, column));
    storeBytes(group.places.secondTwice, _mm256_cmpgt_epi32(u.a, column));
    group.fetch = Fetch::kPairs;
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
    if (findWindows(group, u, v, shape)) return true;
    findPairs(group, u, v, shape);
    return false;
}

/// A group's weights in registers; `sum` adds the corners up in the formula's order.
struct Weights {
    explicit Weights(const Eight::Group& group) {
        const __m256 one = _mm256_set1_ps(1.0f);
        const __m256 across = _mm256_load_ps(group.across);
        const __m256 down = _mm256_load_ps(group.down);
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

inline void sampleRow(const Eight::Group& group, const float* x, float* y, std::int64_t channels,
                      const PlaneShape& shape) {
    const Weights weights(group);
    const __m256i left = loadBytes(group.windows.left);
    const __m256i right = loadBytes(group.windows.right);
    const float* l = x + group.windows.leftOrigin;
    const float* r = x + group.windows.rightOrigin;
    const std::int64_t width = shape.width;
    const auto one = [=](std::int64_t plane) {
        const std::int64_t below = plane + width;
        return weights.sum(pick(l + plane, left), pick(r + plane, right), pick(l + below, left),
                           pick(r + below, right));
    };
    forEachChannel(channels, shape.pixels, one,
                   [=](std::int64_t plane, __m256 value) { _mm256_storeu_ps(y + plane, value); });
}

inline void sampleRows(const Eight::Group& group, const float* x, float* y, std::int64_t channels,
                       const PlaneShape& shape) {
    const Weights weights(group);
    const __m256i left = loadBytes(group.windows.left);
    const __m256i right = loadBytes(group.windows.right);
    const __m256 lower = loadMask(group.windows.lower);
    const float* l = x + group.windows.leftOrigin;
    const float* r = x + group.windows.rightOrigin;
    const std::int64_t width = shape.width;
    const auto one = [=](std::int64_t plane) {
        const std::int64_t second = plane + width, third = second + width;
        const __m256 middleLeft = pick(l + second, left);
        const __m256 middleRight = pick(r + second, right);
        return weights.sum(_mm256_blendv_ps(pick(l + plane, left), middleLeft, lower),
                           _mm256_blendv_ps(pick(r + plane, right), middleRight, lower),
                           _mm256_blendv_ps(middleLeft, pick(l + third, left), lower),
                           _mm256_blendv_ps(middleRight, pick(r + third, right), lower));
    };
    forEachChannel(channels, shape.pixels, one,
                   [=](std::int64_t plane, __m256 value) { _mm256_storeu_ps(y + plane, value); });
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
                   const PlaneShape& shape) {
    switch (group.fetch) {
        case Fetch::kRow:
            return sampleRow(group, x, y, channels, shape);
        case Fetch::kRows:
            return sampleRows(group, x, y, channels, shape);
        case Fetch::kPairs:
            return samplePairs(group, x, y, channels, shape);
    }
}

}  // namespace
}  // namespace zorv
