// How well the mouth of a video follows the sound, from pixels and samples alone.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "mouth_finder.h"

namespace zorv::tools {

struct LipSync {
    size_t frames = 0;
    int lag = 0;  // frames; positive: the picture comes after the sound
    double correlation = 0;
    float closed = 0, opening = 0;  // height of the closed mouth, range of the opening, pixels
    float width = 0;                // of the mouth in loud speech, pixels
    int silentFrames = 0;           // judged
    float silentMovement = 0;       // largest change within a few silent frames, pixels
    float silentDrift = 0;          // largest change within one silent stretch, pixels
    Region region;
};

/// audio         the sound to compare with; "" for the video's own.
/// shiftFrames  advance the sound by so many frames first: the lag reads as many more.
/// region        of the mouth; found when not given.
/// Fails when the video is shorter than two seconds or no mouth moves in it.
LipSync measureLipSync(const std::string& video, const std::string& audio, int shiftFrames,
                       const std::optional<Region>& region);

}  // namespace zorv::tools
