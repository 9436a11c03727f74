// The thread that decides what the next frame shows.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

#include "capi/zorv_ctx.h"
#include "utt/engine_state.h"
#include "utt/frame_compositor.h"
#include "utt/keypoint_walk.h"
#include "utt/motion_dispatch.h"
#include "utt/utt_options.h"

namespace zorv {

/// Turns, one after the other: look at the shared state, take the steps that are due, and wait for
/// a change when none was. The loop is the only caller of both renderers once the warm-up is done,
/// and the only one that adds frames: it starts none while FrameRing::kSlots are waiting.
///
/// A turn goes by the interrupt generation that it saw at its top. Whatever takes input, starts
/// or ends an utterance compares it again under the engine's lock and does nothing when it is
/// out of date; the next turn then begins with the interrupt.
class RunLoop {
  public:
    /// `rows`: NT x 63 floats, the bundle frames' own keypoints, or empty.
    RunLoop(EngineState& state, zorv_ctx& ctx, const UttOptions& options,
            const std::vector<float>& rows, MotionDispatch& dispatch, FrameCompositor& compositor,
            std::function<void(int frames)> onRender);

    /// The thread's body: returns once the state is stopping.
    void run();

  private:
    /// The shared state at the top of a turn.
    struct View {
        bool stopping = false;
        std::uint64_t changes = 0;
        std::uint64_t generation = 0;
        int waiting = 0;
        bool blind = false;
        double idleAgainMs = 0;
        MotionSource* source = nullptr;  ///< null until the engine is ready
        Renderer* steady = nullptr;
        std::uint64_t brokenUtterance = 0;
        double nowMs = 0;
        int waitingOthers = 0;
        int idleAhead = 0;
        std::uint64_t input = 0;  ///< number of the utterance that is spoken or comes next; 0: none
        // Of that utterance:
        bool hasSamples = false;
        bool ended = false;
        double lastPushMs = 0;
    };

    /// What belongs to the utterance in progress, and nothing else.
    struct Utterance {
        bool inProgress = false;  ///< from its start to its end
        std::uint64_t number = 0;
        bool failed = false;  ///< given up; in progress until its end mark
        double startMs = 0;
        bool resetDue = false;    ///< the source has not been told
        bool finishSent = false;  ///< the source has all its audio
        bool drained = false;     ///< and has handed out all its frames
        bool cutShort = false;    ///< the source could not take all of its audio
        int available = 0;        ///< frames that the source had in the last exchange
        int left = 0;             ///< and of those did not hand out
        std::int64_t frames = 0;  ///< made or left out
        int sequence = 0;         ///< made
        bool rendered = false;    ///< at least one speech frame
        int shift = 0;            ///< other frames shown since the source was reset, modulo NT
        double lastSpeechMs = 0;  ///< when the last speech frame was produced
        double endSeenMs = -Clock::kNever;  ///< when its end mark was
    };

    /// Speech frames in input order; `next` is the first that is left.
    struct Pending {
        MotionFrames frames;
        int next = 0;

        int count() const { return frames.count - next; }
        void clear() { frames.count = next = 0; }
        void append(const MotionFrames& more);
    };

    /// Rendered speech frames that are not enqueued yet: crops of one renderer's last run.
    struct Rendered {
        const float* crops = nullptr;
        int count = 0;
        int next = 0;
        double renderMs = 0;  ///< per frame
        std::array<FrameInfo, MotionFrames::kMax> infos;

        bool empty() const { return next >= count; }
        void clear() { next = count = 0; }
    };

    void look();
    void waitForChange(double due);
    double dueMs() const;

    double silentAtMs() const;
    double stallsAtMs() const;

    bool turn();
    void afterInterrupt();
    void seeEnd();
    bool endBySilence();
    bool dropFailedInput();
    bool dropAll();
    bool collectResult();
    void endAtStreamsEnd();
    bool noticeFailure();
    bool startUtterance();
    bool postRequest();
    bool speak();
    bool endUtterance();
    bool endStall();
    bool ramp();
    bool idleDue() const;
    bool speechIsMade() const;
    bool idle();

    bool room() const { return view_.waiting < static_cast<int>(FrameRing::kSlots); }
    bool roomForOthers() const { return room() && view_.waitingOthers < view_.idleAhead; }
    enum class Lateness {
        kNone,
        kLate,
        kOwing
    };  ///< owing: too few frames were there to leave out
    Lateness catchUp();
    void renderSpeech(int n);
    void enqueueRendered();
    void enqueue(const float* crop, FrameInfo&& info, double renderMs);
    void enqueueOther(const float* crop, FrameKind kind, std::vector<float>&& driving);
    const float* render(Renderer& renderer, const std::int32_t* index, const float* source,
                        const float* driving, int n);
    void failUtterance(const char* text, bool counted = false);
    void noteFailure(const char* text, bool counted = false);
    void giveUp();
    void startRamp(int frames, std::uint64_t utterance, int index, const float* driving);
    void settle();
    void setState(UttState state);
    bool awaitsSpeech() const { return utterance_.inProgress && !utterance_.failed; }

    EngineState& state_;
    zorv_ctx& ctx_;
    const UttOptions& options_;
    const KeypointWalk walk_;
    const std::function<void(int frames)> onRender_;
    MotionDispatch& dispatch_;
    FrameCompositor& compositor_;

    // All below is this thread's own.
    View view_;
    std::uint64_t generation_ = 0;  ///< the last interrupt that was seen to
    Utterance utterance_;
    Pending pending_;
    Rendered rendered_;
    MotionRequest request_;
    MotionResult result_;

    UttState shown_ = UttState::kIdle;
    int idleIndex_ = 0;  ///< bundle frame of the next frame that is not speech
    int lastIndex_ = 0;  ///< of the last speech frame, with
    Keypoints lastDriving_{};
    std::int64_t skipped_ = 0;  ///< all speech frames left out for being late
    bool gap_ = false;          ///< a speech frame was left out behind the last frame
    std::uint64_t rampUtterance_ = 0;
    bool rampFirst_ = false;  ///< after an interrupt: one frame of the ramp comes before speech
    int rampLength_ = 0;
    int rampLeft_ = 0;
    Keypoints rampOffset_{};
};

}  // namespace zorv
