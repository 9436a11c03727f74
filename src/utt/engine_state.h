// What the threads of one utterance engine share. docs/threading.md tells who waits for whom.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "common/error.h"
#include "common/mutex.h"
#include "common/units.h"
#include "paste/frame_view.h"
#include "render/zorv_renderer.h"
#include "telemetry/telemetry.h"
#include "utt/clock.h"
#include "utt/frame_ring.h"
#include "utt/late_slots.h"
#include "utt/motion_source.h"
#include "utt/utterance_book.h"
#include "utt/wake_up.h"
#include "zorv_core.h"

namespace zorv {

enum class UttState : int {
    kIdle = 0,      ///< the bundle's own frames
    kStarted = 1,   ///< audio has arrived, its first speech frame has not
    kSpeaking = 2,  ///< speech frames are shown
    kRamping = 3,   ///< the lips return to rest
};

/// How far the warm-up thread has come.
enum class Warmth { kWarming, kReady, kFailed };

/// What a host may ask for before it pushes and pulls.
struct UttSettings {
    int rate = kSampleRate;  ///< of pushed sound, in Hz
    PixelForm form = PixelForm::kRgba;
    int matrix = ZORV_MATRIX_AUTO;
    int idleAhead = static_cast<int>(FrameRing::kSlots);  ///< idle and ramp frames made ahead
    bool skipsLate = false;
};

/// Every member is guarded by `mutex` but the generation, which is written with it held and read
/// anywhere. Whoever changes something that another thread may wait for calls changed().
struct EngineState {
    explicit EngineState(Clock& engineClock) : clock(engineClock) {}

    /// Wakes all who wait for the state to change.
    void changed() ZORV_REQUIRES(mutex) {
        ++changes;
        restsUntilMs = -Clock::kNever;
        wake.notifyAll();
        tellHost();
    }
    /// The part of changed() that tells the host: the run loop need not wake itself.
    void tellHost() ZORV_REQUIRES(mutex) {
        wakeUp.set(ready());
        if (hostWaits > 0) hostWake.notifyAll();
    }

    /// What the host can have now, as bits of a mask.
    int ready() const ZORV_REQUIRES(mutex) {
        return (ring.size() > 0 ? kFrameReady : 0) | (book.events.empty() ? 0 : kEventReady);
    }
    /// What the host may have later, as bits of a mask.
    int possible() const ZORV_REQUIRES(mutex) {
        const bool frames = !blind || composing > 0;
        const bool events = warmth != Warmth::kFailed || !book.empty();
        return (frames ? kFrameReady : 0) | (events ? kEventReady : 0) | ready();
    }

    /// Counts the slots that have become late. Called before every change of what it reads.
    void passSlots() ZORV_REQUIRES(mutex) {
        late.pass(clock.nowMs(), ring.size() > 0, book.hasNextFrame(spokenTo, lookAhead));
    }

    void announce() ZORV_EXCLUDES(mutex) {
        const MutexLock lock(mutex);
        changed();
    }

    /// Frames that the host has not got yet: in the ring, queued for compositing, or in the
    /// compositing thread's hands.
    int waiting() const ZORV_REQUIRES(mutex) { return ring.size() + composing; }
    /// Those that are not speech.
    int waitingOthers() const ZORV_REQUIRES(mutex) { return ring.others() + composingOthers; }

    /// Keeps the text of a failure for the host. `counted`: telemetry has counted it already.
    void noteFailure(const char* text, bool counted = false) ZORV_REQUIRES(mutex) {
        failureText.set(text);
        ++failures;
        if (!counted) telemetry::failure(text);
    }

    /// The engine cannot speak any more: ready() tells the host why.
    void noteFatal(const char* text, bool counted) ZORV_REQUIRES(mutex) {
        warmth = Warmth::kFailed;
        fatalText.set(text);
        if (!counted) telemetry::failure(text);
    }

    /// Installs the renderer that is about to run, so that an interrupt can end the run. False,
    /// with nothing installed, when an interrupt or the end has come already.
    bool beginRender(Renderer& renderer, std::uint64_t expected) ZORV_EXCLUDES(mutex) {
        const MutexLock lock(mutex);
        if (stopping || generation != expected) return false;
        running = &renderer;
        return true;
    }
    /// Takes a stop back: the renderer may run for the host or the next engine.
    void endRender() ZORV_EXCLUDES(mutex) {
        const MutexLock lock(mutex);
        running->rearm();
        running = nullptr;
    }
    void stopRender() ZORV_REQUIRES(mutex) {
        if (running) running->stop();
    }

    Clock& clock;

    Mutex mutex;
    CondVar wake;
    std::uint64_t changes ZORV_GUARDED_BY(mutex) = 0;
    /// Until this time nothing happens unless something changes.
    double restsUntilMs ZORV_GUARDED_BY(mutex) = -Clock::kNever;

    bool stopping ZORV_GUARDED_BY(mutex) = false;
    std::atomic<std::uint64_t> generation{0};  ///< counts interrupts

    UttSettings settings ZORV_GUARDED_BY(mutex);
    bool settled ZORV_GUARDED_BY(mutex) = false;  ///< a push or pull has come: settings are refused

    UtteranceBook book ZORV_GUARDED_BY(mutex);
    FrameRing ring ZORV_GUARDED_BY(mutex);
    int composing ZORV_GUARDED_BY(mutex) = 0;
    int composingOthers ZORV_GUARDED_BY(mutex) = 0;

    WakeUp wakeUp ZORV_GUARDED_BY(mutex);
    CondVar hostWake;  ///< for host threads in wait(), and for the one that waits for them to leave
    int hostWaits ZORV_GUARDED_BY(mutex) = 0;

    LateSlots late ZORV_GUARDED_BY(mutex);
    std::uint64_t spokenTo ZORV_GUARDED_BY(mutex) =
        0;                                     ///< utterance of the last speech frame pulled
    int lookAhead ZORV_GUARDED_BY(mutex) = 0;  ///< of the motion source, in samples as pushed
    std::int64_t framesPulled ZORV_GUARDED_BY(mutex) = 0;
    std::uint64_t leftOutLate ZORV_GUARDED_BY(mutex) = 0;
    std::uint64_t leftOutFailed ZORV_GUARDED_BY(mutex) = 0;

    Warmth warmth ZORV_GUARDED_BY(mutex) = Warmth::kWarming;
    FailureText fatalText ZORV_GUARDED_BY(mutex);  ///< why warmth is kFailed
    /// Not one frame of the bundle can be decoded: there is nothing to idle with.
    bool blind ZORV_GUARDED_BY(mutex) = false;
    /// An idle frame found no memory: no other is tried before this time.
    double idleAgainMs ZORV_GUARDED_BY(mutex) = 0;
    // Installed once, before warmth becomes kReady, and kept until the threads are gone.
    std::unique_ptr<MotionSource> source ZORV_GUARDED_BY(mutex);
    std::unique_ptr<Renderer> steady ZORV_GUARDED_BY(mutex);
    Renderer* running ZORV_GUARDED_BY(mutex) = nullptr;

    zorv_utt_stats stats ZORV_GUARDED_BY(mutex) = {};
    std::uint64_t failures ZORV_GUARDED_BY(mutex) = 0;
    FailureText failureText ZORV_GUARDED_BY(mutex);  ///< of the latest failure
    /// The latest utterance of which a speech frame could not be composited; 0 for none.
    std::uint64_t brokenUtterance ZORV_GUARDED_BY(mutex) = 0;
};

}  // namespace zorv
