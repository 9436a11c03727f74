// Sixteen points at a time.
#include "render/gridsample/eight.h"
#include "render/gridsample/interleaved.h"

#if !defined(__AVX512F__) || !defined(__AVX512DQ__)
#error "compile this file with the flags of its instruction set"
#endif

namespace zorv {
namespace {

/// Sixteen points between the same two rows, or between two of three neighbouring ones, within 32
/// columns; points that lie otherwise are two groups of eight.
struct Sixteen {
    static constexpr int kLanes = 16;

    struct alignas(64) Whole {
        float w0[kLanes];            ///< weights: top left,
        float w1[kLanes];            ///< top right,
        float w2[kLanes];            ///< bottom left,
        float w3[kLanes];            ///< bottom right
        std::uint8_t left[kLanes];   ///< column in the window
        std::uint8_t right[kLanes];  ///< column of the right neighbour
        std::int32_t origin;         ///< offset of the window in the plane
        std::int32_t second;         ///< offset of the second row from the first
        std::int32_t third;          ///< offset of the third row from the first
        __mmask16 lower;             ///< lanes whose top row is the second
    };
    struct Group {
        union {
            Whole points;
            Eight::Group halves[2];
        };
        bool whole;      ///< all points from one window
        bool threeRows;  ///< between two of three neighbouring rows, not all between the same two
    };

    /// A block of channels, stored only after the next block was computed: that block's loads then
    /// need not wait for these stores, whose addresses often look alike.
    class Stores {
      public:
        struct Block {
            __m512 channel[kChannelBlock];
        };
        static void store(float* y, __m512 value) { _mm512_storeu_ps(y, value); }
        void block(float* y, std::int64_t plane, const Block& values) {
            flush();
            y_ = y;
            plane_ = plane;
            block_ = values;
        }
        void flush() {
            if (y_ == nullptr) return;
            for (int c = 0; c < kChannelBlock; ++c) store(y_ + c * plane_, block_.channel[c]);
            y_ = nullptr;
        }

      private:
        Block block_;
        float* y_ = nullptr;
        std::int64_t plane_ = 0;
    };

    static bool prepare(Group& group, const float* grid, const PlaneShape& shape);
    static void sample(const Group& group, const float* x, float* y, std::int64_t channels,
                       const PlaneShape& shape, Stores& stores);
};

/// Where sixteen coordinates fall on an axis: between pixels a and b, `weight` of the way.
struct WideTaps {
    __m512i a;
    __m512i b;
    __m512i before;  ///< as in Taps
    __m512 weight;
};

inline WideTaps wideTapsOf(__m512 g, std::int32_t size) {
    const __m512 half = _mm512_set1_ps(static_cast<float>(size) * 0.5f);
    const __m512 position = _mm512_sub_ps(
        _mm512_mul_ps(_mm512_add_ps(g, _mm512_set1_ps(1.0f)), half), _mm512_set1_ps(0.5f));
    const __mmask16 inside = _mm512_cmp_ps_mask(position, _mm512_setzero_ps(), _CMP_GE_OQ);
    const __m512i last = _mm512_set1_epi32(size - 1);
    const __m512 clamped =
        _mm512_min_ps(_mm512_maskz_mov_ps(inside, position), _mm512_cvtepi32_ps(last));
    const __m512i a = _mm512_cvttps_epi32(clamped);
    const __m512i one = _mm512_set1_epi32(1);
    const __m512i after = _mm512_mask_add_epi32(a, inside, a, one);
    return {a, _mm512_min_epi32(after, last), _mm512_sub_epi32(after, one),
            _mm512_sub_ps(clamped, _mm512_cvtepi32_ps(a))};
}

/// Sixteen lanes that fit into bytes.
inline void storeBytes(std::uint8_t* to, __m512i v) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to), _mm512_cvtepi32_epi8(v));
}
inline __m512i loadBytes(const std::uint8_t* from) {
    return _mm512_cvtepu8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
}

inline std::int32_t firstLane(__m512i v) {
    return _mm_cvtsi128_si32(_mm512_castsi512_si128(v));
}
inline std::int32_t lastLane(__m512i v) {
    return _mm_extract_epi32(_mm512_extracti32x4_epi32(v, 3), 3);
}
inline std::int32_t lesserEnd(__m512i v) {
    const std::int32_t a = firstLane(v), b = lastLane(v);
    return a < b ? a : b;
}

constexpr std::int32_t kWindow = 32;

/// Looks for a window of kWindow columns that holds all columns, one that is aligned like the
/// row if there is one: loads that straddle two cache lines cost twice.
inline bool findColumns(Sixteen::Whole& group, const WideTaps& u, std::int32_t width,
                        std::int32_t* origin) {
    const std::int32_t begin = lesserEnd(u.a);
    const std::int32_t latest = width - kWindow;
    for (std::int32_t wanted = begin & ~15;; wanted = begin) {
        *origin = wanted < latest ? wanted : latest;
        const __m512i left = _mm512_sub_epi32(u.a, _mm512_set1_epi32(*origin));
        const __m512i right = _mm512_sub_epi32(u.b, _mm512_set1_epi32(*origin));
        const __m512i either = _mm512_or_si512(left, right);
        if (!_mm512_cmpge_epu32_mask(either, _mm512_set1_epi32(kWindow))) {
            storeBytes(group.left, left);
            storeBytes(group.right, right);
            return true;
        }
        if (wanted == begin) return false;
    }
}

/// Fits the points into a window of two or three rows if that is possible.
inline bool findWindow(Sixteen::Whole& group, const WideTaps& u, const WideTaps& v,
                       const PlaneShape& shape) {
    const std::int32_t top = lesserEnd(v.before);
    const __m512i one = _mm512_set1_epi32(1);
    const __m512i below = _mm512_sub_epi32(v.before, _mm512_set1_epi32(top));
    std::int32_t column = 0;
    if (_mm512_cmpgt_epu32_mask(below, one)) return false;
    if (!findColumns(group, u, shape.width, &column)) return false;
    const RowOffsets at(top, shape);
    group.origin = at.origin + column;
    group.second = at.second;
    group.third = at.third;
    group.lower = _mm512_cmpeq_epi32_mask(below, one);
    return true;
}

bool Sixteen::prepare(Group& group, const float* grid, const PlaneShape& shape) {
    const __m512i even =
        _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
    const __m512i odd = _mm512_add_epi32(even, _mm512_set1_epi32(1));
    const __m512 low = _mm512_loadu_ps(grid);
    const __m512 high = _mm512_loadu_ps(grid + kLanes);
    const WideTaps u = wideTapsOf(_mm512_permutex2var_ps(low, even, high), shape.width);
    const WideTaps v = wideTapsOf(_mm512_permutex2var_ps(low, odd, high), shape.height);
    group.whole = findWindow(group.points, u, v, shape);
    if (!group.whole) {
        const bool close = Eight::prepare(group.halves[0], grid, shape);
        return Eight::prepare(group.halves[1], grid + 2 * Eight::kLanes, shape) && close;
    }
    group.threeRows = group.points.lower != 0;
    const __m512 one = _mm512_set1_ps(1.0f);
    const __m512 before = _mm512_sub_ps(one, u.weight);
    const __m512 above = _mm512_sub_ps(one, v.weight);
    _mm512_store_ps(group.points.w0, _mm512_mul_ps(before, above));
    _mm512_store_ps(group.points.w1, _mm512_mul_ps(u.weight, above));
    _mm512_store_ps(group.points.w2, _mm512_mul_ps(before, v.weight));
    _mm512_store_ps(group.points.w3, _mm512_mul_ps(u.weight, v.weight));
    return true;
}

/// What a group's channels have in common, in registers.
struct WholeInRegisters {
    explicit WholeInRegisters(const Sixteen::Whole& group)
        : w0(_mm512_load_ps(group.w0)),
          w1(_mm512_load_ps(group.w1)),
          w2(_mm512_load_ps(group.w2)),
          w3(_mm512_load_ps(group.w3)),
          left(loadBytes(group.left)),
          right(loadBytes(group.right)) {}
    __m512 w0, w1, w2, w3;  ///< top left, top right, bottom left, bottom right
    __m512i left, right;
};

/// A window of one row.
struct Window {
    explicit Window(const float* row)
        : low(_mm512_loadu_ps(row)), high(_mm512_loadu_ps(row + 16)) {}
    __m512 at(__m512i column) const { return _mm512_permutex2var_ps(low, column, high); }
    __m512 at(__mmask16 lanes, __m512i column) const {
        return _mm512_maskz_permutex2var_ps(lanes, low, column, high);
    }
    __m512 low, high;
};

inline void sampleRow(const Sixteen::Whole& group, const float* x, float* y, std::int64_t channels,
                      const PlaneShape& shape, Sixteen::Stores& stores) {
    const WholeInRegisters g(group);
    const std::int64_t second = group.second;
    x += group.origin;
    const auto one = [=](std::int64_t plane) {
        const Window top(x + plane);
        const Window bottom(x + plane + second);
        __m512 sum = _mm512_mul_ps(g.w0, top.at(g.left));
        sum = _mm512_fmadd_ps(g.w1, top.at(g.right), sum);
        sum = _mm512_fmadd_ps(g.w2, bottom.at(g.left), sum);
        return _mm512_fmadd_ps(g.w3, bottom.at(g.right), sum);
    };
    forEachChannel(channels, shape.pixels, y, stores, one);
}

inline void sampleRows(const Sixteen::Whole& group, const float* x, float* y, std::int64_t channels,
                       const PlaneShape& shape, Sixteen::Stores& stores) {
    const WholeInRegisters g(group);
    const __mmask16 lower = group.lower;
    const __mmask16 upper = static_cast<__mmask16>(~lower);
    // The middle row is the bottom of the upper lanes and the top of the lower ones.
    const __m512 middleLeft = _mm512_mask_blend_ps(lower, g.w2, g.w0);
    const __m512 middleRight = _mm512_mask_blend_ps(lower, g.w3, g.w1);
    const std::int64_t second = group.second, third = group.third;
    x += group.origin;
    const auto one = [=](std::int64_t plane) {
        const Window top(x + plane);
        const Window middle(x + plane + second);
        const Window bottom(x + plane + third);
        // Each lane adds its corners in the same order as every other path; zeros change nothing.
        __m512 sum = _mm512_mul_ps(g.w0, top.at(upper, g.left));
        sum = _mm512_fmadd_ps(g.w1, top.at(upper, g.right), sum);
        sum = _mm512_fmadd_ps(middleLeft, middle.at(g.left), sum);
        sum = _mm512_fmadd_ps(middleRight, middle.at(g.right), sum);
        sum = _mm512_fmadd_ps(g.w2, bottom.at(lower, g.left), sum);
        return _mm512_fmadd_ps(g.w3, bottom.at(lower, g.right), sum);
    };
    forEachChannel(channels, shape.pixels, y, stores, one);
}

void Sixteen::sample(const Group& group, const float* x, float* y, std::int64_t channels,
                     const PlaneShape& shape, Stores& stores) {
    if (group.whole) {
        if (!group.threeRows) return sampleRow(group.points, x, y, channels, shape, stores);
        return sampleRows(group.points, x, y, channels, shape, stores);
    }
    Eight::Stores direct;
    Eight::sample(group.halves[0], x, y, channels, shape, direct);
    Eight::sample(group.halves[1], x, y + Eight::kLanes, channels, shape, direct);
}

}  // namespace

void gs_avx512(const float* x, const float* grid, float* y, std::int64_t C, std::int64_t H,
               std::int64_t W) {
    if (W < kWindow || !takesShape<Sixteen>(H, W)) return gs_avx2(x, grid, y, C, H, W);
    sampleByGrid<Sixteen>(x, grid, y, C,
                          {static_cast<std::int32_t>(H), static_cast<std::int32_t>(W), H * W});
}

}  // namespace zorv
