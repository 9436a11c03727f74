// An utterance engine on a bundle, opened and ready to speak.
#pragma once

#include <zorv_core.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zorv::driver {

struct LiveSetup {
    std::string bundle, motionDir;
    int threads = 1;
    int eager = 0;       // as zorv_utt_opts has it
    std::string steady;  // the same; "": the default
    int rate = 16000;    // of the sound that is pushed
    int pixels = ZORV_PIXELS_RGBA;
    int idleAhead = 8;
    int late = ZORV_LATE_WAIT;
    /// Called every few milliseconds while a session runs or is waited for, from any of its
    /// threads: what it throws ends the session.
    std::function<void()> check = [] {};
};

/// Whether the directory is the expression engine's.
bool isExpressionDir(const std::string& motionDir);

class LiveEngine {
  public:
    /// Returns when the engine can speak; fails when it cannot.
    explicit LiveEngine(const LiveSetup& setup);

    zorv_utt* utt() const { return utt_.get(); }
    int targetFrames() const { return zorv_nt(ctx_.get()); }
    int width() const { return zorv_width(ctx_.get()); }
    int height() const { return zorv_height(ctx_.get()); }
    int rate() const { return rate_; }
    int pixels() const { return pixels_; }
    int frameSamples() const { return rate_ / 25; }
    /// Of a frame in the form that was asked for, its planes one after the other without gaps.
    size_t frameBytes() const;
    /// Pulls a frame into `buffer`, frameBytes() long, and its sound into `sound`, frameSamples()
    /// long. False when there is none; fails when the engine says so.
    bool pull(std::vector<uint8_t>& buffer, std::vector<int16_t>& sound,
              zorv_utt_frame& frame) const;
    /// From the first call until the engine was ready.
    double readySeconds() const { return readySeconds_; }
    void check() const { check_(); }

  private:
    ContextPtr ctx_;
    UtterancePtr utt_;  // goes before its context
    std::function<void()> check_;
    int rate_, pixels_;
    double readySeconds_ = 0;
};

}  // namespace zorv::driver
