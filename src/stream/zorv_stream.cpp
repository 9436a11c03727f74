#include "stream/zorv_stream.h"

#include <algorithm>
#include <cstdint>
#include <thread>

#include "capi/zorv_ctx.h"
#include "common/thread.h"
#include "stream/delta_math.h"
#include "stream/target_walk.h"

namespace zorv {
namespace {

/// The walk at the first frame that is delivered.
TargetWalk walkFrom(const zorv_stream& stream) {
    TargetWalk walk(stream.NT);
    for (int k = 0; k < stream.skipFrames; ++k) walk.advance();
    return walk;
}

/// Ends and joins the worker on every way out, an exception of the host's callback included.
class WorkerGuard {
  public:
    WorkerGuard(std::thread worker, CropRing& ring) : worker_(std::move(worker)), ring_(ring) {}
    ~WorkerGuard() {
        ring_.cancel();
        worker_.join();
    }
    WorkerGuard(const WorkerGuard&) = delete;
    WorkerGuard& operator=(const WorkerGuard&) = delete;

  private:
    std::thread worker_;
    CropRing& ring_;
};

}  // namespace

StreamRun::StreamRun(const zorv_stream& stream, const float* offsets, int frames)
    : stream_(stream), offsets_(offsets), frames_(frames), ring_(cropFloats(stream.crop)) {}

bool StreamRun::deliver(zorv_frame_callback callback, void* user) {
    preload();
    {
        const WorkerGuard worker(startThread([this] { render(); }), ring_);
        pasteFrames(callback, user);
    }
    if (*renderError_.get()) ContextError::repeat(renderError_.get());
    return !failed_;
}

void StreamRun::preload() const {
    // The walk repeats after 2 NT - 2 frames.
    const std::int64_t distinct =
        std::min<std::int64_t>(frames_ - stream_.skipFrames, std::int64_t{2} * stream_.NT);
    TargetWalk walk = walkFrom(stream_);
    for (std::int64_t i = 0; i < distinct && !stream_.cancelled; ++i, walk.advance()) {
        try {
            if (walk.current() < stream_.NT) stream_.ctx->target(walk.current());
        } catch (const std::exception&) {  // the frame's paste reports it
        }
    }
}

void StreamRun::render() noexcept {
    try {
        renderFrames();
    } catch (const std::exception& error) {
        ContextError::set("zorv_stream_run", error);
        failed_ = true;
    }
    renderError_.set({zorv_last_error()});
    ring_.finish();
}

void StreamRun::renderFrames() {
    const std::vector<float> noBase(kKeypointFloats);
    std::vector<float> driving(kKeypointFloats);
    TargetWalk walk = walkFrom(stream_);
    for (int k = stream_.skipFrames; k < frames_ && !stream_.cancelled; ++k, walk.advance()) {
        const int frame = walk.current();
        // Index 1 of a bundle of one frame has no base row; the context rejects it.
        const float* base = frame < stream_.NT ? stream_.xsTarget.data() +
                                                     kKeypointFloats * static_cast<unsigned>(frame)
                                               : noBase.data();
        driveKeypoints(base, offsets_ + kKeypointFloats * static_cast<unsigned>(k),
                       stream_.deltaGain, kKeypointFloats, driving.data());
        const float* crop = zorv_render_kp_crop(stream_.ctx.get(), frame, base, driving.data());
        if (!crop) {
            failed_ = true;
            return;
        }
        // The renderer's buffer is overwritten by its next render, hence the copy.
        float* slot = ring_.acquire();
        if (!slot) return;
        std::copy_n(crop, cropFloats(stream_.crop), slot);
        ring_.publish();
    }
}

void StreamRun::pasteFrames(zorv_frame_callback callback, void* user) {
    std::vector<std::uint8_t> frame(std::size_t{3} * static_cast<unsigned>(stream_.W) *
                                    static_cast<unsigned>(stream_.H));
    TargetWalk walk = walkFrom(stream_);
    int index = 0;
    while (const float* crop = ring_.front()) {
        if (stream_.cancelled) return;
        if (!zorv_paste_crop(stream_.ctx.get(), walk.current(), crop, frame.data(), frame.size())) {
            failed_ = true;
            return;
        }
        ring_.release();
        if (callback) callback(user, index, frame.data(), stream_.W, stream_.H);
        walk.advance();
        ++index;
    }
}

}  // namespace zorv
