// The delta model's arithmetic on plain arrays: windows, normalisation, embeddings, voicing, mean.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <queue>
#include <vector>

#include "common/units.h"

namespace zorv::delta {

constexpr int kWindowFrames = 200;
constexpr int kWindowSamples = kWindowFrames * kSamplesPerFrame;
constexpr int kHopFrames = 100;
/// Every window but the first skips this many frames, which hear too little of the past.
constexpr int kWindowLeadFrames = 50;
constexpr int kEmbeddingFloats = 768;
constexpr int kFirstLayer = 4;  ///< the encoder layers that are averaged: 4 .. 9
constexpr int kLastLayer = 9;
constexpr int kContextBack = 1;   ///< frames of context before a frame
constexpr int kContextAhead = 5;  ///< and after it
constexpr int kContextFrames = kContextBack + 1 + kContextAhead;
constexpr int kWarmUpFrames = 7;  ///< the first frames, voiced whenever they have energy

/// Frames of a clip of n samples: a started block of 640 counts. 0 for n < 1.
inline int frameCount(int n) {
    return n < 1 ? 0
                 : static_cast<int>((std::int64_t{n} + kSamplesPerFrame - 1) / kSamplesPerFrame);
}

/// One run of the encoder: it hears the window that starts at frame `start` and provides the
/// embeddings of frames [begin, end).
struct Window {
    int start, begin, end;
};

/// Windows start every kHopFrames frames and each frame takes the first one that may provide it,
/// so that the windows' frames follow each other without gap or overlap. Those that would provide
/// none (the tail of the clip is already covered) do not count.
int windowCount(int frames);
Window windowAt(int index, int frames);

/// Copies the window's samples out of a clip of n samples, zeros behind its end and for
/// samples that are not finite, and brings all kWindowSamples of them to mean 0 and variance 1.
void normalizedWindow(const float* audio, int n, int startFrame, float* window);

/// The embedding of one window frame: the mean of layers kFirstLayer .. kLastLayer.
/// layers: [layer][kWindowFrames][kEmbeddingFloats].
void averageLayers(const float* layers, int windowFrame, float* embedding);

/// Euclidean length of an embedding.
float energyOf(const float* embedding);

/// The 20th percentile of all energies so far, for each new one in O(log n): `lower_` holds the
/// floor(p) + 1 smallest and `upper_` the others, where p = 0.2 (n - 1) is the percentile's place
/// in sorted order. p never falls, so each new energy moves at most two elements between the two.
class CausalPercentile {
  public:
    /// Adds an energy and returns the percentile, interpolated between its two neighbours in
    /// sorted order. NaN sorts behind all numbers; a percentile that falls there is not finite.
    double add(float energy);

  private:
    std::priority_queue<float> lower_;
    std::priority_queue<float, std::vector<float>, std::greater<>> upper_;
};

/// Subtracts from each embedding the mean of the voiced ones so far, its own included. A frame is
/// voiced when its energy exceeds the percentile (in the warm-up: 0). NaN energy is unvoiced.
class CausalCentring {
  public:
    /// `embedding` and `centred` may be the same array. Frames come in order.
    void centre(const float* embedding, float* centred);

  private:
    CausalPercentile percentile_;
    std::array<float, kEmbeddingFloats> sum_{};
    int voiced_ = 0;
    int frame_ = 0;
};

/// The centred embeddings of the last kSlots frames; frame f lies in slot f modulo kSlots.
class ContextRing {
  public:
    static constexpr int kSlots = 8;

    float* slot(int frame) { return data_.data() + std::size_t{kEmbeddingFloats} * index(frame); }

    /// Concatenates frames f - 1, f, ..., f + 5 of a clip of `frames` frames, its first and last
    /// frame repeated at the ends. Frames up to min(f + kContextAhead, frames - 1) must be here.
    void gather(int f, int frames, float* context) const;

  private:
    static_assert(kSlots >= kContextFrames);
    static std::size_t index(int frame) { return static_cast<std::size_t>(frame % kSlots); }

    std::vector<float> data_ = std::vector<float>(std::size_t{kSlots} * kEmbeddingFloats);
};

}  // namespace zorv::delta
