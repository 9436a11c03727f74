// Continuous sound becomes rendered frames: one for every started block of 640 samples.
#pragma once

#include <zorv_core.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "settings.h"
#include "video_out.h"

namespace zorv::gst {

/// The functions that the motion and the expression engine have in common.
class KeypointEngine {
  public:
    virtual ~KeypointEngine() = default;
    virtual int frames() const = 0;     ///< of the bundle that its files were made for
    virtual int lookAhead() const = 0;  ///< samples from a frame's start until it can be had
    virtual bool push(const float* samples, int count) = 0;
    virtual void finish() = 0;
    /// 1, or 0 when no frame is ready or something failed (error() tells which).
    virtual int pull(int* index, float* source, float* driving) = 0;
    virtual void reset(int start, int direction) = 0;
    virtual bool failed() const = 0;  ///< the last call failed, for certain
    virtual std::string error() const = 0;
};

/// A subject, an engine and one stream of sound after another. One thread at a time; the library's
/// text of a failure is thrown as std::runtime_error.
class SpeechWalk {
  public:
    explicit SpeechWalk(const Settings& settings);

    int width() const { return zorv_width(ctx_.get()); }
    int height() const { return zorv_height(ctx_.get()); }
    int lookAhead() const { return engine_->lookAhead(); }

    /// Starts a new stream of sound; what was pushed and not shown is dropped. The body goes on
    /// from the frame that it has reached, or from the bundle's first one.
    void start(bool fromTheFirstFrame);
    void push(const float* samples, int count);
    void finish();
    /// Takes the next frame; false when it cannot be known yet.
    bool next();
    /// Number of the frame taken last, from 0 with every start().
    std::uint64_t frame() const { return taken_ - 1; }
    /// Samples pushed since start().
    std::uint64_t samples() const { return pushed_; }
    /// Renders the frame taken last.
    void render(const Planes& planes);

  private:
    struct Destroy {
        void operator()(zorv_ctx* ctx) const { zorv_destroy(ctx); }
    };
    bool pull();
    void resetEngine();

    std::unique_ptr<zorv_ctx, Destroy> ctx_;
    std::unique_ptr<KeypointEngine> engine_;
    /// Sound of the frames that were not taken yet; an engine that is started anew hears it again.
    std::vector<float> untaken_;
    std::size_t patience_ = 0;  ///< with more untaken samples the engine has failed
    std::uint64_t pushed_ = 0, taken_ = 0;
    bool finished_ = false;
    int index_ = -1, direction_ = 1;  ///< of the walk to and fro, after the frame taken last
    float source_[63] = {}, driving_[63] = {};
};

}  // namespace zorv::gst
