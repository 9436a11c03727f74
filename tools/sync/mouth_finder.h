// Where the mouth is, from the picture's movement alone.
#pragma once

#include <string>

namespace zorv::tools {

struct Region {
    int x = 0, y = 0, w = 0, h = 0;
};

/// Finds the part of the picture that moves most often and most abruptly. A talking mouth changes
/// in most frames; blinks are rare, sway and breathing are smooth, so both drop out. The sound
/// plays no part. Looks at the first minute.
Region findMouth(const std::string& video);

}  // namespace zorv::tools
