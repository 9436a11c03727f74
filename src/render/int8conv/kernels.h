// The int8 convolution's inner loops, one set per instruction set. Integers are exact, and all sets
// do the same float operations in the same order for each element: they give the same bits.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/cpu.h"
#include "render/int8conv/geometry.h"

namespace zorv {

/// q = clamp(round(x / scale) + zeroPoint, 0, 255), rounding to nearest even.
struct Quantisation {
    float scale = 1;
    std::int32_t zeroPoint = 0;
};

/// What a byte of the padding is.
inline std::int32_t padByte(const ConvAttributes& attributes, Quantisation q) {
    return attributes.zeroPads ? q.zeroPoint : 0;
}

/// What the matrix part reads and writes of one image. Channel m of a pixel becomes
/// float(start[m] + sum) * factor[m] + bias[m].
struct ConvRun {
    const ConvGeometry& geometry;
    const PackedWeights& weights;
    const std::uint8_t* rows;   ///< begins with the first row that the first output row reads
    const std::int32_t* start;  ///< kMaxBlock more may be read
    const float* factor;
    const float* bias;
    float* y;  ///< [m, oh, ow]

    // Where X is enlarged:
    const std::int32_t* edges = nullptr;  ///< [m][2], what the columns left and right of X add
    std::int32_t* scratch = nullptr;      ///< enlargedScratch values; one thread at a time
};

/// Of one line of sums, and of all of them together. `kEnlargedMargin`: vectors may reach so far
/// beyond a line's columns.
constexpr std::int64_t kEnlargedMargin = 16;
constexpr std::int64_t enlargedLine(std::int64_t width) {
    return (width + 3 * kEnlargedMargin - 1) / kEnlargedMargin * kEnlargedMargin;
}
constexpr std::int64_t enlargedScratch(std::int64_t width) {
    return 12 * enlargedLine(width);
}

/// No set has tiles of more output channels.
constexpr int kMaxBlock = 16;

struct Int8ConvKernels {
    int block;             ///< output channels of a tile, for PackedWeights
    bool widened;          ///< the form of the packed weights
    bool useVnni;          ///< whether VPDPBUSD does the work
    double macsPerThread;  ///< done in about 0.6 ms, twice what the start of a thread may cost

    /// The range of `count` floats together with 0; NaNs are passed over.
    void (*minMax)(const float* data, std::size_t count, float* min, float* max);

    /// One row of four channels: out[x] holds their bytes at column x, the first channel lowest.
    /// A null channel, which the first is not, gives any byte: its weights are 0. Finite values lie
    /// in the range that q was made for.
    void (*quantiseRow)(const float* const* channels, std::int64_t width, Quantisation q,
                        std::uint32_t* out);

    /// `count` steps from step `first` on, which is where run.rows begins: rows of the output, or
    /// pairs of rows where X is enlarged and the weights are in blocks of one channel.
    using Convolve = void(const ConvRun& run, std::int64_t first, std::int64_t count);
    Convolve* convolveRows;
    Convolve* convolveEnlarged;
};

extern const Int8ConvKernels kInt8ConvPortable;
extern const Int8ConvKernels kInt8ConvAvx2;      ///< 16-bit multiply-add
extern const Int8ConvKernels kInt8ConvAvxVnni;   ///< 256-bit VPDPBUSD, VEX encoding
extern const Int8ConvKernels kInt8ConvAvx512Vl;  ///< the same loops in the EVEX encoding
extern const Int8ConvKernels kInt8ConvAvx512;    ///< 512-bit VPDPBUSD

inline constexpr Kernel<const Int8ConvKernels*> kInt8ConvKernels[] = {
    {SimdLevel::kAvx512, "avx512", hasAvx512Vnni, &kInt8ConvAvx512},
    {SimdLevel::kAvx512, "avx512vl", hasAvx512Vnni, &kInt8ConvAvx512Vl},
    {SimdLevel::kAvx2, "avxvnni", hasAvxVnni, &kInt8ConvAvxVnni},
    {SimdLevel::kAvx2, "avx2", nullptr, &kInt8ConvAvx2},
    {SimdLevel::kPortable, "portable", nullptr, &kInt8ConvPortable},
};

}  // namespace zorv
