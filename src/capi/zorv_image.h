// The image decoder behind one function.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zorv {

/// Decodes an image file (JPEG or PNG) to width x height x 3 bytes RGB, row-major. An image of
/// more than `mostPixels` is not decoded: only its size is told, since that of a damaged file may
/// ask for any amount of memory. Throws "decode failed: " + path.
std::vector<std::uint8_t> loadImageRGB(const std::string& path, int& width, int& height,
                                       std::size_t mostPixels);

}  // namespace zorv
