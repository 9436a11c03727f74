#include "render/int8conv/kernels.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "render/int8conv/enlarged_lanes.h"

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

struct OneLane {
    static constexpr int kLanes = 1;
    static constexpr int kBlock = 4;
    static constexpr int kSegments = 2;
    static constexpr int kEnlargedSegments = 1;
    static constexpr int kQuadBytes = 4;
    using F = float;
    using Sum = std::uint32_t;  // wraps
    using Pixels = const std::uint8_t*;

    static Sum zero() { return 0; }
    static Sum setInt(std::int32_t v) { return static_cast<Sum>(v); }
    static Sum addInt(Sum a, Sum b) { return a + b; }
    static Sum loadInts(const std::int32_t* p) { return static_cast<Sum>(*p); }
    static void storeInts(std::int32_t* p, Sum v) { *p = static_cast<std::int32_t>(v); }
    static Pixels pixels(const std::uint8_t* p) { return p; }
    static const std::int8_t* weights(const std::int8_t* p) { return p; }
    static void dot(Sum& sum, Pixels pixel, const std::int8_t* weight) {
        for (int i = 0; i < 4; ++i) sum += static_cast<Sum>(int{pixel[i]} * int{weight[i]});
    }
    static float toFloat(Sum sum, float factor, float bias) {
        return static_cast<float>(static_cast<std::int32_t>(sum)) * factor + bias;
    }
    static void store(float* p, float v, int) { *p = v; }
    static void interleave(float a, float b, float (&out)[2]) { out[0] = a, out[1] = b; }
};

}  // namespace

const Int8ConvKernels kInt8ConvPortable = {OneLane::kBlock,
                                           false,
                                           false,
                                           1e6,
                                           minMaxPortable,
                                           quantiseRowPortable,
                                           convolveRowsLanes<OneLane>,
                                           convolveEnlargedLanes<OneLane>};

}  // namespace zorv
