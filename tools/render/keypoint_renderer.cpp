// Engines that hand out keypoints, and what renders their frames.
#include <zorv_core.hpp>

#include <algorithm>
#include <utility>

#include "clip_renderer.h"
#include "failure.h"
#include "interrupt.h"

namespace zorv::tools {
namespace {

constexpr size_t kPushSamples = 8000;  // half a second: memory stays flat, Ctrl-C is heard soon

ContextPtr openBundle(const RenderOptions& options) try {
    return openContext(options.bundle, "render", modelThreads(options.threads));
} catch (const Error& error) {
    fail("cannot open '{}': {}; prepare the subject again", options.bundle, error.what());
}

/// Frames walk the target frames to and fro.
template <class Engine>
class KeypointRenderer : public ClipRenderer {
  public:
    KeypointRenderer(const RenderOptions& options, Engine engine)
        : engine_(std::move(engine)),
          ctx_(openBundle(options)),
          toSkip_(options.skipFrames),
          gain_(options.gain) {
        if (engine_.targetFrames() != zorv_nt(ctx_.get())) {
            fail(
                "'{}' is for a subject of {} target frames and '{}' has {}; name the directory "
                "of this subject",
                options.motionDir, engine_.targetFrames(), options.bundle, zorv_nt(ctx_.get()));
        }
        engine_.reset();
    }

    int width() const override { return zorv_width(ctx_.get()); }
    int height() const override { return zorv_height(ctx_.get()); }
    std::string error() const override { return error_; }

    int run(const std::vector<float>& samples, const OnFrame& onFrame) override {
        made_ = 0;
        try {
            for (size_t at = 0; at < samples.size(); at += kPushSamples) {
                throwIfInterrupted();
                const size_t count = std::min(kPushSamples, samples.size() - at);
                engine_.push(samples.data() + at, static_cast<int>(count));
                renderReady(onFrame);
            }
            engine_.finish();
            renderReady(onFrame);
            error_ = "the engine has no more frames";
        } catch (const Error& error) {
            error_ = error.what();
        }
        return made_;
    }

  private:
    void renderReady(const OnFrame& onFrame) {
        while (const int count = engine_.pull(frames_)) {
            for (int i = 0; i < count; ++i) render(i, onFrame);
        }
    }

    void render(int i, const OnFrame& onFrame) {
        if (toSkip_ > 0) {
            --toSkip_;
            return;
        }
        const size_t at = static_cast<size_t>(i) * kKeypointSetFloats;
        const float* source = frames_.source.data() + at;
        float* driving = frames_.driving.data() + at;
        for (size_t j = 0; j < kKeypointSetFloats; ++j) {
            driving[j] = source[j] + gain_ * (driving[j] - source[j]);
        }
        const int target = frames_.target[static_cast<size_t>(i)];
        const uint8_t* rgb = nullptr;
        if (zorv_render_kp_crop(ctx_.get(), target, source, driving)) {
            rgb = zorv_paste_last(ctx_.get(), target);
        }
        if (!rgb) throw Error(zorv_last_error());
        onFrame(rgb);
        ++made_;
    }

    Engine engine_;
    ContextPtr ctx_;
    KeypointFrames frames_;
    int toSkip_, made_ = 0;
    float gain_;
    std::string error_;
};

}  // namespace

std::unique_ptr<ClipRenderer> openMotionRenderer(const RenderOptions& options) {
    try {
        return std::make_unique<KeypointRenderer<Motion>>(
            options, openMotion(options.motionDir, modelThreads(options.threads)));
    } catch (const Error& error) {
        fail("cannot open the motion directory '{}': {}; prepare it again", options.motionDir,
             error.what());
    }
}

std::unique_ptr<ClipRenderer> openExpressionRenderer(const RenderOptions& options) {
    try {
        return std::make_unique<KeypointRenderer<Expression>>(
            options, openExpression(options.motionDir, modelThreads(options.threads)));
    } catch (const Error& error) {
        fail("cannot open '{}' with encoder '{}': {}; check the directory and the encoder",
             options.motionDir, options.encoder, error.what());
    }
}

}  // namespace zorv::tools
