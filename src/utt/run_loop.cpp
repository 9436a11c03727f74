#include "utt/run_loop.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace zorv {
namespace {

/// After so long without a speech frame an utterance in progress shows rest.
constexpr double kStallMs = 600;

/// When the silence limit is due within this time, a pause waits for it: a line that ends by
/// silence closes the mouth once.
constexpr double kSilenceSoonMs = 100;

/// Pause after a turn that failed because memory ran out.
constexpr double kRetryMs = 10;

constexpr std::size_t at(int frame) {
    return static_cast<std::size_t>(frame) * kKeypointFloats;
}

}  // namespace

RunLoop::RunLoop(EngineState& state, zorv_ctx& ctx, const UttOptions& options,
                 const std::vector<float>& rows, MotionDispatch& dispatch,
                 FrameCompositor& compositor, std::function<void(int frames)> onRender)
    : state_(state),
      ctx_(ctx),
      options_(options),
      walk_(rows, ctx.manifest.NT),
      onRender_(std::move(onRender)),
      dispatch_(dispatch),
      compositor_(compositor) {}

void RunLoop::run() {
    for (;;) {
        look();
        if (view_.stopping) return;
        try {
            if (!turn()) waitForChange(dueMs());
        } catch (const std::exception& error) {
            failUtterance(error.what());
            waitForChange(view_.nowMs + kRetryMs);
        }
    }
}

void RunLoop::look() {
    const MutexLock lock(state_.mutex);
    view_.stopping = state_.stopping;
    view_.changes = state_.changes;
    view_.generation = state_.generation;
    view_.waiting = state_.waiting();
    view_.blind = state_.blind;
    view_.idleAgainMs = state_.idleAgainMs;
    view_.brokenUtterance = state_.brokenUtterance;
    view_.nowMs = state_.clock.nowMs();
    const bool ready = state_.warmth == Warmth::kReady;
    view_.source = ready ? state_.source.get() : nullptr;
    view_.steady = ready ? state_.steady.get() : nullptr;

    view_.waitingOthers = state_.waitingOthers();
    view_.idleAhead = state_.settings.idleAhead;
    const UtteranceBook::Utterance* input = state_.book.current();
    view_.input = input ? input->number : 0;
    view_.hasSamples = input && input->taken < input->sound.size();
    view_.ended = input && input->ended;
    view_.lastPushMs = state_.book.lastPushMs();
}

/// The only wait of this thread.
void RunLoop::waitForChange(double due) {
    const MutexLock lock(state_.mutex);
    const bool underWay = dispatch_.busy() || state_.composing > 0;
    if (state_.changes == view_.changes && !underWay) state_.restsUntilMs = due;
    while (!state_.stopping && state_.changes == view_.changes && state_.clock.nowMs() < due) {
        state_.clock.wait(state_.wake, state_.mutex, due);
    }
}

/// When silence will end the utterance in progress.
double RunLoop::silentAtMs() const {
    const bool open = utterance_.inProgress && !view_.ended && options_.silenceMs >= 0;
    return open ? view_.lastPushMs + options_.silenceMs : Clock::kNever;
}

/// When an utterance that is spoken has been without a speech frame for too long.
double RunLoop::stallsAtMs() const {
    if (shown_ != UttState::kSpeaking || !awaitsSpeech() || speechIsMade()) return Clock::kNever;
    const double stallMs = std::max(utterance_.lastSpeechMs, utterance_.endSeenMs) + kStallMs;
    const bool silenceSoon = silentAtMs() <= std::max(stallMs, view_.nowMs) + kSilenceSoonMs;
    return silenceSoon ? std::max(stallMs, silentAtMs()) : stallMs;
}

/// The next time at which something is due that no other thread announces.
double RunLoop::dueMs() const {
    const double stallMs = room() ? stallsAtMs() : Clock::kNever;
    const bool idleLater = view_.nowMs < view_.idleAgainMs && idleDue();
    const double soon = std::min(silentAtMs(), stallMs);
    return idleLater ? std::min(soon, view_.idleAgainMs) : soon;
}

/// Takes each step that is due; false when none was.
bool RunLoop::turn() {
    if (view_.generation != generation_) {
        afterInterrupt();
        return true;
    }
    seeEnd();
    if (endBySilence() || dropFailedInput() || dropAll()) return true;  // look at what is left
    bool moved = collectResult();
    moved |= noticeFailure();
    moved |= startUtterance();
    moved |= postRequest();
    moved |= speak();
    moved |= endUtterance();
    moved |= endStall();
    moved |= ramp();
    moved |= idle();
    return moved;
}

/// Goes on from the last frame that the host has: what came after it was dropped.
void RunLoop::afterInterrupt() {
    FrameInfo last;
    bool any = false;
    std::uint64_t generation = 0;
    {
        const MutexLock lock(state_.mutex);
        generation = state_.generation;
        if (const FrameInfo* newest = state_.ring.newest()) {
            last = *newest;
            any = true;
        }
    }
    generation_ = generation;
    utterance_ = {};
    pending_.clear();
    rendered_.clear();
    rampLeft_ = 0;
    rampFirst_ = false;
    gap_ = false;
    idleIndex_ = any ? walk_.after(last.index) : 0;
    if (any && last.kind != FrameKind::kIdle) {
        startRamp(options_.rampFramesInterrupt, last.utterance, last.index, last.driving.data());
        rampFirst_ = shown_ == UttState::kRamping;
    } else {
        setState(UttState::kIdle);
    }
}

void RunLoop::seeEnd() {
    const bool seen = utterance_.endSeenMs > -Clock::kNever;
    if (utterance_.inProgress && view_.ended && !seen) utterance_.endSeenMs = view_.nowMs;
}

bool RunLoop::endBySilence() {
    if (view_.nowMs < silentAtMs()) return false;
    const MutexLock lock(state_.mutex);
    if (state_.generation != generation_) return false;
    // A push may have come since the look.
    if (view_.nowMs >= state_.book.lastPushMs() + options_.silenceMs) {
        state_.passSlots();
        state_.book.end(ZORV_REASON_SILENCE);
    }
    return true;
}

/// An utterance that was given up is over at its end mark.
bool RunLoop::dropFailedInput() {
    if (!utterance_.failed || !view_.ended) return false;
    UtteranceBook::Freed freed;  // outlives the lock
    const MutexLock lock(state_.mutex);
    if (state_.generation != generation_) return false;
    state_.book.spoken(utterance_.number, utterance_.frames, freed);
    state_.tellHost();
    utterance_ = {};
    return true;
}

/// When no frame of the bundle can be shown, nothing is spoken, either.
bool RunLoop::dropAll() {
    if (!view_.blind || view_.input == 0) return false;
    UtteranceBook::Freed freed;  // outlives the lock
    {
        const MutexLock lock(state_.mutex);
        if (state_.generation != generation_) return false;
        state_.book.failAll(freed);
        state_.tellHost();
    }
    utterance_ = {};
    settle();
    return true;
}

bool RunLoop::collectResult() {
    if (!dispatch_.collect(result_)) return false;
    const bool outdated = result_.generation != generation_ ||
                          result_.utterance != utterance_.number || !awaitsSpeech();
    if (outdated) return true;
    if (result_.lookAhead > 0) {
        const MutexLock lock(state_.mutex);
        state_.lookAhead = result_.lookAhead;
    }
    if (result_.streamEnded) {
        endAtStreamsEnd();
        return true;
    }
    if (result_.failed) {
        failUtterance(result_.error.get(), result_.counted);
        return true;
    }
    pending_.append(result_.frames);
    utterance_.available = result_.available;
    utterance_.left = result_.left;
    utterance_.drained = result_.drains && result_.available == 0;
    return true;
}

/// The source can take no more of this utterance: what it gave is shown, what else was pushed so
/// far is dropped, and what is pushed later is the next utterance.
void RunLoop::endAtStreamsEnd() {
    noteFailure(result_.error.get(), result_.counted);
    const MutexLock lock(state_.mutex);
    if (state_.generation != generation_) return;
    state_.book.mark();
    utterance_.drained = utterance_.cutShort = true;
}

/// A speech frame of this utterance could not be composited.
bool RunLoop::noticeFailure() {
    if (!awaitsSpeech() || view_.brokenUtterance != utterance_.number) return false;
    giveUp();
    return true;
}

bool RunLoop::startUtterance() {
    if (utterance_.inProgress || view_.input == 0 || !view_.source) return false;
    double startMs = 0;
    {
        const MutexLock lock(state_.mutex);
        if (state_.generation != generation_) return false;
        startMs = state_.book.current()->startMs;
    }
    utterance_ = {};
    utterance_.inProgress = true;
    utterance_.number = view_.input;
    utterance_.resetDue = true;
    utterance_.startMs = startMs;
    pending_.clear();
    rendered_.clear();
    if (shown_ == UttState::kIdle) setState(UttState::kStarted);
    return true;
}

bool RunLoop::postRequest() {
    const int roomLeft = MotionFrames::kMax - pending_.count();
    // There is no source any more when no frame of the bundle can be shown.
    if (!awaitsSpeech() || !view_.source || dispatch_.busy() || roomLeft < 1) return false;
    if (utterance_.drained) return false;
    // A source that had frames may make more out of the audio that it has.
    const bool due = utterance_.resetDue || view_.hasSamples || utterance_.available > 0;
    if (!due && !view_.ended) return false;
    {
        const MutexLock lock(state_.mutex);
        if (state_.generation != generation_) return false;
        request_.samples.clear();
        request_.rate = state_.settings.rate;
        // A source that can fill the room with what it has needs no more audio yet.
        if (utterance_.left < roomLeft) {
            state_.book.take(static_cast<std::size_t>(request_.rate), request_.samples);
        }
        request_.drains = utterance_.finishSent;
        const UtteranceBook::Utterance& input = *state_.book.current();
        request_.finish =
            input.ended && input.taken == input.sound.size() && !utterance_.finishSent;
    }
    utterance_.finishSent |= request_.finish;
    request_.source = view_.source;
    request_.generation = generation_;
    request_.utterance = utterance_.number;
    request_.reset = utterance_.resetDue;
    request_.startFrame = idleIndex_;
    request_.maxFrames = roomLeft;
    if (utterance_.resetDue) utterance_.shift = 0;
    utterance_.resetDue = false;
    dispatch_.post(request_);
    return true;
}

/// Speech frames: enqueues what is rendered, else renders what is pending.
bool RunLoop::speak() {
    if (!room() || rampFirst_) return false;
    if (!rendered_.empty()) {
        enqueueRendered();
        return true;
    }
    if (pending_.count() == 0) return false;
    setState(UttState::kSpeaking);
    rampLeft_ = 0;
    const Lateness lateness = catchUp();
    const int pending = pending_.count();
    if (lateness == Lateness::kOwing && dispatch_.busy() && utterance_.left > 0) {
        return false;  // the exchange under way brings what is left out next, and wakes us
    }
    const bool batches = view_.steady && lateness == Lateness::kNone;
    const int batch = batches ? std::min(view_.steady->batch(), MotionFrames::kMax) : 0;
    if (pending < batch && dispatch_.busy() && pending + utterance_.left >= batch) {
        return false;  // the exchange under way will fill the batch, and wakes us
    }
    renderSpeech(pending >= batch ? std::max(batch, 1) : 1);
    return true;
}

/// With ZORV_LATE_SKIP: leaves out a pending frame for each slot that was missed, keeping one.
RunLoop::Lateness RunLoop::catchUp() {
    int skip = 0;
    Lateness lateness = Lateness::kNone;
    {
        const MutexLock lock(state_.mutex);
        if (!state_.settings.skipsLate || state_.generation != generation_) return lateness;
        state_.passSlots();
        skip = static_cast<int>(std::min<double>(state_.late.owed(), pending_.count() - 1));
        state_.late.leftOut(skip);
        if (state_.late.late()) lateness = Lateness::kLate;
        if (state_.late.owed() > 0) lateness = Lateness::kOwing;
        state_.leftOutLate += static_cast<std::uint64_t>(skip);
    }
    pending_.next += skip;
    utterance_.frames += skip;
    skipped_ += skip;
    gap_ |= skip > 0;
    return lateness;
}

/// Renders the first frames that are pending: together with the steady renderer when there are n
/// of them and it takes so many, else the first one alone with the context's.
void RunLoop::renderSpeech(int n) {
    const bool together = n > 1 && view_.steady && n <= view_.steady->batch();
    const int m = together ? std::min(n, pending_.count()) : 1;
    const auto first = static_cast<std::size_t>(pending_.next);
    std::int32_t* index = pending_.frames.index.data() + first;
    float* source = pending_.frames.source.data() + at(pending_.next);
    float* driving = pending_.frames.driving.data() + at(pending_.next);
    for (int k = 0; k < m; ++k) {
        // Frames shown meanwhile have moved the body on: the motion moves with it.
        walk_.shift(utterance_.shift, index[k], source + at(k), driving + at(k));
        FrameInfo& info = rendered_.infos[static_cast<std::size_t>(k)];
        info.kind = FrameKind::kSpeech;
        info.index = index[k];
        info.utterance = utterance_.number;
        info.number = utterance_.frames + k;
        info.driving.assign(driving + at(k), driving + at(k + 1));
    }
    pending_.next += m;
    utterance_.frames += m;
    rendered_.clear();
    const double begin = state_.clock.nowMs();
    try {
        Renderer& renderer = together ? *view_.steady : *ctx_.renderer;
        rendered_.crops = render(renderer, index, source, driving, m);
    } catch (const std::exception& error) {
        // A single frame is left out; a batch that fails ends the utterance.
        if (m == 1) {
            gap_ = true;
            const MutexLock lock(state_.mutex);
            state_.noteFailure(error.what());
            ++state_.leftOutFailed;
        } else {
            failUtterance(error.what());
        }
        return;
    }
    if (!rendered_.crops) return;
    rendered_.count = m;
    rendered_.renderMs = (state_.clock.nowMs() - begin) / m;
    enqueueRendered();
}

void RunLoop::enqueueRendered() {
    const auto slot = static_cast<std::size_t>(rendered_.next);
    const float* const crop = rendered_.crops + slot * cropFloats(ctx_.manifest.crop);
    FrameInfo& info = rendered_.infos[slot];
    info.speechSequence = utterance_.sequence;
    lastIndex_ = info.index;
    std::copy(info.driving.begin(), info.driving.end(), lastDriving_.begin());
    idleIndex_ = walk_.after(info.index);
    ++rendered_.next;
    ++utterance_.sequence;
    utterance_.rendered = true;
    enqueue(crop, std::move(info), rendered_.renderMs);
    utterance_.lastSpeechMs = state_.clock.nowMs();
}

void RunLoop::enqueue(const float* crop, FrameInfo&& info, double renderMs) {
    FrameJob job;
    job.info = std::move(info);
    job.info.skipped = skipped_;
    job.info.gap = std::exchange(gap_, false);
    job.generation = generation_;
    job.utteranceStartMs = utterance_.startMs;
    if (job.info.kind == FrameKind::kSpeech) {
        const MutexLock lock(state_.mutex);
        double& average = state_.stats.render_ms;
        average = average > 0 ? 0.9 * average + 0.1 * renderMs : renderMs;
    }
    ++view_.waiting;  // counts until the next look, even if it was dropped
    compositor_.enqueue(crop, std::move(job));
}

/// An idle or ramp frame of the next bundle frame.
void RunLoop::enqueueOther(const float* crop, FrameKind kind, std::vector<float>&& driving) {
    FrameInfo info;
    info.kind = kind;
    info.index = idleIndex_;
    info.driving = std::move(driving);
    if (kind == FrameKind::kRamp) info.utterance = rampUtterance_;
    idleIndex_ = walk_.after(idleIndex_);
    utterance_.shift = walk_.after(utterance_.shift);
    ++view_.waitingOthers;
    enqueue(crop, std::move(info), 0);
}

/// Null when an interrupt or the end came before or while it ran.
const float* RunLoop::render(Renderer& renderer, const std::int32_t* index, const float* source,
                             const float* driving, int n) {
    if (!state_.beginRender(renderer, generation_)) return nullptr;
    try {
        const float* crops = renderer.render(index, source, driving, n);
        if (onRender_) onRender_(n);
        state_.endRender();
        return crops;
    } catch (...) {
        state_.endRender();
        const MutexLock lock(state_.mutex);
        if (state_.stopping || state_.generation != generation_) return nullptr;
        throw;
    }
}

bool RunLoop::endUtterance() {
    if (!awaitsSpeech() || !utterance_.drained || speechIsMade()) return false;
    UtteranceBook::Freed freed;  // outlives the lock
    {
        const MutexLock lock(state_.mutex);
        if (state_.generation != generation_) return false;
        if (utterance_.cutShort) state_.book.fail(utterance_.number, freed);
        state_.book.spoken(utterance_.number, utterance_.frames, freed);
        state_.tellHost();
    }
    utterance_.inProgress = false;
    settle();
    return true;
}

/// Ends a pause: nothing was said for kStallMs, though the utterance has not ended.
bool RunLoop::endStall() {
    if (view_.nowMs < stallsAtMs()) return false;
    settle();
    return true;
}

bool RunLoop::ramp() {
    if (shown_ != UttState::kRamping || rampLeft_ < 1 || !roomForOthers()) return false;
    const float weight = static_cast<float>(rampLeft_ - 1) / static_cast<float>(rampLength_);
    --rampLeft_;  // a frame that fails counts as well
    rampFirst_ = false;
    try {
        const std::int32_t index = idleIndex_;
        const Keypoints driving = walk_.displaced(index, weight, rampOffset_);
        const float* crop = render(*ctx_.renderer, &index, walk_.row(index), driving.data(), 1);
        if (!crop) return true;
        enqueueOther(crop, FrameKind::kRamp, {driving.begin(), driving.end()});
    } catch (const std::exception& error) {
        noteFailure(error.what());
    }
    if (rampLeft_ == 0) setState(awaitsSpeech() ? UttState::kStarted : UttState::kIdle);
    return true;
}

/// Whether frames of the utterance in progress wait to be rendered or enqueued.
bool RunLoop::speechIsMade() const {
    return pending_.count() > 0 || !rendered_.empty();
}

/// Idle frames fill the ring; while speech is awaited they come one at a time, as late as they
/// can, so that it starts soon.
bool RunLoop::idleDue() const {
    const bool alone = shown_ == UttState::kStarted && view_.waiting == 0;
    return !view_.blind && (alone || (shown_ == UttState::kIdle && roomForOthers()));
}

bool RunLoop::idle() {
    if (!idleDue() || view_.nowMs < view_.idleAgainMs) return false;
    enqueueOther(nullptr, FrameKind::kIdle, {});
    return true;
}

void RunLoop::failUtterance(const char* text, bool counted) {
    noteFailure(text, counted);
    if (utterance_.inProgress) giveUp();
}

/// Makes no more frames of the utterance in progress.
void RunLoop::giveUp() {
    UtteranceBook::Freed freed;  // outlives the lock
    {
        const MutexLock lock(state_.mutex);
        state_.book.fail(utterance_.number, freed);
        state_.tellHost();
    }
    utterance_.failed = true;
    settle();
}

void RunLoop::noteFailure(const char* text, bool counted) {
    const MutexLock lock(state_.mutex);
    state_.noteFailure(text, counted);
}

/// No speech frame comes next: the mouth closes when it was speaking.
void RunLoop::settle() {
    pending_.clear();
    rendered_.clear();
    if (shown_ == UttState::kSpeaking && utterance_.rendered) {
        startRamp(options_.rampFrames, utterance_.number, lastIndex_, lastDriving_.data());
    } else if (shown_ != UttState::kRamping) {
        setState(awaitsSpeech() ? UttState::kStarted : UttState::kIdle);
    }
}

/// From `driving`, as shown on bundle frame `index`, to rest. Without rows there is no rest to
/// return to.
void RunLoop::startRamp(int frames, std::uint64_t utterance, int index, const float* driving) {
    if (!walk_.known()) {
        setState(awaitsSpeech() ? UttState::kStarted : UttState::kIdle);
        return;
    }
    rampOffset_ = walk_.offset(index, driving);
    rampUtterance_ = utterance;
    rampLength_ = rampLeft_ = frames;
    setState(UttState::kRamping);
}

void RunLoop::setState(UttState state) {
    if (state == shown_) return;
    shown_ = state;
    const MutexLock lock(state_.mutex);
    state_.stats.state = static_cast<int>(state);
}

void RunLoop::Pending::append(const MotionFrames& more) {
    if (next > 0) {
        const int left = count();
        std::copy_n(frames.index.begin() + next, left, frames.index.begin());
        std::copy_n(frames.source.begin() + at(next), at(left), frames.source.begin());
        std::copy_n(frames.driving.begin() + at(next), at(left), frames.driving.begin());
        frames.count = left;
        next = 0;
    }
    const int n = std::min(more.count, MotionFrames::kMax - frames.count);
    std::copy_n(more.index.begin(), n, frames.index.begin() + frames.count);
    std::copy_n(more.source.begin(), at(n), frames.source.begin() + at(frames.count));
    std::copy_n(more.driving.begin(), at(n), frames.driving.begin() + at(frames.count));
    frames.count += n;
}

}  // namespace zorv
