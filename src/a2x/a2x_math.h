// The expression engine's arithmetic on plain arrays: windows, rounding, interpolation, masks,
// hold-back and replay.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "common/units.h"

namespace zorv::a2x {

constexpr std::size_t kLayers = 12;
constexpr std::size_t kLayerFloats = 768;
constexpr std::size_t kFeatureFloats = kLayers * kLayerFloats;  ///< one frame

// The legacy encoder hears 8 s at a time.
constexpr int kWindowFrames = 200;
constexpr int kWindowSamples = kWindowFrames * kSamplesPerFrame;
constexpr int kHopFrames = 100;
/// The first frames of every window but the first one give nothing: too little audio precedes them.
constexpr int kLeadFrames = 50;
constexpr std::size_t kEmbeddingFloats = kWindowFrames * kFeatureFloats;

// The short-window models hear 2 s and provide 8 frames at a time.
constexpr int kShortSamples = 32000;
constexpr int kBlockFrames = 8;
constexpr std::size_t kTrunkChannels = 640;
constexpr int kTrunkStepSamples = 80;

/// Frames that n samples cover; a started block of 640 counts.
constexpr std::int64_t frameCount(std::int64_t n) {
    return (n + kSamplesPerFrame - 1) / kSamplesPerFrame;
}

/// The leading frames that may be decoded: all `total` once the audio is complete, else all but
/// the last `holdBack`.
constexpr std::int64_t readyFrames(std::int64_t total, bool finished, std::int64_t holdBack) {
    return finished ? total : total > holdBack ? total - holdBack : 0;
}

/// Audio from sample 0 on. Samples at `stored` and beyond cannot be read; windows take them as 0.
struct AudioView {
    const float* data;
    std::int64_t samples;  ///< heard so far
    std::int64_t stored;   ///< of these readable, <= samples
    bool finished;
};

/// Copies samples [first, first + count) into `window`, zeros where there is no audio and for
/// samples that are not finite.
void copyWindow(const AudioView& audio, std::int64_t first, std::size_t count, float* window);

/// Brings all n values, padding included, to mean 0 and variance 1. Silence stays silence.
void normalize(float* window, std::size_t n);

/// What one legacy window that starts at frame `start` gives.
struct WindowPlan {
    std::int64_t begin, end;  ///< its new frames; none when begin >= end
    std::int64_t ready;       ///< leading frames that are final afterwards
    bool complete;            ///< the next window is due; otherwise this one with more audio
};

/// `ready`: leading frames that are final already. `lookAhead`: frames of audio that the last
/// final frame must have behind it while more is to come.
WindowPlan planWindow(std::int64_t start, std::int64_t ready, const AudioView& audio,
                      std::int64_t lookAhead);

/// Takes frame `frame` out of an embedding laid out [kLayers][kWindowFrames][kLayerFloats] and
/// rounds it to half precision, as every feature is.
void takeFeature(const float* embedding, int frame, float* feature);

/// The first sample that the short-window block at frame `next` hears; may be negative.
constexpr std::int64_t shortWindowStart(std::int64_t next, std::int64_t right) {
    return (next + kBlockFrames + right) * kSamplesPerFrame - kShortSamples;
}

/// Where the trunk, run on a window that starts at sample `start`, hears frame `frame` just as a
/// legacy window would: that window's first frame times its stride plus 1598/199 trunk steps per
/// frame inside it. In trunk steps, fractional.
double trunkPosition(std::int64_t frame, std::int64_t start);

/// All channels of a trunk output [kTrunkChannels][steps] (half precision) at a fractional
/// position, each rounded to half precision. Throws when the position lies outside.
void sampleTrunk(const std::uint16_t* trunk, std::int64_t steps, double position, float* channels);

/// The additive attention mask of n frames, n x n: 0 where query - left <= key <= query + window,
/// minus infinity elsewhere.
void bandedMask(std::int64_t n, std::int64_t left, std::int64_t window, float* mask);

/// The bundle frame on which frame p is shown: start, start + step, ... over nt frames, wrapped
/// around (`loop`) or back and forth without repeating the ends.
std::int32_t replayIndex(std::int64_t p, std::int32_t start, std::int32_t step, bool loop,
                         std::int32_t nt);

}  // namespace zorv::a2x
