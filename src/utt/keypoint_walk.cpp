#include "utt/keypoint_walk.h"

namespace zorv {

void KeypointWalk::shift(int steps, std::int32_t& index, float* source, float* driving) const {
    if (steps == 0 || !known()) return;
    index = after(index, steps);
    const float* rest = row(index);
    for (std::size_t i = 0; i < kKeypointFloats; ++i) {
        driving[i] = rest[i] + (driving[i] - source[i]);
        source[i] = rest[i];
    }
}

Keypoints KeypointWalk::offset(int index, const float* driving) const {
    Keypoints result;
    for (std::size_t i = 0; i < kKeypointFloats; ++i) result[i] = driving[i] - row(index)[i];
    return result;
}

Keypoints KeypointWalk::displaced(int index, float weight, const Keypoints& offset) const {
    Keypoints result;
    for (std::size_t i = 0; i < kKeypointFloats; ++i) {
        result[i] = row(index)[i] + weight * offset[i];
    }
    return result;
}

}  // namespace zorv
