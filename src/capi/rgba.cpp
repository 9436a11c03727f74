#include "capi/rgba.h"

#include <algorithm>
#include <cstring>

namespace zorv {

void kernels::rgbToRgbaPortable(const std::uint8_t* rgb, std::uint8_t* rgba, std::size_t pixels) {
    // A word per pixel: byte stores would cost twice the time. (Little-endian.)
    for (std::size_t i = 0; i < pixels; ++i) {
        const std::uint32_t word =
            rgb[3 * i] | rgb[3 * i + 1] << 8 | rgb[3 * i + 2] << 16 | 0xff000000u;
        std::memcpy(rgba + 4 * i, &word, sizeof word);
    }
}

SimdLevel rgbaKernelLevel() {
    return std::min(simdLevel(), SimdLevel::kAvx2);
}

void rgbToRgba(const std::uint8_t* rgb, std::uint8_t* rgba, std::size_t pixels) {
    if (rgbaKernelLevel() == SimdLevel::kAvx2) {
        kernels::rgbToRgbaAvx2(rgb, rgba, pixels);
    } else {
        kernels::rgbToRgbaPortable(rgb, rgba, pixels);
    }
}

}  // namespace zorv
