#include "a2x/a2x_math.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include "common/half.h"
#include "common/samples.h"

namespace zorv::a2x {
namespace {

/// The sum of term(x[i]) in several lanes, which do not wait for one another's additions.
template <class Term>
double sumOf(const float* x, std::size_t n, Term&& term) {
    constexpr std::size_t kLanes = 8;
    double lanes[kLanes] = {};
    std::size_t i = 0;
    for (; i + kLanes <= n; i += kLanes) {
        for (std::size_t k = 0; k < kLanes; ++k) lanes[k] += term(x[i + k]);
    }
    for (; i < n; ++i) lanes[0] += term(x[i]);
    double sum = 0;
    for (const double lane : lanes) sum += lane;
    return sum;
}

}  // namespace

void copyWindow(const AudioView& audio, std::int64_t first, std::size_t count, float* window) {
    const std::int64_t last = first + static_cast<std::int64_t>(count);
    const std::int64_t begin = std::clamp<std::int64_t>(first, 0, std::max(audio.stored, first));
    const std::int64_t end = std::max(std::min(last, audio.stored), begin);
    if (begin >= last) {
        std::fill_n(window, count, 0.f);
        return;
    }
    std::fill_n(window, begin - first, 0.f);
    std::copy(audio.data + begin, audio.data + end, window + (begin - first));
    silenceNonFinite(window + (begin - first), static_cast<std::size_t>(end - begin));
    std::fill(window + (end - first), window + count, 0.f);
}

void normalize(float* window, std::size_t n) {
    const auto count = static_cast<double>(n);
    const double mean = sumOf(window, n, [](float x) { return double{x}; }) / count;
    const double variance =
        sumOf(window, n, [mean](float x) { return (x - mean) * (x - mean); }) / count;
    const float scale = 1.f / std::sqrt(static_cast<float>(variance) + 1e-7f);
    for (std::size_t i = 0; i < n; ++i) window[i] = static_cast<float>((window[i] - mean) * scale);
}

WindowPlan planWindow(std::int64_t start, std::int64_t ready, const AudioView& audio,
                      std::int64_t lookAhead) {
    const std::int64_t end = start + kWindowFrames;
    const std::int64_t heard = readyFrames(frameCount(audio.samples), false, lookAhead);
    const std::int64_t limit = audio.finished ? end : std::min(heard, end);
    const std::int64_t lead = start == 0 ? 0 : kLeadFrames;
    return {std::max(ready, start + lead), limit, std::max(limit, ready),
            audio.finished || limit == end};
}

void takeFeature(const float* embedding, int frame, float* feature) {
    for (std::size_t layer = 0; layer < kLayers; ++layer) {
        const std::size_t row = layer * kWindowFrames + static_cast<std::size_t>(frame);
        roundToHalf(embedding + row * kLayerFloats, feature + layer * kLayerFloats, kLayerFloats);
    }
}

double trunkPosition(std::int64_t frame, std::int64_t start) {
    constexpr double kStepsPerFrame = 8.030150753768844;  // 1598 / 199
    const std::int64_t base =
        frame < kWindowFrames ? 0 : (frame / kHopFrames - 1) * std::int64_t{kHopFrames};
    const std::int64_t offset = base * kSamplesPerFrame - start;
    return static_cast<double>(offset) / kTrunkStepSamples +
           static_cast<double>(frame - base) * kStepsPerFrame;
}

void sampleTrunk(const std::uint16_t* trunk, std::int64_t steps, double position, float* channels) {
    const double floor = std::floor(position);
    if (!(floor >= 0 && floor < static_cast<double>(steps))) {
        throw std::runtime_error("w2v_win: trunk pos out of range");
    }
    const auto i0 = static_cast<std::int64_t>(floor);
    const std::int64_t i1 = std::min(i0 + 1, steps - 1);
    const double weight = position - floor;

    std::array<std::uint16_t, 2 * kTrunkChannels> halves;
    for (std::size_t c = 0; c < kTrunkChannels; ++c) {
        const std::uint16_t* row = trunk + c * static_cast<std::size_t>(steps);
        halves[c] = row[i0];
        halves[kTrunkChannels + c] = row[i1];
    }
    std::array<float, halves.size()> values;
    halfToFloat(halves.data(), values.data(), halves.size());
    for (std::size_t c = 0; c < kTrunkChannels; ++c) {
        channels[c] = roundToHalf((1 - weight) * values[c] + weight * values[kTrunkChannels + c]);
    }
}

void bandedMask(std::int64_t n, std::int64_t left, std::int64_t window, float* mask) {
    std::fill_n(mask, n * n, -std::numeric_limits<float>::infinity());
    for (std::int64_t row = 0; row < n; ++row) {
        const std::int64_t begin = std::max<std::int64_t>(0, row - left);
        const std::int64_t end = std::min(n, row + window + 1);
        std::fill(mask + row * n + begin, mask + row * n + end, 0.f);
    }
}

std::int32_t replayIndex(std::int64_t p, std::int32_t start, std::int32_t step, bool loop,
                         std::int32_t nt) {
    if (nt <= 1) return 0;
    const std::int64_t q = step * p + start;
    const std::int64_t period = loop ? std::int64_t{nt} : 2 * (std::int64_t{nt} - 1);
    const std::int64_t r = (q % period + period) % period;
    return static_cast<std::int32_t>(r < nt ? r : period - r);
}

}  // namespace zorv::a2x
