#include "paste/rgba.h"

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

void rgbToRgba(const std::uint8_t* rgb, std::uint8_t* rgba, std::size_t pixels) {
    chooseKernel(kRgbaKernels).entry(rgb, rgba, pixels);
}

}  // namespace zorv
