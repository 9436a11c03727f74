// The int8 convolution's inner loops, one table entry per instruction set. Integers are exact and
// every float is one lane's sequence of the same single operations, so all entries give the same
// bits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/cpu.h"
#include "render/int8conv/geometry.h"

namespace zorv {

enum class Int8ConvPath {
    kPortable,
    kAvx2,      ///< 16-bit multiply-add
    kAvxVnni,   ///< 256-bit VPDPBUSD, VEX encoding
    kAvx512Vl,  ///< the same loops in the EVEX encoding
    kAvx512,    ///< 512-bit VPDPBUSD
};

/// q = clamp(round(x / scale) + zeroPoint, 0, 255), rounding to nearest even.
struct Quantisation {
    float scale = 1;
    std::int32_t zeroPoint = 0;
};

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
};

/// No entry has tiles of more output channels.
constexpr int kMaxBlock = 16;

struct Int8ConvKernels {
    Int8ConvPath path;
    const char* name;
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

    /// `count` output rows from row `first` on, which is where run.rows begins.
    void (*convolveRows)(const ConvRun& run, std::int64_t first, std::int64_t count);
};

extern const Int8ConvKernels kInt8ConvPortable;
extern const Int8ConvKernels kInt8ConvAvx2;
extern const Int8ConvKernels kInt8ConvAvxVnni;
extern const Int8ConvKernels kInt8ConvAvx512Vl;
extern const Int8ConvKernels kInt8ConvAvx512;

/// Every entry that this processor can run and `level` allows, the best one first.
std::vector<const Int8ConvKernels*> int8ConvKernels(SimdLevel level = simdLevel());

}  // namespace zorv
