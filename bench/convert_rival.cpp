#include "convert_rival.h"

#include <bit>

#ifdef __AVX2__
#define WIDEN widenWithoutConversionAvx2
#else
#define WIDEN widenWithoutConversion
#endif

void rival::WIDEN(const std::uint16_t* source, float* destination, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        destination[i] = std::bit_cast<float>(std::uint32_t{source[i]});
    }
}

#ifndef __AVX2__
__attribute__((optimize("no-tree-vectorize"))) void rival::rgbToRgbaScalar(const std::uint8_t* rgb,
                                                                           std::uint8_t* rgba,
                                                                           std::size_t pixels) {
    for (std::size_t i = 0; i < pixels; ++i) {
        rgba[4 * i + 0] = rgb[3 * i + 0];
        rgba[4 * i + 1] = rgb[3 * i + 1];
        rgba[4 * i + 2] = rgb[3 * i + 2];
        rgba[4 * i + 3] = 255;
    }
}
#endif
