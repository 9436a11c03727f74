// Sizes and layouts that the motion engine's files and models share.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/units.h"

namespace zorv::motion {

constexpr std::size_t kKeypoints = 21;
static_assert(3 * kKeypoints == kKeypointFloats);
constexpr std::size_t kAngleBins = 66;

/// One frame's place, pose and expression, as the tables store it.
struct KeypointInfo {
    float exp[kKeypointFloats];  ///< expression offsets
    float kp[kKeypointFloats];   ///< canonical keypoints
    float pitch[kAngleBins];
    float roll[kAngleBins];
    float scale;
    float t[3];
    float yaw[kAngleBins];
};
constexpr std::size_t kInfoFloats = 328;
static_assert(sizeof(KeypointInfo) == kInfoFloats * sizeof(float));

/// A motion vector, what the generator makes per frame:
///     scale - 1 | pitch 66 | yaw 66 | roll 66 | t 3 | exp 63
///     `------------------ pose, 202 ------------'
constexpr std::size_t kPoseFloats = 1 + 3 * kAngleBins + 3;
constexpr std::size_t kMotionFloats = kPoseFloats + kKeypointFloats;
static_assert(kMotionFloats == 265);

/// A conditioning row, what the generator hears per frame:
///     speech features 1024 | emotion 8 | eye openness 2 | eyeballs 6 | constants 63
constexpr std::size_t kSpeechFloats = 1024;
constexpr std::size_t kEmotionFloats = 8;
constexpr std::size_t kEyeOpenFloats = 2;
constexpr std::size_t kEyeBallFloats = 6;
constexpr std::size_t kConstantFloats = 63;
constexpr std::size_t kRowFloats =
    kSpeechFloats + kEmotionFloats + kEyeOpenFloats + kEyeBallFloats + kConstantFloats;
static_assert(kRowFloats == 1103);

/// The generator hears and predicts chunks of 80 frames; each starts 70 frames after the one
/// before it and is faded in over the 10 frames that both cover.
constexpr std::int64_t kChunkFrames = 80;
constexpr std::int64_t kFadeFrames = 10;
constexpr std::int64_t kChunkStep = kChunkFrames - kFadeFrames;

/// The speech-feature model hears a window around five frames.
constexpr int kWindowFrames = 5;
constexpr int kWindowLeadSamples = 2000;    ///< before the start of its first frame
constexpr int kWindowFollowSamples = 4480;  ///< behind it
constexpr int kWindowSamples = kWindowLeadSamples + kWindowFollowSamples;
constexpr std::size_t kSpeechRows = 20;  ///< rows that the model makes of one window

}  // namespace zorv::motion
