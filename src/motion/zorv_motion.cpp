// The motion engine's C functions.
#include <zorv_core.h>

#include "common/error.h"
#include "motion/motion_engine.h"
#include "telemetry/telemetry.h"

struct zorv_motion : zorv::motion::MotionEngine {
    using MotionEngine::MotionEngine;
};

namespace {

using MotionError = zorv::LastError<zorv_motion>;

}  // namespace

extern "C" {

zorv_motion* zorv_motion_create(const char* motion_dir, int threads, const char* ep) {
    MotionError::clear();
    if (!motion_dir) {
        MotionError::set("zorv_motion_create: NULL motion_dir");
        return nullptr;
    }
    return zorv::guarded<MotionError>(
        "zorv_motion_create", static_cast<zorv_motion*>(nullptr), [&] {
            return zorv::telemetry::opening(
                "motion", [&] { return new zorv_motion(motion_dir, threads, ep ? ep : ""); });
        });
}

void zorv_motion_destroy(zorv_motion* motion) {
    MotionError::clear();
    zorv::telemetry::closing("motion", motion);
    delete motion;
}

const char* zorv_motion_last_error(void) {
    return MotionError::get();
}

int zorv_motion_nt(const zorv_motion* motion) {
    MotionError::clear();
    return motion ? motion->nt() : 0;
}

int zorv_motion_push(zorv_motion* motion, const float* samples, int n) {
    MotionError::clear();
    if (!motion || !samples || n < 0 || motion->finished()) {
        MotionError::set("zorv_motion_push: bad args / already finished");
        return 0;
    }
    return zorv::guarded<MotionError>("zorv_motion_push", 0, [&] {
        motion->push(samples, static_cast<std::size_t>(n));
        return 1;
    });
}

void zorv_motion_finish(zorv_motion* motion) {
    MotionError::clear();
    if (!motion) return;
    zorv::guarded<MotionError>("zorv_motion_finish", [&] { motion->finish(); });
}

void zorv_motion_set_eager(zorv_motion* motion, int value) {
    MotionError::clear();
    if (!motion) return;
    zorv::guarded<MotionError>("zorv_motion_set_eager", [&] { motion->setEager(value); });
}

int zorv_motion_look_ahead(const zorv_motion* motion) {
    MotionError::clear();
    return motion ? motion->lookAheadSamples() : 0;
}

int zorv_motion_total(const zorv_motion* motion) {
    MotionError::clear();
    return motion ? static_cast<int>(motion->total()) : -1;
}

int zorv_motion_avail(zorv_motion* motion) {
    MotionError::clear();
    if (!motion) return 0;
    return zorv::guarded<MotionError>("zorv_motion_avail", 0,
                                      [&] { return static_cast<int>(motion->avail()); });
}

int zorv_motion_pull(zorv_motion* motion, int* idx, float* xs, float* xd, int max) {
    MotionError::clear();
    if (!motion || !xs || !xd || max < 1) {
        MotionError::set("zorv_motion_pull: bad args");
        return 0;
    }
    return zorv::guarded<MotionError>("zorv_motion_pull", 0,
                                      [&] { return motion->pull(idx, xs, xd, max); });
}

void zorv_motion_reset(zorv_motion* motion, int start_frame, int direction, int loop) {
    MotionError::clear();
    if (!motion) return;
    zorv::guarded<MotionError>("zorv_motion_reset",
                               [&] { motion->reset(start_frame, direction, loop != 0); });
}

}  // extern "C"
