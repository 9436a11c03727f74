// A fuzzer's bytes as calls on utterance engines: one engine after the other, each called by three
// threads at once.
#pragma once

#include <algorithm>
#include <vector>

#include "fuzz_input.h"

namespace zorv::fuzz {

enum class Call {
    kPush,         ///< value samples
    kPushNothing,  ///< no samples, or arguments that are refused
    kEnd,
    kInterrupt,
    kPull,       ///< until value frames came or none came for a while
    kPullSmall,  ///< into a buffer that is too small, or none
    kAvailable,
    kReady,
    kFailure,  ///< into value bytes
    kStats,
    kPause,  ///< value x 50 microseconds
};

struct UttStep {
    Call call;
    int value;
};

/// The life of one engine.
struct UttLife {
    // How it is created; which source that is, the target knows.
    int source = 0;
    bool damagedContext = false;
    bool pipelined = false;
    bool batched = false;
    bool silenceEnds = false;
    int eager = 0;
    int rampFrames = 0;
    int rampFramesInterrupt = 0;

    std::vector<UttStep> pusher, puller, controller;
    bool drained = false;  ///< before it is destroyed, else destroyed at once

    bool calls(Call call) const {
        return has(pusher, call) || has(puller, call) || has(controller, call);
    }
    static bool has(const std::vector<UttStep>& steps, Call call) {
        return std::any_of(steps.begin(), steps.end(),
                           [&](const UttStep& step) { return step.call == call; });
    }
};

namespace detail {

constexpr int kMostSamples = 40960;  ///< per life: 64 frames
constexpr std::size_t kMostSteps = 40;

inline UttLife readLife(FuzzInput& input) {
    UttLife life;
    const int flags = input.byte();
    life.source = flags & 3;
    life.damagedContext = (flags & 0x1c) == 0x1c;
    life.pipelined = flags & 0x20;
    life.batched = flags & 0x40;
    life.drained = !(flags & 0x80);
    life.eager = static_cast<std::int8_t>(input.byte());
    const int ramps = input.byte();
    life.rampFrames = ramps & 7;
    life.rampFramesInterrupt = ramps >> 3 & 7;
    life.silenceEnds = (ramps & 0xc0) == 0xc0;
    return life;
}

inline UttStep readPusherStep(FuzzInput& input, int op, int& samples) {
    if (op >= 56) return {Call::kPushNothing, op & 1};
    if (op >= 48) return {Call::kPause, input.byte()};
    if (op >= 36) return {Call::kEnd, 0};
    const int n = std::min(input.word() % 12000, samples);
    samples -= n;
    return {Call::kPush, n};
}

inline UttStep readPullerStep(FuzzInput& input, int op) {
    if (op < 40) return {Call::kPull, 1 + op};
    if (op < 48) return {Call::kPause, input.byte()};
    if (op < 54) return {Call::kAvailable, 0};
    return op < 60 ? UttStep{Call::kStats, 0} : UttStep{Call::kPullSmall, op & 3};
}

inline UttStep readControllerStep(FuzzInput& input, int op) {
    if (op < 24) return {Call::kInterrupt, 0};
    if (op < 44) return {Call::kPause, input.byte()};
    constexpr Call kOthers[] = {Call::kReady, Call::kStats, Call::kAvailable, Call::kFailure};
    if (op < 60) return {kOthers[op & 3], op - 44};
    return op < 62 ? UttStep{Call::kEnd, 0} : UttStep{Call::kPull, 2};
}

}  // namespace detail

/// At most `lives` engines. A byte 0xff in the place of a call ends a life.
inline std::vector<UttLife> readLives(FuzzInput input, std::size_t lives) {
    std::vector<UttLife> all;
    while (!input.empty() && all.size() < lives) {
        UttLife life = detail::readLife(input);
        int samples = detail::kMostSamples;
        for (std::size_t steps = 0; !input.empty() && steps < detail::kMostSteps; ++steps) {
            const int byte = input.byte();
            if (byte == 0xff) break;
            const int op = byte & 63;
            if (byte < 0x60) {
                life.pusher.push_back(detail::readPusherStep(input, op, samples));
            } else if (byte < 0xb0) {
                life.puller.push_back(detail::readPullerStep(input, op));
            } else {
                life.controller.push_back(detail::readControllerStep(input, op));
            }
        }
        all.push_back(std::move(life));
    }
    return all;
}

}  // namespace zorv::fuzz
