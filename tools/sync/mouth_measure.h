// Height and width of the mouth in every picture of a video.
#pragma once

#include <string>
#include <vector>

#include "mouth_finder.h"

namespace zorv::tools {

struct MouthSeries {
    std::vector<float> height;  // between the lips' outer edges, pixels, per frame
    std::vector<float> width;   // between the corners, pixels, per frame
    double startSeconds = 0.0;  // of the first frame on the file's clock
};

/// Lips and the open mouth are redder or darker than the skin around them: one threshold, chosen
/// from the colours of the region, tells them apart. The largest patch beyond it is the mouth;
/// teeth and tongue lie inside it. Height is averaged over the middle columns with edges placed
/// between pixels, so neither sway nor the codec's noise moves it much. Opening the mouth adds to
/// the height what the lips' own thickness contributes always.
MouthSeries measureMouth(const std::string& video, const Region& region);

}  // namespace zorv::tools
