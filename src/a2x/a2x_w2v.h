// The speech encoder that all expression engines of the process share, and how one engine runs it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "a2x/a2x_math.h"
#include "common/model_run.h"

namespace zorv::a2x {

/// The legacy encoder, loaded by the first call that succeeds and kept until the process ends;
/// later calls get the same model whatever they ask for. Throws with the runtime's text, or as
/// agreementOf does.
std::shared_ptr<const Model> get_shared_w2v(const std::string& path, int threads);

/// 1 when the trunk and head of the short-window path are loaded, else 0. The process tries once;
/// what went wrong is said on standard error, once.
int get_shared_w2v_win(int threads);

/// Runs the legacy encoder on one window of 8 s.
class LegacyWindow {
  public:
    explicit LegacyWindow(std::shared_ptr<const Model> w2v);

    float* samples() { return samples_.data(); }  ///< kWindowSamples, to be filled
    /// [kLayers][kWindowFrames][kLayerFloats], valid until the next run.
    const float* run();

  private:
    std::vector<float> samples_;
    ModelRun model_;
};

/// Runs the trunk on 2 s and the head on 8 frames. Needs get_shared_w2v_win() == 1.
class ShortWindow {
  public:
    /// `right`: frames of audio that a block hears behind its end. Throws when a frame would have
    /// no place in the trunk's output.
    explicit ShortWindow(std::int64_t right);

    float* samples() { return samples_.data(); }  ///< kShortSamples, to be filled

    struct Trunk {
        const std::uint16_t* halves;  ///< [kTrunkChannels][steps], valid until the next run
        std::int64_t steps;
    };
    Trunk runTrunk();

    float* channels(int frame) {  ///< kTrunkChannels of the block's frame, to be filled
        return channels_.data() + static_cast<std::size_t>(frame) * kTrunkChannels;
    }
    /// [kBlockFrames][kFeatureFloats], valid until the next run.
    const float* runHead();

  private:
    std::vector<float> samples_, channels_;
    ModelRun trunk_, head_;
};

/// What the legacy encoder gives for 8 s of silence (laid out as LegacyWindow::run): computed by
/// the process's first call that succeeds and kept.
const std::vector<float>& zero_window_emb(const std::shared_ptr<const Model>& w2v);

}  // namespace zorv::a2x
