// The batch stream: a whole clip of speech becomes finished frames of one bundle.
#pragma once

#include <zorv_core.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "common/error.h"
#include "stream/crop_ring.h"
#include "stream/zorv_fca.h"

namespace zorv {

struct CtxDeleter {
    void operator()(zorv_ctx* ctx) const { zorv_destroy(ctx); }
};
struct FcaDeleter {
    void operator()(zorv_fca* fca) const { zorv_fca_destroy(fca); }
};

}  // namespace zorv

/// One opened stream. A run keeps nothing here apart from the context's decoded target frames.
struct zorv_stream {
    std::atomic<bool> cancelled{false};  ///< set from any thread, taken back by the run it ends

    // The delta model is released before the context.
    std::unique_ptr<zorv_ctx, zorv::CtxDeleter> ctx;
    std::unique_ptr<zorv_fca, zorv::FcaDeleter> fca;
    std::vector<float> xsTarget;  ///< NT x 63: the target frames' own keypoints
    int NT = 0;
    int W = 0;
    int H = 0;
    int crop = 0;
    int skipFrames = 0;  ///< >= 0
    float deltaGain = 1;
};

namespace zorv {

/// Frames skipFrames .. frames-1 of one clip: a worker thread renders the crops, the calling
/// thread pastes and delivers them in order.
class StreamRun {
  public:
    /// offsets: frames x 63, of which the first stream.skipFrames are not used.
    StreamRun(const zorv_stream& stream, const float* offsets, int frames);

    /// Returns whether every frame was delivered. When a render fails, the frames before it still
    /// are, and the context's last error on the calling thread has the worker's text. The worker
    /// has been joined when this returns or throws.
    bool deliver(zorv_frame_callback callback, void* user);

  private:
    /// Decodes every target frame of the run, so that the worker never touches the cache.
    void preload() const;
    /// The worker: renders all crops into the ring.
    void render() noexcept;
    void renderFrames();
    void pasteFrames(zorv_frame_callback callback, void* user);

    // Constant during the run.
    const zorv_stream& stream_;
    const float* const offsets_;
    const int frames_;

    CropRing ring_;                    // synchronises itself
    std::atomic<bool> failed_{false};  // set by either thread
    ErrorText renderError_;            // the worker's until it has been joined
};

}  // namespace zorv
