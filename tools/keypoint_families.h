// The library's families that turn speech into keypoints, as records of the same functions.
#pragma once

#include <zorv_core.h>

namespace zorv::tools {

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

}  // namespace zorv::tools
