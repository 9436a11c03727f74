// The units that all families share.
#pragma once

#include <cstddef>

namespace zorv {

constexpr int kSampleRate = 16000;     ///< of all speech, per second
constexpr int kFramesPerSecond = 25;   ///< of all video
constexpr int kSamplesPerFrame = 640;  ///< a started block of them counts as a frame
static_assert(kSamplesPerFrame * kFramesPerSecond == kSampleRate);

constexpr std::size_t kKeypointFloats = 63;  ///< a keypoint set: 21 x (x, y, z)

}  // namespace zorv
