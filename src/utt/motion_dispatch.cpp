#include "utt/motion_dispatch.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "telemetry/telemetry.h"

namespace zorv {
int lookAheadSamples(int speechSamples, int rate, int resamplerLookAhead) {
    const std::int64_t scaled =
        (std::int64_t{speechSamples} * rate + kSampleRate - 1) / kSampleRate;
    return static_cast<int>(scaled) + resamplerLookAhead;
}

/// The request's sound as the models hear it, with the rest of the utterance at its end.
void MotionExchange::hear(const MotionRequest& request) {
    heard_.clear();
    if (!resampler_) resampler_ = std::make_unique<SpeechResampler>(request.rate);
    if (request.reset) resampler_->reset();
    resampler_->push(request.samples.data(), request.samples.size(), heard_);
    if (request.finish) resampler_->finish(heard_);
}

/// Takes the steps in order; false as soon as one has left an error text.
bool MotionExchange::steps(const MotionRequest& request, MotionResult& result) {
    MotionSource& source = *request.source;
    const auto good = [&] {
        result.error.set(source.error());
        return result.error.empty();
    };
    source.clearError();
    if (request.reset) {
        source.reset(request.startFrame, 1, 1);  // forward, round and round
        if (!good()) return false;
    }
    hear(request);
    if (!heard_.empty()) {
        source.push(heard_.data(), static_cast<int>(heard_.size()));
        if (!good()) return false;
    }
    if (request.finish) {
        source.finish();
        if (!good()) return false;
    }
    result.available = source.avail();
    if (!good()) return false;
    const int wanted = std::min(request.maxFrames, result.available);
    if (wanted > 0) {
        MotionFrames& frames = result.frames;
        frames.count =
            source.pull(frames.index.data(), frames.source.data(), frames.driving.data(), wanted);
        if (!good()) return false;
    }
    result.left = result.available - result.frames.count;
    result.lookAhead = lookAheadSamples(source.lookAhead(), request.rate, resampler_->lookAhead());
    return true;
}

void MotionExchange::perform(const MotionRequest& request, MotionResult& result) {
    const telemetry::Stopwatch watch;
    result.generation = request.generation;
    result.utterance = request.utterance;
    result.drains = request.drains;
    result.frames.count = 0;
    result.available = 0;
    result.left = 0;
    result.lookAhead = 0;
    result.counted = false;
    result.streamEnded = false;
    result.error.clear();
    try {
        result.failed = !steps(request, result);
        result.counted = result.failed;
        result.streamEnded = result.failed && request.source->atStreamsEnd();
    } catch (const std::exception& error) {
        result.failed = true;
        result.error.set(error.what());
    } catch (...) {
        result.failed = true;
        result.error.set("motion source: unknown failure");
    }
    if (result.failed) result.frames.count = 0;
    watch.record({"zorv.motion.step.duration", "s"});
}

void MotionDispatch::post(MotionRequest& request) {
    const MutexLock lock(mutex_);
    std::swap(request_, request);
    busy_ = true;
    posted_ = true;
    done_ = false;
    wake_.notifyAll();
}

bool MotionDispatch::collect(MotionResult& result) {
    if (!busy_) return false;
    const MutexLock lock(mutex_);
    if (!done_) return false;
    std::swap(result_, result);
    busy_ = false;
    done_ = false;
    return true;
}

void MotionDispatch::run() {
    for (;;) {
        {
            const MutexLock lock(mutex_);
            while (!stopping_ && !posted_) wake_.wait(mutex_);
            if (stopping_) return;
            posted_ = false;
        }
        // Without the lock: request_ and result_ are this thread's until done_ is set.
        exchange_.perform(request_, result_);
        {
            const MutexLock lock(mutex_);
            done_ = true;
        }
        // Not under mutex_: it takes the engine's lock.
        onDone_();
    }
}

void MotionDispatch::stop() {
    const MutexLock lock(mutex_);
    stopping_ = true;
    wake_.notifyAll();
}

}  // namespace zorv
