// What the conversions are measured against.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rival {

/// Reads 2 bytes and writes 4 per value, without converting, vectorised by the compiler.
void widenWithoutConversion(const std::uint16_t* source, float* destination, std::size_t n);
void widenWithoutConversionAvx2(const std::uint16_t* source, float* destination, std::size_t n);

/// A byte at a time.
void rgbToRgbaScalar(const std::uint8_t* rgb, std::uint8_t* rgba, std::size_t pixels);

}  // namespace rival
