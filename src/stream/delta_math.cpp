#include "stream/delta_math.h"

#include <cmath>
#include <limits>

#include "common/samples.h"

namespace zorv::delta {

int windowCount(int frames) {
    if (frames < 1) return 0;
    // Window w > 0 is the first to provide frames from kHopFrames x (w + 1) on.
    return std::max(1, (frames - 1) / kHopFrames);
}

Window windowAt(int index, int frames) {
    const int start = index * kHopFrames;
    // The window before this one ended at frame start + 100, past this one's lead.
    static_assert(kWindowFrames - kHopFrames >= kWindowLeadFrames);
    const int begin = index == 0 ? 0 : start - kHopFrames + kWindowFrames;
    return {start, begin, std::min(frames, start + kWindowFrames)};
}

void normalizedWindow(const float* audio, int n, int startFrame, float* window) {
    const std::ptrdiff_t first = std::ptrdiff_t{startFrame} * kSamplesPerFrame;
    const auto heard = std::clamp<std::ptrdiff_t>(n - first, 0, kWindowSamples);
    std::copy_n(audio + first, heard, window);
    silenceNonFinite(window, static_cast<std::size_t>(heard));
    std::fill(window + heard, window + kWindowSamples, 0.f);

    double sum = 0;
    for (int i = 0; i < kWindowSamples; ++i) sum += window[i];
    const double mean = sum / kWindowSamples;
    double squares = 0;
    for (int i = 0; i < kWindowSamples; ++i) squares += (window[i] - mean) * (window[i] - mean);
    const double variance = squares / kWindowSamples;
    const float inverse = 1.f / std::sqrt(static_cast<float>(variance + 1e-7));
    for (int i = 0; i < kWindowSamples; ++i) {
        window[i] = static_cast<float>((window[i] - mean) * inverse);
    }
}

void averageLayers(const float* layers, int windowFrame, float* embedding) {
    constexpr std::size_t layerFloats = std::size_t{kWindowFrames} * kEmbeddingFloats;
    const float* frame = layers + static_cast<std::size_t>(windowFrame) * kEmbeddingFloats;
    for (std::size_t d = 0; d < kEmbeddingFloats; ++d) {
        double sum = 0;
        for (std::size_t layer = kFirstLayer; layer <= kLastLayer; ++layer) {
            sum += frame[layer * layerFloats + d];
        }
        embedding[d] = static_cast<float>(sum / (kLastLayer - kFirstLayer + 1));
    }
}

float energyOf(const float* embedding) {
    double sum = 0;
    for (int d = 0; d < kEmbeddingFloats; ++d) sum += double{embedding[d]} * embedding[d];
    return static_cast<float>(std::sqrt(sum));
}

double CausalPercentile::add(float energy) {
    // Infinity stands in for NaN, which has no order.
    if (std::isnan(energy)) energy = std::numeric_limits<float>::infinity();
    if (!lower_.empty() && energy < lower_.top()) {
        lower_.push(energy);
    } else {
        upper_.push(energy);
    }

    const double place = 0.2 * static_cast<double>(lower_.size() + upper_.size() - 1);
    const double below = std::floor(place);
    const auto kept = static_cast<std::size_t>(below) + 1;
    while (lower_.size() > kept) {
        upper_.push(lower_.top());
        lower_.pop();
    }
    while (lower_.size() < kept) {
        lower_.push(upper_.top());
        upper_.pop();
    }

    const double low = lower_.top();
    if (std::ceil(place) == below) return low;
    return low + (upper_.top() - low) * (place - below);
}

void CausalCentring::centre(const float* embedding, float* centred) {
    const float energy = energyOf(embedding);
    const double percentile = percentile_.add(energy);
    const double threshold = frame_ < kWarmUpFrames ? 0 : percentile;
    ++frame_;
    if (energy > threshold) {
        for (std::size_t d = 0; d < sum_.size(); ++d) sum_[d] += embedding[d];
        ++voiced_;
    }
    const float scale = 1.f / static_cast<float>(std::max(voiced_, 1));
    for (std::size_t d = 0; d < sum_.size(); ++d) centred[d] = embedding[d] - sum_[d] * scale;
}

void ContextRing::gather(int f, int frames, float* context) const {
    for (int o = -kContextBack; o <= kContextAhead; ++o) {
        const std::size_t at = index(std::clamp(f + o, 0, frames - 1));
        context = std::copy_n(data_.data() + at * kEmbeddingFloats, kEmbeddingFloats, context);
    }
}

}  // namespace zorv::delta
