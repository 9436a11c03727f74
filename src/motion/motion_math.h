// The motion engine's arithmetic on plain arrays: angles and rotations, keypoints, smoothing,
// cross-fade, the walk over target frames.
#pragma once

#include <array>

#include "motion/motion_layout.h"

namespace zorv::motion {

/// Frames that `samples` samples cover: a started block of 640 counts.
inline std::int64_t coveredFrames(std::int64_t samples) {
    return (samples + kSamplesPerFrame - 1) / kSamplesPerFrame;
}

/// The keypoints that take predicted expression; all others keep the source's.
constexpr std::array<int, 6> kLipKeypoints = {6, 12, 14, 17, 19, 20};

/// Angle in degrees from 66 bin logits: the expected bin under their softmax, 3 degrees a bin.
float bin66(const float* logits);

/// Row-major 3 x 3 rotation from angles in degrees.
using Rotation = std::array<float, 9>;
Rotation poseToR(float pitch, float yaw, float roll);

/// The expression of a frame: the source's, and for the lip keypoints (predicted - reference) x
/// gain on top of it.
void mixExpression(const float* predicted, const float* reference, float gain, const float* source,
                   float* expression);

/// Turns canonical keypoints, adds the expression, scales and moves them. The z translation is
/// dropped on purpose: the renderer's keypoints have none.
void placeKeypoints(const KeypointInfo& info, const Rotation& rotation, const float* expression,
                    float* keypoints);

/// The mean of a pose value's frame and its neighbours. At an end of the sequence the missing
/// neighbour is null. Writes the pose floats.
void smoothPose(const float* before, const float* frame, const float* after, float* out);

/// Weight k / 10 for the new prediction of the k-th frame that two chunks cover.
void crossFade(int k, const float* predicted, float* frame);

/// Limits a motion vector to its bounds, in place.
void clampMotion(const float* low, const float* high, float* motion);

/// Frames of new audio between eager passes for a latency average in milliseconds: as many as a
/// pass takes, 1 .. 8.
int adaptiveStep(double latencyMs);

/// Walks the target frames: there and back again, or round in a loop.
struct Cursor {
    int frame = 0;
    int direction = 1;
    bool loop = false;

    /// Moves to the next of `nt` frames.
    void advance(int nt);
};

}  // namespace zorv::motion
