#include "live_engine.h"

#include <chrono>
#include <thread>

#include "failure.h"
#include "interrupt.h"

namespace zorv::tools {

LiveEngine::LiveEngine(const LiveSetup& setup) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    ctx_.reset(zorv_create(setup.bundle.c_str(), "render", setup.threads, nullptr));
    if (!ctx_) {
        fail("cannot open '{}': {}; prepare the subject again", setup.bundle, zorv_last_error());
    }
    zorv_utt_opts opts = {};
    opts.motion_dir = setup.motionDir.c_str();
    opts.eager = setup.eager;
    opts.steady_model = setup.steady.c_str();
    utt_.reset(zorv_utt_create(ctx_.get(), &opts));
    int ready = utt_ ? 0 : -1;
    while (ready == 0) {
        ready = zorv_utt_ready(utt_.get());
        throwIfInterrupted();
        if (ready == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (ready < 0) {
        fail("cannot speak with '{}' and '{}': {}; check both directories", setup.bundle,
             setup.motionDir, zorv_utt_last_error());
    }
    readySeconds_ = std::chrono::duration<double>(Clock::now() - start).count();
}

size_t LiveEngine::frameBytes() const {
    return static_cast<size_t>(width()) * static_cast<size_t>(height()) * 4;
}

}  // namespace zorv::tools
