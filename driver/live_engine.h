// An utterance engine on a bundle, opened and ready to speak.
#pragma once

#include <zorv_core.hpp>

#include <cstddef>
#include <functional>
#include <string>

namespace zorv::driver {

struct LiveSetup {
    std::string bundle, motionDir;
    int threads = 1;
    int eager = 0;       // as zorv_utt_opts has it
    std::string steady;  // the same; "": the default
    /// Called every few milliseconds while a session runs or is waited for, from any of its
    /// threads: what it throws ends the session.
    std::function<void()> check = [] {};
};

class LiveEngine {
  public:
    /// Returns when the engine can speak; fails when it cannot.
    explicit LiveEngine(const LiveSetup& setup);

    zorv_utt* utt() const { return utt_.get(); }
    int targetFrames() const { return zorv_nt(ctx_.get()); }
    int width() const { return zorv_width(ctx_.get()); }
    int height() const { return zorv_height(ctx_.get()); }
    size_t frameBytes() const;  // R G B 255
    /// From the first call until the engine was ready.
    double readySeconds() const { return readySeconds_; }
    void check() const { check_(); }

  private:
    ContextPtr ctx_;
    UtterancePtr utt_;  // goes before its context
    std::function<void()> check_;
    double readySeconds_ = 0;
};

}  // namespace zorv::driver
