// A fuzzer's bytes as calls on one of the engines that turn speech in pieces into keypoint frames.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "fuzz_input.h"

namespace zorv::fuzz {

constexpr int kFrameSamples = 640;
constexpr std::size_t kSetFloats = 63;

struct Start {
    std::int32_t frame = 0;
    int direction = 1;
    int loop = 0;
};

struct Step {
    enum Kind { kPush, kAvail, kPull, kEager, kReset, kFinish, kDeltas };
    Kind kind = kPush;
    int value = 0;             ///< kPull: most frames, kEager: the value
    Start start;               ///< kReset
    std::vector<float> audio;  ///< kPush, kDeltas
};

struct StreamProgram {
    int variant = 0;  ///< which engine, which comparison: the target's choice
    Start start;
    std::vector<Step> steps;
};

/// What one input may cost.
struct StreamLimits {
    int samples;
    int polls;  ///< steps that run models
};

namespace detail {

inline Start readStart(FuzzInput& input) {
    const int flags = input.byte();
    // Small numbers mostly, and any at all.
    const std::int32_t frame = flags & 4 ? input.number() : flags >> 3;
    return {frame, flags & 1 ? -1 : 1, flags & 2};
}

inline float special(int which) {
    using Limits = std::numeric_limits<float>;
    const float values[] = {Limits::quiet_NaN(),
                            Limits::infinity(),
                            -Limits::infinity(),
                            Limits::max(),
                            Limits::lowest(),
                            Limits::denorm_min(),
                            -0.f,
                            1e20f};
    return values[which % 8];
}

/// `strength` + 1 values from the bytes themselves, over and over.
template <class Value>
void repeat(std::vector<float>& audio, int strength, Value&& value) {
    std::vector<float> values;
    for (int i = 0; i <= strength; ++i) values.push_back(value());
    for (std::size_t i = 0; i < audio.size(); ++i) audio[i] = values[i % values.size()];
}

/// n samples of a kind that one byte and, for some kinds, a few more tell.
inline std::vector<float> readAudio(FuzzInput& input, int n) {
    const int flavour = input.byte();
    const int strength = flavour >> 3;  // 0 .. 31
    std::vector<float> audio(static_cast<std::size_t>(n));
    std::minstd_rand random(static_cast<unsigned>(n + flavour + 1));
    const auto noise = [&](float amplitude) {
        for (float& x : audio) {
            x = amplitude * (static_cast<float>(random() % 20001) / 10000 - 1);
        }
    };
    switch (flavour % 8) {
        case 0:
            break;  // silence
        case 1:
        case 2:
            noise(static_cast<float>(strength + 1) / 32);
            break;
        case 3:
            noise(std::pow(10.f, static_cast<float>(strength - 12)));
            break;
        case 4:
            std::fill(audio.begin(), audio.end(), special(strength));
            break;
        case 5:
            noise(0.3f);
            if (n > 0) audio[static_cast<std::size_t>(input.word() % n)] = special(strength);
            break;
        case 6:
            repeat(audio, strength, [&] {
                return static_cast<float>(static_cast<std::int8_t>(input.byte())) / 128;
            });
            break;
        default:
            repeat(audio, strength, [&] { return std::bit_cast<float>(input.number()); });
    }
    return audio;
}

inline Step readStep(FuzzInput& input, StreamLimits& limits) {
    Step step;
    const int op = input.byte() % 16;
    if (op < 8) {
        step.kind = Step::kPush;
        const int n = std::min<int>(input.word(), limits.samples);
        limits.samples -= n;
        step.audio = readAudio(input, n);
    } else if (op < 13) {
        if (limits.polls-- <= 0) return step;  // pushes nothing
        step.kind = op == 8 ? Step::kAvail : op == 12 ? Step::kDeltas : Step::kPull;
        if (op == 12) step.audio = readAudio(input, input.word() % 20000);
        if (op > 8) step.value = input.byte();
    } else if (op == 13) {
        step.kind = Step::kEager;
        step.value = static_cast<std::int8_t>(input.byte());
    } else if (op == 14) {
        step.kind = Step::kReset;
        step.start = readStart(input);
    } else {
        step.kind = Step::kFinish;
    }
    return step;
}

}  // namespace detail

inline StreamProgram readProgram(FuzzInput input, StreamLimits limits) {
    StreamProgram program;
    program.variant = input.byte();
    program.start = detail::readStart(input);
    while (!input.empty()) program.steps.push_back(detail::readStep(input, limits));
    return program;
}

/// Frames as pulled, one after the other.
struct Frames {
    std::vector<int> index;
    std::vector<float> source, driving;

    std::size_t size() const { return index.size(); }

    /// Room for `max` more, of which keep() keeps some.
    struct Room {
        int* index;
        float* source;
        float* driving;
    };
    Room room(int max) {
        const std::size_t total = size_ + static_cast<std::size_t>(std::max(max, 0));
        index.resize(total);
        source.resize(total * kSetFloats);
        driving.resize(total * kSetFloats);
        return {index.data() + size_, source.data() + size_ * kSetFloats,
                driving.data() + size_ * kSetFloats};
    }
    void keep(int count) {
        size_ += static_cast<std::size_t>(count);
        index.resize(size_);
        source.resize(size_ * kSetFloats);
        driving.resize(size_ * kSetFloats);
    }

  private:
    std::size_t size_ = 0;
};

/// The same values; any NaN is the same as any other.
inline bool sameFloats(const std::vector<float>& a, const std::vector<float>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](float x, float y) { return x == y || (std::isnan(x) && std::isnan(y)); });
}

inline bool sameFrames(const Frames& a, const Frames& b) {
    return a.index == b.index && sameFloats(a.source, b.source) && sameFloats(a.driving, b.driving);
}

}  // namespace zorv::fuzz
