// The units that all families share.
#pragma once

#include <cstddef>

namespace zorv {

constexpr int kSampleRate = 16000;     ///< of all speech, per second
constexpr int kFramesPerSecond = 25;   ///< of all video
constexpr int kSamplesPerFrame = 640;  ///< a started block of them counts as a frame
static_assert(kSamplesPerFrame * kFramesPerSecond == kSampleRate);

constexpr std::size_t kKeypointFloats = 63;  ///< a keypoint set: 21 x (x, y, z)

/// Of a face crop of `side` x `side` pixels: planes R, G, B.
constexpr std::size_t cropFloats(int side) {
    return std::size_t{3} * static_cast<unsigned>(side) * static_cast<unsigned>(side);
}

}  // namespace zorv
