#include "a2x/a2x_features.h"

#include <algorithm>

#include "common/half.h"

namespace zorv::a2x {

bool legacyWindowStep(LegacyWindow& window, const AudioView& audio, std::int64_t lookAhead,
                      FeatureTrack& track) {
    const std::int64_t start = track.w2v_next;
    const WindowPlan plan = planWindow(start, track.feat_ready, audio, lookAhead);
    // A window never runs twice on the same audio: after the first run it has no new frames.
    if (plan.begin < plan.end) {
        copyWindow(audio, start * kSamplesPerFrame, kWindowSamples, window.samples());
        normalize(window.samples(), kWindowSamples);
        const float* embedding = window.run();
        ++track.encoder_runs;
        const std::int64_t end = std::min(plan.end, track.feat.rows());
        for (std::int64_t f = plan.begin; f < end; ++f) {
            takeFeature(embedding, static_cast<int>(f - start), track.feat.row(f));
        }
    }
    track.feat_ready = plan.ready;
    if (plan.complete) track.w2v_next += kHopFrames;
    return plan.complete;
}

void fill_feat_legacy(LegacyWindow& window, const AudioView& audio, std::int64_t lookAhead,
                      std::int64_t upto, FeatureTrack& track) {
    while (upto > track.feat_ready && legacyWindowStep(window, audio, lookAhead, track)) {
    }
}

void fill_feat_win(ShortWindow& window, const AudioView& audio, std::int64_t right,
                   std::int64_t upto, FeatureTrack& track) {
    while (upto > track.feat_ready) {
        const std::int64_t block = track.w2v_next;
        const std::int64_t start = shortWindowStart(block, right);
        if (start + kShortSamples > audio.samples && !audio.finished) return;

        copyWindow(audio, start, kShortSamples, window.samples());
        normalize(window.samples(), kShortSamples);
        const ShortWindow::Trunk trunk = window.runTrunk();
        ++track.encoder_runs;
        for (int k = 0; k < kBlockFrames; ++k) {
            sampleTrunk(trunk.halves, trunk.steps, trunkPosition(block + k, start),
                        window.channels(k));
        }
        const float* rows = window.runHead();
        const auto kept = std::min<std::int64_t>(kBlockFrames, track.feat.rows() - block);
        roundToHalf(rows, track.feat.row(block), static_cast<std::size_t>(kept) * kFeatureFloats);
        track.w2v_next = track.feat_ready = block + kBlockFrames;
    }
}

}  // namespace zorv::a2x
