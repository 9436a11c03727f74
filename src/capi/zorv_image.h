#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zorv {

/// Decodes an image file (JPEG, PNG, ...) to width x height x 3 bytes RGB, row-major.
/// Throws "decode failed: " + path.
std::vector<std::uint8_t> loadImageRGB(const std::string& path, int& width, int& height);

}  // namespace zorv
