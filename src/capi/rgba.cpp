#include "capi/rgba.h"

#include "common/cpu.h"

namespace zorv {

void kernels::rgbToRgbaPortable(const std::uint8_t* rgb, std::uint8_t* rgba, std::size_t pixels) {
    for (std::size_t i = 0; i < pixels; ++i) {
        rgba[4 * i + 0] = rgb[3 * i + 0];
        rgba[4 * i + 1] = rgb[3 * i + 1];
        rgba[4 * i + 2] = rgb[3 * i + 2];
        rgba[4 * i + 3] = 255;
    }
}

void rgbToRgba(const std::uint8_t* rgb, std::uint8_t* rgba, std::size_t pixels) {
    if (simdLevel() >= SimdLevel::kAvx2) {
        kernels::rgbToRgbaAvx2(rgb, rgba, pixels);
    } else {
        kernels::rgbToRgbaPortable(rgb, rgba, pixels);
    }
}

}  // namespace zorv
