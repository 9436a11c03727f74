#include "speech_walk.h"

#include <unistd.h>
#include <zorv_core.hpp>

#include <algorithm>
#include <stdexcept>

namespace zorv::gst {
namespace {

struct MotionFunctions : MotionFamily {
    static constexpr bool kClearsError = true;  ///< by a call that succeeds
};

struct ExpressionFunctions : ExpressionFamily {
    static constexpr bool kClearsError = false;
};

template <class Functions>
class FamilyEngine : public KeypointEngine {
  public:
    explicit FamilyEngine(typename Functions::Handle* handle) : handle_(handle) {
        if (!handle_) throw std::runtime_error(Functions::lastError());
    }
    int frames() const override { return Functions::nt(handle_.get()); }
    int lookAhead() const override { return Functions::lookAhead(handle_.get()); }
    bool push(const float* samples, int count) override {
        return Functions::push(handle_.get(), samples, count) == 1;
    }
    void finish() override { Functions::finish(handle_.get()); }
    int pull(int* index, float* source, float* driving) override {
        if (Functions::avail(handle_.get()) < 1) return 0;
        return Functions::pull(handle_.get(), index, source, driving, 1);
    }
    void reset(int start, int direction) override {
        Functions::reset(handle_.get(), start, direction, 0);
    }
    bool failed() const override { return Functions::kClearsError && !error().empty(); }
    std::string error() const override { return Functions::lastError(); }

  private:
    struct Destroy {
        void operator()(typename Functions::Handle* handle) const { Functions::destroy(handle); }
    };
    std::unique_ptr<typename Functions::Handle, Destroy> handle_;
};

std::unique_ptr<KeypointEngine> openEngine(const Settings& settings) {
    const char* dir = settings.motionDir.c_str();
    if (resolvedEngine(settings) == EngineKind::kMotion) {
        zorv_motion* motion = zorv_motion_create(dir, settings.threads, nullptr);
        if (motion) zorv_motion_set_eager(motion, settings.eager);
        return std::make_unique<FamilyEngine<MotionFunctions>>(motion);
    }
    if (!settings.encoder.empty() && !zorv_a2x_preload_w2v(settings.encoder.c_str())) {
        throw std::runtime_error(zorv_a2x_last_error());
    }
    return std::make_unique<FamilyEngine<ExpressionFunctions>>(
        zorv_a2x_create(dir, settings.threads));
}

}  // namespace

EngineKind resolvedEngine(const Settings& settings) {
    if (settings.engine != EngineKind::kAuto) return settings.engine;
    const std::string file = settings.motionDir + "/a2x_enc_stream.onnx";
    return ::access(file.c_str(), F_OK) == 0 ? EngineKind::kExpression : EngineKind::kMotion;
}

SpeechWalk::SpeechWalk(const Settings& settings)
    : ctx_(zorv_create(settings.bundle.c_str(), "render", settings.threads, nullptr)) {
    if (!ctx_) throw std::runtime_error(zorv_last_error());
    engine_ = openEngine(settings);
    if (engine_->frames() != zorv_nt(ctx_.get())) {
        throw std::runtime_error("motion-dir is for a subject of " +
                                 std::to_string(engine_->frames()) + " frames, the bundle has " +
                                 std::to_string(zorv_nt(ctx_.get())));
    }
    patience_ = static_cast<std::size_t>(lookAhead()) + std::size_t{64} * kFrameSamples;
    start(true);
}

void SpeechWalk::start(bool fromTheFirstFrame) {
    if (fromTheFirstFrame) {
        index_ = -1;
        direction_ = 1;
    }
    resetEngine();
    untaken_.clear();
    pushed_ = taken_ = 0;
    finished_ = false;
}

/// The engine's next frame is the one that the walk to and fro has next.
void SpeechWalk::resetEngine() {
    const int count = engine_->frames();
    const bool turns = index_ + direction_ < 0 || index_ + direction_ >= count;
    if (turns && count > 1) direction_ = -direction_;
    engine_->reset(count > 1 ? index_ + direction_ : 0, direction_);
}

void SpeechWalk::push(const float* samples, int count) {
    untaken_.insert(untaken_.end(), samples, samples + count);
    pushed_ += static_cast<std::uint64_t>(count);
    if (!engine_->push(samples, count)) throw std::runtime_error(engine_->error());
}

void SpeechWalk::finish() {
    finished_ = true;
    engine_->finish();
}

bool SpeechWalk::next() {
    const std::uint64_t started = (pushed_ + kFrameSamples - 1) / kFrameSamples;
    if (taken_ >= started) return false;
    if (pull()) return true;
    if (engine_->failed()) throw std::runtime_error(engine_->error());
    if (!finished_ && untaken_.size() <= patience_) return false;
    // The engine's stream is full, or it has failed: it goes on with a new one.
    resetEngine();
    if (!engine_->push(untaken_.data(), static_cast<int>(untaken_.size()))) {
        throw std::runtime_error(engine_->error());
    }
    if (finished_) engine_->finish();
    if (!pull()) throw std::runtime_error(engine_->error());
    return true;
}

bool SpeechWalk::pull() {
    int index = 0;
    if (engine_->pull(&index, source_, driving_) != 1) return false;
    if (index_ >= 0 && index != index_) direction_ = index > index_ ? 1 : -1;
    index_ = index;
    ++taken_;
    const std::size_t heard = std::min<std::size_t>(kFrameSamples, untaken_.size());
    untaken_.erase(untaken_.begin(), untaken_.begin() + static_cast<std::ptrdiff_t>(heard));
    return true;
}

void SpeechWalk::render(const Planes& planes) {
    const float* crop = zorv_render_kp_crop(ctx_.get(), index_, source_, driving_);
    if (!crop || !zorv_paste_planes(ctx_.get(), index_, crop, planes.pixels, planes.matrix,
                                    planes.plane, planes.stride)) {
        throw std::runtime_error(zorv_last_error());
    }
}

}  // namespace zorv::gst
