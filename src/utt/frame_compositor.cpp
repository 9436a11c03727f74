#include "utt/frame_compositor.h"

#include <algorithm>
#include <exception>
#include <new>
#include <utility>

#include "capi/frame_arguments.h"
#include "telemetry/telemetry.h"

namespace zorv {
namespace {

/// Pause after an idle frame that found no memory.
constexpr double kRetryMs = 10;

}  // namespace

FrameCompositor::FrameCompositor(zorv_ctx& ctx, EngineState& state, bool pipelined)
    : ctx_(ctx),
      state_(state),
      pipelined_(pipelined),
      cropFloats_(cropFloats(ctx.manifest.crop)),
      undecodable_(static_cast<std::size_t>(ctx.manifest.NT)) {
    spareCrops_.reserve(FrameRing::kSlots);  // giving a crop back cannot fail
}

void FrameCompositor::enqueue(const float* crop, FrameJob&& job) {
    if (pipelined_) {
        enqueuePipe(crop, std::move(job));
        return;
    }
    {
        const MutexLock lock(state_.mutex);
        begin(job);
    }
    process(crop, job);
}

/// From here on the frame waits, until it is published or dropped.
void FrameCompositor::begin(const FrameJob& job) {
    ++state_.composing;
    if (job.info.kind != FrameKind::kSpeech) {
        ++state_.composingOthers;
    } else {
        state_.book.frameMade(job.info.utterance, job.info.number);
    }
}

void FrameCompositor::enqueuePipe(const float* crop, FrameJob&& job) {
    QueuedJob queued;
    queued.hasCrop = crop != nullptr;
    if (crop) {
        {
            const MutexLock lock(queueMutex_);
            if (!spareCrops_.empty()) {
                queued.crop = std::move(spareCrops_.back());
                spareCrops_.pop_back();
            }
        }
        queued.crop.assign(crop, crop + cropFloats_);
    }
    const MutexLock engine(state_.mutex);
    if (state_.stopping || !current(job)) return;
    const MutexLock lock(queueMutex_);
    queued.job = std::move(job);
    queue_.push_back(std::move(queued));
    begin(queue_.back().job);
    queueWake_.notifyAll();
}

void FrameCompositor::run() {
    for (;;) {
        QueuedJob next;
        {
            const MutexLock lock(queueMutex_);
            while (!stopping_ && queue_.empty()) queueWake_.wait(queueMutex_);
            if (stopping_) return;
            next = std::move(queue_.front());
            queue_.pop_front();
        }
        process(next.hasCrop ? next.crop.data() : nullptr, next.job);
        if (next.hasCrop) {
            const MutexLock lock(queueMutex_);
            if (spareCrops_.size() < FrameRing::kSlots) {
                spareCrops_.push_back(std::move(next.crop));
            }
        }
    }
}

void FrameCompositor::stop() {
    const MutexLock lock(queueMutex_);
    stopping_ = true;
    queueWake_.notifyAll();
}

void FrameCompositor::dropQueued(EngineState& state) {
    const MutexLock lock(queueMutex_);
    state.composing -= static_cast<int>(queue_.size());
    for (QueuedJob& queued : queue_) {
        state.composingOthers -= queued.job.info.kind != FrameKind::kSpeech;
        if (queued.hasCrop && spareCrops_.size() < FrameRing::kSlots) {
            spareCrops_.push_back(std::move(queued.crop));
        }
    }
    queue_.clear();
}

/// Composites one frame and publishes or drops it. The engine's lock is held for publishing only.
void FrameCompositor::process(const float* crop, FrameJob& job) noexcept {
    bool composed = false;
    bool memoryOut = false;
    FailureText failure;
    if (current(job)) {
        try {
            compose(crop, job.info.index);
            composed = true;
        } catch (const std::bad_alloc& error) {
            failure.set(error.what());
            memoryOut = true;
        } catch (const std::exception& error) {
            failure.set(error.what());
        }
    }
    UtteranceBook::Freed freed;  // outlives the lock
    const MutexLock lock(state_.mutex);
    const bool speech = job.info.kind == FrameKind::kSpeech;
    const std::uint64_t utterance = job.info.utterance;
    --state_.composing;
    if (!speech) --state_.composingOthers;
    if (!failure.empty()) noteFailure(job, failure.get(), memoryOut);
    composed = composed && !state_.stopping && current(job);
    if (composed) {
        publish(job);
    } else if (speech) {
        state_.book.frameDropped(utterance, freed);
    }
    state_.changed();
}

void FrameCompositor::compose(const float* crop, int index) {
    UttSettings settings;
    {
        const MutexLock lock(state_.mutex);
        settings = state_.settings;
    }
    pixels_.resize(ctx_.frameBytes(settings.form));
    ctx_.compose(index, crop, settings.form, resolvedMatrix(settings.matrix, ctx_.manifest.H),
                 ctx_.packed(settings.form, pixels_.data()));
}

void FrameCompositor::publish(FrameJob& job) {
    state_.passSlots();
    if (job.info.kind == FrameKind::kIdle) undecodable_.assign(undecodable_.size(), false);
    if (job.info.kind == FrameKind::kSpeech && job.info.speechSequence == 0) {
        const double latencyMs = state_.clock.nowMs() - job.utteranceStartMs;
        ++state_.stats.utterances_started;
        state_.stats.first_frame_latency_ms = latencyMs;
        telemetry::count({"zorv.utterance.started", "{utterance}"});
        telemetry::duration({"zorv.utterance.first_frame.duration", "s"}, latencyMs / 1000);
    }
    state_.ring.put(pixels_, std::move(job.info));
}

void FrameCompositor::noteFailure(const FrameJob& job, const char* text, bool memoryOut) {
    if (!current(job)) return;
    state_.noteFailure(text);
    if (job.info.kind == FrameKind::kSpeech) {
        state_.brokenUtterance = job.info.utterance;
        ++state_.leftOutFailed;
    }
    if (job.info.kind != FrameKind::kIdle) return;
    if (memoryOut) {  // the frame itself may be good
        state_.idleAgainMs = state_.clock.nowMs() + kRetryMs;
        return;
    }
    undecodable_[static_cast<std::size_t>(job.info.index)] = true;
    if (std::find(undecodable_.begin(), undecodable_.end(), false) == undecodable_.end()) {
        // Not one frame of the bundle can be shown.
        state_.blind = true;
        state_.noteFatal(text, true);
    }
}

}  // namespace zorv
