#pragma once

#include <string_view>

namespace zorv {

/// Whether no Huffman table of a JPEG file has more symbols than there are byte values. The image
/// decoder (stb_image before 2.28) does not check this and writes past its tables. True for
/// everything that is no JPEG file.
bool jpegTablesFit(std::string_view file);

}  // namespace zorv
