// Crops and idle frames become finished frames in the ring.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "capi/zorv_ctx.h"
#include "common/mutex.h"
#include "utt/engine_state.h"

namespace zorv {

/// One frame to be composited. What it is drawn from is copied when it has to wait.
struct FrameJob {
    FrameInfo info;
    std::uint64_t generation = 0;  ///< of interrupts, when work on the frame began
    double utteranceStartMs = 0;   ///< for speech frames
};

/// Composites on the caller's thread, or (pipelined) on a thread of its own, one frame at a time
/// and in order. The only user of the context's compositor and target frames while the engine
/// lives. A frame is dropped when an interrupt has come since its work began.
class FrameCompositor {
  public:
    FrameCompositor(zorv_ctx& ctx, EngineState& state, bool pipelined);

    /// For the run loop. crop: 3 x crop x crop floats, or null for an idle frame; used during the
    /// call only. REQUIRES: fewer frames wait than the ring has slots.
    void enqueue(const float* crop, FrameJob&& job);

    /// The compositing thread's body: serves the queue until stop().
    void run();
    void stop();

    /// Empties the queue. `state` is the one that the compositor was made with.
    void dropQueued(EngineState& state) ZORV_REQUIRES(state.mutex);

  private:
    struct QueuedJob {
        FrameJob job;
        bool hasCrop = false;
        std::vector<float> crop;
    };

    void enqueuePipe(const float* crop, FrameJob&& job);
    void process(const float* crop, FrameJob& job) noexcept;
    bool current(const FrameJob& job) const { return state_.generation == job.generation; }
    void begin(const FrameJob& job) ZORV_REQUIRES(state_.mutex);
    void compose(const float* crop, int index);
    void publish(FrameJob& job) ZORV_REQUIRES(state_.mutex);
    void noteFailure(const FrameJob& job, const char* text, bool memoryOut)
        ZORV_REQUIRES(state_.mutex);

    zorv_ctx& ctx_;
    EngineState& state_;
    const bool pipelined_;
    const std::size_t cropFloats_;  ///< 3 x crop x crop

    // Of the thread that composites.
    Pixels pixels_;  ///< the finished frame, swapped into the ring

    /// Of each bundle frame: it has failed as an idle frame since an idle frame was last shown.
    std::vector<bool> undecodable_ ZORV_GUARDED_BY(state_.mutex);

    /// Taken after the engine's, never before it.
    Mutex queueMutex_;
    CondVar queueWake_;
    bool stopping_ ZORV_GUARDED_BY(queueMutex_) = false;
    std::deque<QueuedJob> queue_ ZORV_GUARDED_BY(queueMutex_);
    std::vector<std::vector<float>> spareCrops_ ZORV_GUARDED_BY(queueMutex_);
};

}  // namespace zorv
