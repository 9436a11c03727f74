// One inference session that turns keypoints into face crops.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "bundle/zorv_bundle.h"

namespace zorv {

/// Built once per bundle and model variant, then called for many frames; used by one thread at
/// a time. Buffers are bound to the session once: a render fills them and runs.
class Renderer {
  public:
    /// Loads manifest.modelPath(modelKey). `identity` must outlive the renderer. `threads` is the
    /// runtime's intra-op thread count. Throws with a one-line text.
    Renderer(const Manifest& manifest, const Identity& identity, const std::string& modelKey,
             int threads, const std::string& ep);
    ~Renderer();
    Renderer(const Renderer&) = delete;
    Renderer& operator=(const Renderer&) = delete;

    /// Renders n items, 1 <= n <= batch(). frameIdx: n target-frame indices (not checked).
    /// kpSource, kpDriving: n keypoint sets of 63 floats. Returns batch() items of
    /// 3 x crop x crop floats, the first n in input order and the rest repeats of the last;
    /// stable until the next render.
    const float* render(const std::int32_t* frameIdx, const float* kpSource, const float* kpDriving,
                        std::int32_t n);

    /// Ends a render that runs on another thread: it throws soon, and so does every later one
    /// until rearm(). Any thread; neither may overlap the other.
    void stop();
    void rearm();

    /// The fixed batch size of the model.
    std::int32_t batch() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace zorv
