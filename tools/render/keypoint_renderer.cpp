#include <zorv_core.h>

#include <algorithm>

#include "failure.h"
#include "interrupt.h"
#include "keypoint_engine.h"

namespace zorv::tools {
namespace {

constexpr size_t kPushSamples = 8000;  // half a second: memory stays flat, Ctrl-C is heard soon

struct Destroy {
    void operator()(zorv_ctx* ctx) const { zorv_destroy(ctx); }
};

class KeypointRenderer : public ClipRenderer {
  public:
    KeypointRenderer(const RenderOptions& options, std::unique_ptr<KeypointEngine> engine)
        : engine_(std::move(engine)),
          ctx_(zorv_create(options.bundle.c_str(), "render", modelThreads(options.threads),
                           nullptr)),
          toSkip_(options.skipFrames),
          gain_(options.gain) {
        if (!ctx_) {
            fail("cannot open '{}': {}; prepare the subject again", options.bundle,
                 zorv_last_error());
        }
        if (engine_->targetFrames() != zorv_nt(ctx_.get())) {
            fail(
                "'{}' is for a subject of {} target frames and '{}' has {}; name the directory "
                "of this subject",
                options.motionDir, engine_->targetFrames(), options.bundle, zorv_nt(ctx_.get()));
        }
    }

    int width() const override { return zorv_width(ctx_.get()); }
    int height() const override { return zorv_height(ctx_.get()); }
    std::string error() const override { return error_; }

    int run(const std::vector<float>& samples, const OnFrame& onFrame) override {
        made_ = 0;
        for (size_t at = 0; at < samples.size(); at += kPushSamples) {
            throwIfInterrupted();
            const size_t count = std::min(kPushSamples, samples.size() - at);
            if (!engine_->push(samples.data() + at, static_cast<int>(count))) return stop();
            if (!renderReady(onFrame)) return made_;
        }
        if (!engine_->finish()) return stop();
        if (renderReady(onFrame)) error_ = "the engine has no more frames";
        return made_;
    }

  private:
    /// Keeps the engine's reason.
    int stop() {
        error_ = engine_->error();
        return made_;
    }

    /// Renders what the engine has ready; false when something failed.
    bool renderReady(const OnFrame& onFrame) {
        while (const int count = engine_->pull(frames_)) {
            for (int i = 0; i < count; ++i) {
                if (!render(i, onFrame)) return false;
            }
        }
        stop();
        return error_.empty();
    }

    bool render(int i, const OnFrame& onFrame) {
        if (toSkip_ > 0) {
            --toSkip_;
            return true;
        }
        const size_t at = static_cast<size_t>(i) * driver::kKeypointFloats;
        const float* source = frames_.source.data() + at;
        float* driving = frames_.driving.data() + at;
        for (int j = 0; j < driver::kKeypointFloats; ++j) {
            driving[j] = source[j] + gain_ * (driving[j] - source[j]);
        }
        const int target = frames_.target[static_cast<size_t>(i)];
        const uint8_t* rgb = nullptr;
        if (zorv_render_kp_crop(ctx_.get(), target, source, driving)) {
            rgb = zorv_paste_last(ctx_.get(), target);
        }
        if (!rgb) {
            error_ = zorv_last_error();
            return false;
        }
        onFrame(rgb);
        ++made_;
        return true;
    }

    std::unique_ptr<KeypointEngine> engine_;
    std::unique_ptr<zorv_ctx, Destroy> ctx_;
    driver::KeypointFrames frames_;
    int toSkip_, made_ = 0;
    float gain_;
    std::string error_;
};

}  // namespace

std::unique_ptr<ClipRenderer> openKeypointRenderer(const RenderOptions& options,
                                                   std::unique_ptr<KeypointEngine> engine) {
    return std::make_unique<KeypointRenderer>(options, std::move(engine));
}

}  // namespace zorv::tools
