#include "motion/motion_emitter.h"

#include <algorithm>

#include "motion/motion_math.h"

namespace zorv::motion {

Emitter::Emitter(const MotionTables& tables, ModelRun& stitch, const Dump& dump)
    : tables_(tables), stitch_(stitch), dump_(dump) {
    stitch_.bindInput(0, xs_.data());
    stitch_.bindInput(1, xd_.data());
    stitch_.bindOutput(0, stitched_.data());
}

void Emitter::emitFrame(const float* motion, int i, Dump::Mode mode, float* outXs, float* outXd) {
    const float* predicted = motion + kPoseFloats;
    if (!referenceSet_) {
        std::copy_n(predicted, kKeypointFloats, reference_.begin());
        referenceSet_ = true;
    }
    const auto frame = static_cast<std::size_t>(i);
    const KeypointInfo& source = tables_.source[frame];
    std::array<float, kKeypointFloats> expression;
    mixExpression(predicted, reference_.data(), tables_.expressionGain, source.exp,
                  expression.data());

    const float pitch = bin66(source.pitch);
    const float yaw = bin66(source.yaw);
    const float roll = bin66(source.roll);
    placeKeypoints(source, poseToR(pitch, yaw, roll), source.exp, xs_.data());
    placeKeypoints(source, poseToR(pitch + tables_.deltaPitch, yaw, roll), expression.data(),
                   xd_.data());
    stitch_.run();

    const float* target = tables_.target.data() + frame * kKeypointFloats;
    for (std::size_t j = 0; j < kKeypointFloats; ++j) {
        outXs[j] = target[j];
        outXd[j] = (stitched_[j] - xs_[j]) * tables_.bridgeGain + target[j];
    }
    dump_.write("/xsla.bin", xs_.data(), kKeypointFloats, mode);
    dump_.write("/xdla.bin", stitched_.data(), kKeypointFloats, mode);
}

}  // namespace zorv::motion
