// The thread that drives the motion source.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "audio/speech_resampler.h"
#include "common/error.h"
#include "common/mutex.h"
#include "utt/motion_source.h"

namespace zorv {

/// One exchange with the motion source; its steps are taken in the order of the members.
struct MotionRequest {
    MotionSource* source = nullptr;
    std::uint64_t generation = 0;  ///< of interrupts
    std::uint64_t utterance = 0;   ///< results of another one are thrown away
    bool reset = false;
    int startFrame = 0;
    int rate = kSampleRate;  ///< of the samples, in Hz
    std::vector<std::int16_t> samples;
    bool finish = false;
    bool drains = false;  ///< sent after the request that carried `finish`
    int maxFrames = 0;    ///< at most MotionFrames::kMax
};

struct MotionResult {
    std::uint64_t generation = 0;
    std::uint64_t utterance = 0;
    bool drains = false;
    MotionFrames frames;
    int available = 0;  ///< frames that the source had ready
    int left = 0;       ///< of those, not taken
    int lookAhead = 0;  ///< samples, at the request's rate, that a frame waits for
    bool failed = false;
    bool counted = false;      ///< the source's own family has counted the failure
    bool streamEnded = false;  ///< the failure: the source can take no more of this stream
    FailureText error;
};

/// A source's look-ahead, given in samples of 16,000 Hz, in samples as they are pushed.
int lookAheadSamples(int speechSamples, int rate, int resamplerLookAhead);

/// Performs exchanges with a source, one after the other.
class MotionExchange {
  public:
    /// A failure shows in result.failed and result.error.
    void perform(const MotionRequest& request, MotionResult& result);

  private:
    bool steps(const MotionRequest& request, MotionResult& result);

    void hear(const MotionRequest& request);

    std::unique_ptr<SpeechResampler> resampler_;  ///< made for the first request
    std::vector<float> heard_;                    ///< what the source hears of a request
};

/// Hands one request at a time to a thread of its own, so that models which need longer than a
/// frame never hold up rendering.
///
///     run loop                 dispatch thread
///     post -> [request] ->     exchange
///     collect <- [result] <-   onDone()
class MotionDispatch {
  public:
    explicit MotionDispatch(std::function<void()> onDone) : onDone_(std::move(onDone)) {}

    // For the run loop:

    /// A request was posted and its result not collected.
    bool busy() const { return busy_; }
    /// REQUIRES: !busy(). Swaps the request's buffers for used ones.
    void post(MotionRequest& request);
    /// True when the result has come; it is swapped into `result`.
    bool collect(MotionResult& result);

    /// The thread's body: serves requests until stop().
    void run();
    void stop();

  private:
    bool busy_ = false;  // the run loop's own

    const std::function<void()> onDone_;
    MotionExchange exchange_;  // the dispatch thread's own
    Mutex mutex_;
    CondVar wake_;
    bool stopping_ ZORV_GUARDED_BY(mutex_) = false;
    bool posted_ ZORV_GUARDED_BY(mutex_) = false;
    bool done_ ZORV_GUARDED_BY(mutex_) = false;
    // Belong to the dispatch thread from posted_ to done_, to the run loop else.
    MotionRequest request_;
    MotionResult result_;
};

}  // namespace zorv
