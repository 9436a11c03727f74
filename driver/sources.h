// The library's families that turn speech into keypoints, and how much sound each needs before its
// first frame.
#pragma once

#include <zorv_core.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "live_engine.h"

namespace zorv::driver {

struct Motion {
    using Handle = zorv_motion;
    static constexpr auto destroy = zorv_motion_destroy;
    static constexpr auto nt = zorv_motion_nt;
    static constexpr auto push = zorv_motion_push;
    static constexpr auto finish = zorv_motion_finish;
    static constexpr auto avail = zorv_motion_avail;
    static constexpr auto pull = zorv_motion_pull;
    static constexpr auto reset = zorv_motion_reset;
    static constexpr auto setEager = zorv_motion_set_eager;
    static constexpr auto lastError = zorv_motion_last_error;
};

struct Expression {
    using Handle = zorv_a2x;
    static constexpr auto destroy = zorv_a2x_destroy;
    static constexpr auto nt = zorv_a2x_nt;
    static constexpr auto push = zorv_a2x_push;
    static constexpr auto finish = zorv_a2x_finish;
    static constexpr auto avail = zorv_a2x_avail;
    static constexpr auto pull = zorv_a2x_pull;
    static constexpr auto reset = zorv_a2x_reset;
    static constexpr auto setEager = zorv_a2x_set_eager;
    static constexpr auto lastError = zorv_a2x_last_error;
};

constexpr int kKeypointFloats = 63;  // 21 keypoints x 3

/// Room for a few frames on their way from an engine to the renderer.
struct KeypointFrames {
    static constexpr int kCapacity = 32;

    std::vector<int> target = std::vector<int>(kCapacity);
    std::vector<float> source = std::vector<float>(kCapacity * kKeypointFloats);
    std::vector<float> driving = std::vector<float>(kCapacity * kKeypointFloats);
};

/// Whether the directory is the expression engine's.
bool isExpressionDir(const std::string& motionDir);

/// Hands the sound in pieces of 20 ms to a source of its own, opened as the engine opens it, and
/// returns how many it took until a frame was there; all, if the source needs the sound's end.
size_t piecesBeforeFirstFrame(const LiveSetup& setup, const std::vector<int16_t>& sound);

}  // namespace zorv::driver
