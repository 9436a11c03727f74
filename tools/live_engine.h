// An utterance engine on a bundle, opened and ready to speak.
#pragma once

#include <zorv_core.h>

#include <cstddef>
#include <memory>
#include <string>

namespace zorv::tools {

struct LiveSetup {
    std::string bundle, motionDir;
    int threads = 1;
    int eager = 0;       // as zorv_utt_opts has it
    std::string steady;  // the same; "": the default
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

  private:
    struct Destroy {
        void operator()(zorv_ctx* ctx) const { zorv_destroy(ctx); }
        void operator()(zorv_utt* utt) const { zorv_utt_destroy(utt); }
    };
    std::unique_ptr<zorv_ctx, Destroy> ctx_;
    std::unique_ptr<zorv_utt, Destroy> utt_;  // goes before its context
    double readySeconds_ = 0;
};

}  // namespace zorv::tools
