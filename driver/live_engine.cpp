#include "live_engine.h"

#include <chrono>
#include <stdexcept>
#include <thread>

namespace zorv::driver {

LiveEngine::LiveEngine(const LiveSetup& setup) : check_(setup.check) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    ctx_.reset(zorv_create(setup.bundle.c_str(), "render", setup.threads, nullptr));
    if (!ctx_) {
        throw std::runtime_error("cannot open '" + setup.bundle + "': " + zorv_last_error() +
                                 "; prepare the subject again");
    }
    zorv_utt_opts opts = {};
    opts.motion_dir = setup.motionDir.c_str();
    opts.eager = setup.eager;
    opts.steady_model = setup.steady.c_str();
    utt_.reset(zorv_utt_create(ctx_.get(), &opts));
    int ready = utt_ ? 0 : -1;
    while (ready == 0) {
        ready = zorv_utt_ready(utt_.get());
        check_();
        if (ready == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (ready < 0) {
        throw std::runtime_error("cannot speak with '" + setup.bundle + "' and '" +
                                 setup.motionDir + "': " + zorv_utt_last_error() +
                                 "; check both directories");
    }
    readySeconds_ = std::chrono::duration<double>(Clock::now() - start).count();
}

size_t LiveEngine::frameBytes() const {
    return static_cast<size_t>(width()) * static_cast<size_t>(height()) * 4;
}

}  // namespace zorv::driver
