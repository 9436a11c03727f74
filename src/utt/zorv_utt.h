// The utterance engine behind the zorv_utt handle.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "capi/zorv_ctx.h"
#include "utt/engine_state.h"
#include "utt/frame_compositor.h"
#include "utt/motion_dispatch.h"
#include "utt/run_loop.h"
#include "utt/utt_options.h"

namespace zorv {

/// What an engine takes from outside; tests hand in their own.
struct UttSurroundings {
    Clock* clock = nullptr;  ///< null: the steady clock; must outlive the engine
    std::function<std::unique_ptr<MotionSource>(const UttOptions&)> openSource = openMotionSource;
    std::function<void(int frames)> onRender;  ///< null, or called after each run of a renderer
};

}  // namespace zorv

/// Owns the threads and what they share. The constructor returns with all threads running, the
/// destructor with all of them ended. Members of this class are called by the host's threads.
struct zorv_utt {
  public:
    /// `ctx` must outlive the engine. Throws with a one-line text.
    zorv_utt(zorv_ctx& ctx, const zorv_utt_opts& opts,
             const zorv::UttSurroundings& surroundings = {});
    ~zorv_utt();
    zorv_utt(const zorv_utt&) = delete;
    zorv_utt& operator=(const zorv_utt&) = delete;

    /// 1, 0 or -1; `text` receives the reason for -1.
    int ready(zorv::FailureText& text);
    // Settings; each throws when it is out of range or comes too late.
    void setInput(int rate);
    void setPixels(int pixels);
    void setMatrix(int matrix);
    void setIdleAhead(int frames);
    void setLate(int policy);

    /// The utterance's number; 0 for n = 0 and, with the reason in `fatal`, when the engine cannot
    /// speak.
    std::uint64_t push(const std::int16_t* pcm, std::size_t n, zorv::FailureText& fatal);
    void endUtterance();
    void interrupt();
    int available();

    enum class Pull { kDone, kNothing, kTooSmall };
    Pull pull(std::uint8_t* buffer, std::size_t capacity, zorv_utt_frame_info* info);

    /// True with the oldest frame; false when there is none. Throws when `frame` cannot take it.
    bool pull(zorv_utt_frame& frame);
    bool nextEvent(zorv_utt_event& event);
    /// See zorv_utt_wait; -1 with the reason in `fatal`.
    int wait(int mask, int timeoutMs, zorv::FailureText& fatal);
    int descriptor(int mask);
    void latency(zorv_utt_latency_info& info);

    zorv_utt_stats stats();
    std::uint64_t failure(char* text, std::size_t capacity);

    /// Nothing is under way and nothing due: for tests, which then move the clock.
    bool atRest();

  private:
    void start();
    void stop();
    void warm() noexcept;
    void warmUp();
    void cannotSpeak(const char* text, bool counted);

    void refuseSettled() ZORV_REQUIRES(state_.mutex);
    void restart(int kept) ZORV_REQUIRES(state_.mutex);
    bool refusesSpeech(zorv::FailureText& fatal) ZORV_REQUIRES(state_.mutex);
    bool take(const zorv::FrameView& to, zorv::PixelForm form, zorv_utt_frame& frame)
        ZORV_REQUIRES(pullMutex_);
    void describe(zorv_utt_frame& frame, zorv::UtteranceBook::Freed& freed)
        ZORV_REQUIRES(state_.mutex);

    zorv_ctx& ctx_;
    const zorv::UttOptions options_;
    const std::vector<float> rows_;  ///< NT x 63 keypoints of the bundle frames, or empty
    const std::function<std::unique_ptr<zorv::MotionSource>(const zorv::UttOptions&)> openSource_;
    zorv::SteadyClock steadyClock_;

    zorv::EngineState state_;
    int lookAhead_ ZORV_GUARDED_BY(state_.mutex) = 0;   ///< of the source, in samples of 16,000 Hz
    int resampling_ ZORV_GUARDED_BY(state_.mutex) = 0;  ///< the resampler's, in samples as pushed
    zorv::FrameCompositor compositor_;
    zorv::MotionDispatch dispatch_;
    zorv::RunLoop loop_;

    /// Pulls take turns.
    zorv::Mutex pullMutex_ ZORV_ACQUIRED_BEFORE(state_.mutex);
    zorv::Pixels reading_ ZORV_GUARDED_BY(pullMutex_);  ///< the frame being copied to the host

    std::thread runThread_;
    std::thread warmThread_;
    std::thread dispatchThread_;
    std::thread pasteThread_;
};
