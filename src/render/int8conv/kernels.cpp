#include "render/int8conv/kernels.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace zorv {
namespace {

void minMaxPortable(const float* data, std::size_t count, float* min, float* max) {
    float low = 0, high = 0;
    for (std::size_t i = 0; i < count; ++i) {
        low = data[i] < low ? data[i] : low;
        high = data[i] > high ? data[i] : high;
    }
    *min = low;
    *max = high;
}

/// As the vector conversion does it: to nearest even, and what does not fit becomes INT_MIN.
std::int32_t roundToInt(float value) {
    if (!(value >= -0x1p31f && value < 0x1p31f)) return std::numeric_limits<std::int32_t>::min();
    return static_cast<std::int32_t>(std::nearbyint(value));
}

void quantiseRowPortable(const float* const* channels, std::int64_t width, Quantisation q,
                         std::uint32_t* out) {
    for (std::int64_t x = 0; x < width; ++x) {
        std::uint32_t quad = 0;
        for (int i = 0; i < 4; ++i) {
            const float value = (channels[i] ? channels[i] : channels[0])[x];
            const auto wrapped = static_cast<std::uint32_t>(roundToInt(value / q.scale)) +
                                 static_cast<std::uint32_t>(q.zeroPoint);
            const int byte = std::clamp(static_cast<std::int32_t>(wrapped), 0, 255);
            quad |= static_cast<std::uint32_t>(byte) << (8 * i);
        }
        out[x] = quad;
    }
}

constexpr int kPortableBlock = 4;

/// The sums of one output pixel for the channels of one block.
void sumPixel(const ConvGeometry& g, const std::uint8_t* pixel, const std::int8_t* weights,
              std::uint32_t (&sums)[kPortableBlock]) {
    std::fill(std::begin(sums), std::end(sums), 0u);
    for (std::int64_t quad = 0; quad < g.quads; ++quad, pixel += g.quadBytes) {
        for (const std::int64_t tap : g.tapOffsets) {
            for (std::uint32_t& sum : sums) {
                for (int i = 0; i < 4; ++i) {
                    sum += static_cast<std::uint32_t>(int{pixel[tap + i]} * int{*weights++});
                }
            }
        }
    }
}

void convolveRowsPortable(const ConvRun& run, std::int64_t firstRow, std::int64_t count) {
    const ConvGeometry& g = run.geometry;
    for (std::int64_t row = firstRow; row < firstRow + count; ++row) {
        const std::uint8_t* line =
            run.rows + (row - firstRow) * g.attributes.strides[0] * g.rowBytes;
        for (std::int64_t first = 0; first < g.m;) {
            const std::int64_t group = first / g.groupOut, inGroup = first % g.groupOut;
            const std::int64_t channels =
                std::min<std::int64_t>(kPortableBlock, g.groupOut - inGroup);
            const std::int8_t* weights = run.weights.of(group, inGroup / kPortableBlock);
            float* y = run.y + (first * g.oh + row) * g.ow;
            for (std::int64_t x = 0; x < g.ow; ++x) {
                std::uint32_t sums[kPortableBlock];
                sumPixel(g, line + group * g.groupBytes + x * 4, weights, sums);
                for (std::int64_t i = 0; i < channels; ++i) {
                    const auto sum = static_cast<std::int32_t>(
                        sums[i] + static_cast<std::uint32_t>(run.start[first + i]));
                    y[i * g.oh * g.ow + x] =
                        static_cast<float>(sum) * run.factor[first + i] + run.bias[first + i];
                }
            }
            first += channels;
        }
    }
}

}  // namespace

const Int8ConvKernels kInt8ConvPortable = {
    kPortableBlock, false, false, 1e6, minMaxPortable, quantiseRowPortable, convolveRowsPortable};

}  // namespace zorv
