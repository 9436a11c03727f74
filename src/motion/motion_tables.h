// The motion directory: scalar settings and float tables (docs/models.md lists the files).
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "motion/motion_layout.h"

namespace zorv::motion {

/// The floats of a headerless little-endian file, which must hold exactly `count` of them.
/// Throws "cannot open PATH" or "short read PATH: N floats, expected M".
std::vector<float> readFloats(const std::string& path, std::size_t count);

/// The number behind `key` in the text of meta.json. A missing key is `fallback`, or fails with
/// "meta.json: missing KEY" when required; a key without a colon is "meta.json: bad KEY".
double jsonNum(const std::string& text, std::string_view key, double fallback, bool required);

struct MotionTables {
    int nt = 0;  ///< target frames, at least 1
    float bridgeGain = 1;
    float deltaPitch = 0;  ///< degrees

    std::vector<float> window;    ///< 512: weights of one transform's samples
    std::vector<float> binmat;    ///< [257][80]: spectrum bins to bands
    std::vector<float> mean;      ///< 1024: added to the speech features
    std::vector<float> scale;     ///< 1024: multiplies them before
    std::vector<float> emotions;  ///< [n][8], n at least 1
    std::array<float, kEyeOpenFloats + kEyeBallFloats + kConstantFloats> rowTail{};
    std::vector<float> low, high;      ///< 265 each: bounds of a motion vector
    std::vector<KeypointInfo> source;  ///< nt records
    std::vector<float> target;         ///< [nt][63]: the target frames' own keypoints

    std::array<float, kMotionFloats> initial{};  ///< the reference person as a motion vector
    float expressionGain = 1;

    std::size_t emotionCount() const { return emotions.size() / kEmotionFloats; }
};

/// Loads all tables of a motion directory.
MotionTables loadMotionTables(const std::string& dir);

}  // namespace zorv::motion
