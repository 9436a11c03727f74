// An utterance engine on the tiny bundle with a motion source that is a formula, a clock that the
// test moves, and a host that pulls.
//
//     UttPlayer player;
//     player.say(3, 0.5f);                 // three frames of speech at one level, and its end
//     const auto frames = player.pull(20);
#pragma once

#include <zorv_core.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/test_bundle.h"
#include "utt/zorv_utt.h"

namespace zorv::test {

/// Waits end after a millisecond, so moved time is seen at once.
class TestClock final : public Clock {
  public:
    double nowMs() override { return now_; }
    void wait(CondVar& wake, Mutex& mutex, double dueMs) override ZORV_REQUIRES(mutex);
    void advance(double ms) { now_ = now_ + ms; }
    /// Until the engine has looked at the time and at all that was done before, and waits again.
    void settle();

  private:
    std::atomic<std::uint64_t> waits_{0};
    std::atomic<double> now_{1000};
};

/// What a fake source does beside its formula; may be changed while it runs.
struct SourceScript {
    int nt = 0;                          ///< 0: the bundle's
    std::atomic<int> heldBack{0};        ///< frames kept until the end, as look-ahead
    std::atomic<float> gain{1};          ///< of the level
    std::atomic<bool> failAvail{false};  ///< once
    std::atomic<bool> hold{false};       ///< avail() blocks while set
    std::atomic<double> renderMs{0};     ///< of each frame, on the player's clock
    std::atomic<int> resets{0};
};

/// One frame per 640 samples: source = the bundle row, driving = the row + gain x the frame's
/// first sample, all values alike.
std::unique_ptr<MotionSource> makeFakeSource(const TestBundle& bundle, SourceScript& script);

struct PulledFrame {
    zorv_utt_frame_info info;
    std::vector<std::uint8_t> rgba;
};

struct UttPlayerOptions {
    int nt = 5;
    const char* steady = "-";  ///< key of the steady model: "-", "b4"
    const char* steadyModel = "render_b4";
    const char* render = "render";
    bool pipelined = false;
    bool withRows = true;
    bool withFrames = true;  ///< target frames that can be decoded
    double silenceS = -1;
    int sourceNt = 0;
    bool waitUntilReady = true;
    bool holdOpening = false;  ///< the source opens once script.hold is taken back
    std::string engineDir;     ///< not empty: a real motion source's directory, for nt frames
};

class UttPlayer {
  public:
    explicit UttPlayer(const UttPlayerOptions& options = {});
    ~UttPlayer();

    zorv_utt* utt() { return utt_.get(); }
    zorv_ctx& reference() { return reference_; }
    void destroy() { utt_.reset(); }
    std::size_t frameBytes() const { return bytes_; }

    /// Pushes `frames` x 640 samples of `level` (0 .. 1).
    void push(int frames, float level);
    /// The same, and the end of the utterance.
    void say(int frames, float level);

    /// Pulls n frames, waiting for each; fails the test when one does not come in time.
    std::vector<PulledFrame> pull(int n);
    /// Pulls until a frame of `kind` came, at most `limit` frames.
    std::vector<PulledFrame> pullUntil(int kind, int limit);
    /// Moves the clock, and waits until the engine has done what was due.
    void advance(double ms);
    /// Until `n` frames wait; fails the test when they do not come.
    void waitForFrames(int n);
    void settle() { clock.settle(); }

    /// What a frame shows when the keypoints are the row of `frame` plus `offset`.
    std::vector<std::uint8_t> picture(int frame, float offset);
    /// The bundle's own frame.
    std::vector<std::uint8_t> still(int frame);

    TestBundle bundle;
    TempDir motionDir;
    TestClock clock;
    SourceScript script;

  private:
    zorv_ctx context_;
    zorv_ctx reference_;
    std::size_t bytes_ = 0;
    std::atomic<double> renderedMs_{0};  ///< when the render under way ends; 0: there is none
    std::unique_ptr<zorv_utt> utt_;
};

/// The largest difference of two pictures in grey levels.
int difference(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b);

}  // namespace zorv::test
