#include "motion/motion_math.h"

#include <algorithm>
#include <cmath>

namespace zorv::motion {
namespace {

constexpr std::array<float, kKeypointFloats> makeLipMask() {
    std::array<float, kKeypointFloats> mask{};
    for (const int keypoint : kLipKeypoints) {
        for (int axis = 0; axis < 3; ++axis) {
            mask[static_cast<std::size_t>(3 * keypoint + axis)] = 1;
        }
    }
    return mask;
}
constexpr std::array<float, kKeypointFloats> kLipMask = makeLipMask();

}  // namespace

float bin66(const float* logits) {
    const float largest = *std::max_element(logits, logits + kAngleBins);
    float sum = 0;
    float weighted = 0;
    for (std::size_t i = 0; i < kAngleBins; ++i) {
        const float weight = std::exp(logits[i] - largest);
        sum += weight;
        weighted += weight * static_cast<float>(i);
    }
    return weighted / sum * 3 - 97.5f;
}

Rotation poseToR(float pitch, float yaw, float roll) {
    constexpr float kRadians = 3.1415927f / 180;
    const float cp = std::cos(pitch * kRadians), sp = std::sin(pitch * kRadians);
    const float cy = std::cos(yaw * kRadians), sy = std::sin(yaw * kRadians);
    const float cr = std::cos(roll * kRadians), sr = std::sin(roll * kRadians);
    return {cy * cr,
            cy * sr,
            -sy,  //
            sp * sy * cr - cp * sr,
            cp * cr + sp * sy * sr,
            sp * cy,  //
            cp * sy * cr + sp * sr,
            cp * sy * sr - sp * cr,
            cp * cy};
}

void mixExpression(const float* predicted, const float* reference, float gain, const float* source,
                   float* expression) {
    for (std::size_t j = 0; j < kKeypointFloats; ++j) {
        expression[j] =
            kLipMask[j] != 0 ? (predicted[j] - reference[j]) * gain + source[j] : source[j];
    }
}

void placeKeypoints(const KeypointInfo& info, const Rotation& rotation, const float* expression,
                    float* keypoints) {
    const float move[3] = {info.t[0], info.t[1], 0};
    for (std::size_t k = 0; k < kKeypoints; ++k) {
        const float* c = info.kp + 3 * k;
        for (std::size_t a = 0; a < 3; ++a) {
            const float turned =
                c[0] * rotation[a] + c[1] * rotation[3 + a] + c[2] * rotation[6 + a];
            keypoints[3 * k + a] = (turned + expression[3 * k + a]) * info.scale + move[a];
        }
    }
}

void smoothPose(const float* before, const float* frame, const float* after, float* out) {
    if (before && after) {
        for (std::size_t d = 0; d < kPoseFloats; ++d) {
            out[d] = (before[d] + frame[d] + after[d]) / 3;
        }
    } else if (const float* other = before ? before : after) {
        for (std::size_t d = 0; d < kPoseFloats; ++d) out[d] = (frame[d] + other[d]) / 2;
    } else {
        std::copy_n(frame, kPoseFloats, out);
    }
}

void crossFade(int k, const float* predicted, float* frame) {
    const float w = static_cast<float>(k) / static_cast<float>(kFadeFrames);
    for (std::size_t d = 0; d < kMotionFloats; ++d) {
        frame[d] = (1 - w) * frame[d] + w * predicted[d];
    }
}

void clampMotion(const float* low, const float* high, float* motion) {
    for (std::size_t d = 0; d < kMotionFloats; ++d) {
        motion[d] = std::min(std::max(motion[d], low[d]), high[d]);
    }
}

int adaptiveStep(double latencyMs) {
    return static_cast<int>(std::clamp(latencyMs / 40 + 0.999, 1.0, 8.0));
}

void Cursor::advance(int nt) {
    frame += direction;
    if (loop) {
        frame = (frame + nt) % nt;
        return;
    }
    if (frame >= nt) {
        direction = -1;
        frame = nt - 2;
    }
    if (frame < 0) {
        direction = nt > 1 ? 1 : -1;
        frame = nt > 1 ? 1 : 0;
    }
}

}  // namespace zorv::motion
