#include "utt/zorv_utt.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

#include "audio/speech_resampler.h"
#include "capi/frame_arguments.h"
#include "common/file.h"
#include "common/thread.h"
#include "telemetry/telemetry.h"

namespace zorv {
namespace {

/// The bundle frames' own keypoints; empty when there is no file or it does not fit the bundle. A
/// file that is there but cannot be read is an error.
std::vector<float> readRows(const std::string& motionDir, int nt) {
    std::vector<float> rows(static_cast<std::size_t>(nt) * kKeypointFloats);
    const std::string path = motionDir + "/xs_target.bin";
    const ReadStatus status = readExactly(path, rows.data(), rows.size() * sizeof(float));
    if (status == ReadStatus::kFailed) throw std::runtime_error("cannot read " + path);
    if (status == ReadStatus::kCannotOpen && ::access(path.c_str(), F_OK) == 0) {
        throw std::runtime_error("cannot open " + path);
    }
    if (status != ReadStatus::kOk) rows.clear();
    return rows;
}

void checkRange(bool inRange, const char* range) {
    if (!inRange) throw std::invalid_argument(range);
}

}  // namespace
}  // namespace zorv

using zorv::MutexLock;
namespace telemetry = zorv::telemetry;

zorv_utt::zorv_utt(zorv_ctx& ctx, const zorv_utt_opts& opts,
                   const zorv::UttSurroundings& surroundings)
    : ctx_(ctx),
      options_(zorv::resolveOptions(opts, ctx.threads)),
      rows_(zorv::readRows(options_.motionDir, ctx.manifest.NT)),
      openSource_(surroundings.openSource),
      state_(surroundings.clock ? *surroundings.clock : steadyClock_),
      compositor_(ctx, state_, options_.pipelined),
      dispatch_([this] { state_.announce(); }),
      loop_(state_, ctx, options_, rows_, dispatch_, compositor_, surroundings.onRender) {
    try {
        start();
    } catch (...) {
        stop();
        throw;
    }
}

zorv_utt::~zorv_utt() {
    stop();
}

void zorv_utt::start() {
    runThread_ = zorv::startThread([this] { loop_.run(); });
    warmThread_ = zorv::startThread([this] { warm(); });
    dispatchThread_ = zorv::startThread([this] { dispatch_.run(); });
    if (options_.pipelined) pasteThread_ = zorv::startThread([this] { compositor_.run(); });
}

/// Ends the running threads, first those that use others.
void zorv_utt::stop() {
    {
        const MutexLock lock(state_.mutex);
        state_.stopping = true;
        state_.stopRender();
        state_.changed();
    }
    compositor_.stop();
    for (std::thread* thread : {&runThread_, &warmThread_, &pasteThread_}) {
        if (thread->joinable()) thread->join();
    }
    dispatch_.stop();
    if (dispatchThread_.joinable()) dispatchThread_.join();
    const MutexLock lock(state_.mutex);
    while (state_.hostWaits > 0) state_.hostWake.wait(state_.mutex);
}

void zorv_utt::warm() noexcept {
    try {
        warmUp();
    } catch (const zorv::SourceFailure& error) {
        cannotSpeak(error.what(), true);
    } catch (const std::exception& error) {
        cannotSpeak(error.what(), false);
    }
}

void zorv_utt::cannotSpeak(const char* text, bool counted) {
    zorv::UtteranceBook::Freed freed;  // outlives the lock
    const MutexLock lock(state_.mutex);
    state_.noteFatal(text, counted);
    state_.book.failAll(freed);
    state_.changed();
}

void zorv_utt::warmUp() {
    auto source = openSource_(options_);
    const int nt = source->nt();
    if (nt != ctx_.manifest.NT) {
        throw std::runtime_error("motion source has " + std::to_string(nt) +
                                 " frames, the bundle " + std::to_string(ctx_.manifest.NT));
    }
    source->setEager(options_.eager);
    const int lookAhead = source->lookAhead();
    std::unique_ptr<zorv::Renderer> steady;
    if (!options_.steadyModel.empty()) {
        steady = std::make_unique<zorv::Renderer>(ctx_.manifest, ctx_.identity,
                                                  options_.steadyModel, ctx_.threads, ctx_.ep);
    }
    // The run loop renders nothing before the engine is ready.
    const zorv::Drive& drive = ctx_.drive;
    // The first render shows how much memory a run needs; the second allocates it.
    for (int i = 0; i < 2 && drive.frames > 0; ++i) {
        ctx_.renderer->render(drive.si.data(), drive.xs.data(), drive.xd.data(), 1);
        if (steady) steady->render(drive.si.data(), drive.xs.data(), drive.xd.data(), 1);
    }
    const MutexLock lock(state_.mutex);
    state_.steady = std::move(steady);
    state_.source = std::move(source);
    lookAhead_ = lookAhead;
    state_.lookAhead = zorv::lookAheadSamples(lookAhead, state_.settings.rate, resampling_);
    if (state_.warmth == zorv::Warmth::kWarming) state_.warmth = zorv::Warmth::kReady;
    state_.changed();
}

int zorv_utt::ready(zorv::FailureText& text) {
    const MutexLock lock(state_.mutex);
    if (state_.warmth == zorv::Warmth::kWarming) return 0;
    if (state_.warmth == zorv::Warmth::kReady) return 1;
    text = state_.fatalText;
    return -1;
}

void zorv_utt::refuseSettled() {
    if (state_.settled) throw std::logic_error("comes before the first push and the first pull");
}

void zorv_utt::setInput(int rate) {
    zorv::checkRange(zorv::SpeechResampler::fits(rate), "rate: 8000 to 48000, a multiple of 25");
    const int resampling = zorv::SpeechResampler(rate).lookAhead();
    const MutexLock lock(state_.mutex);
    refuseSettled();
    state_.settings.rate = rate;
    state_.book.setFrameSamples(rate / 25);
    resampling_ = resampling;
    if (state_.source) {
        state_.lookAhead = zorv::lookAheadSamples(lookAhead_, rate, resampling_);
    }
}

/// Drops frames that were made with other settings; keeps the `kept` oldest.
void zorv_utt::restart(int kept) {
    ++state_.generation;
    state_.ring.drop(kept);
    compositor_.dropQueued(state_);
    state_.changed();
}

void zorv_utt::setPixels(int pixels) {
    zorv::checkRange(zorv::isPixelForm(pixels), "pixels: a ZORV_PIXELS_ value");
    const MutexLock lock(state_.mutex);
    refuseSettled();
    state_.settings.form = static_cast<zorv::PixelForm>(pixels);
    restart(0);
}

void zorv_utt::setMatrix(int matrix) {
    zorv::checkRange(zorv::isMatrix(matrix), "matrix: a ZORV_MATRIX_ value");
    const MutexLock lock(state_.mutex);
    refuseSettled();
    state_.settings.matrix = matrix;
    restart(0);
}

void zorv_utt::setIdleAhead(int frames) {
    const int most = static_cast<int>(zorv::FrameRing::kSlots);
    zorv::checkRange(frames >= 1 && frames <= most, "frames: 1 to 8");
    const MutexLock lock(state_.mutex);
    refuseSettled();
    state_.settings.idleAhead = frames;
    restart(frames);
}

void zorv_utt::setLate(int policy) {
    zorv::checkRange(policy == ZORV_LATE_WAIT || policy == ZORV_LATE_SKIP,
                     "policy: ZORV_LATE_WAIT or ZORV_LATE_SKIP");
    const MutexLock lock(state_.mutex);
    refuseSettled();
    state_.settings.skipsLate = policy == ZORV_LATE_SKIP;
}

std::uint64_t zorv_utt::push(const std::int16_t* pcm, std::size_t n, zorv::FailureText& fatal) {
    if (n == 0) return 0;
    {
        const MutexLock lock(state_.mutex);
        if (refusesSpeech(fatal)) return 0;
        if (state_.book.fits(n)) {
            state_.passSlots();
            const std::uint64_t number = state_.book.push(pcm, n, state_.clock.nowMs());
            state_.changed();
            return number;
        }
    }
    // Without the engine's lock. Another push may make room meanwhile; these pieces go behind it.
    zorv::UtteranceBook::Push prepared(pcm, n);
    const MutexLock lock(state_.mutex);
    if (refusesSpeech(fatal)) return 0;
    state_.passSlots();
    const std::uint64_t number = state_.book.push(prepared, state_.clock.nowMs());
    state_.changed();
    return number;
}

bool zorv_utt::refusesSpeech(zorv::FailureText& fatal) {
    state_.settled = true;
    if (state_.warmth != zorv::Warmth::kFailed) return false;
    fatal = state_.fatalText;
    return true;
}

void zorv_utt::endUtterance() {
    const MutexLock lock(state_.mutex);
    state_.passSlots();
    state_.book.end(ZORV_REASON_END);
    state_.changed();
}

void zorv_utt::interrupt() {
    zorv::UtteranceBook::Freed freed;  // outlives the lock
    const MutexLock lock(state_.mutex);
    ++state_.generation;
    telemetry::count({"zorv.utterance.interrupts", "{interrupt}"});
    telemetry::count({"zorv.utterance.frames.dropped", "{frame}"},
                     static_cast<std::uint64_t>(state_.waiting()));
    state_.passSlots();
    state_.late.stop();
    state_.book.interrupt(freed);
    state_.ring.drop();
    compositor_.dropQueued(state_);
    state_.stopRender();
    state_.changed();
}

int zorv_utt::available() {
    const MutexLock lock(state_.mutex);
    return state_.ring.size();
}

zorv_utt::Pull zorv_utt::pull(std::uint8_t* buffer, std::size_t capacity,
                              zorv_utt_frame_info* info) {
    const MutexLock turn(pullMutex_);
    constexpr zorv::PixelForm kForm = zorv::PixelForm::kRgba;
    {
        const MutexLock lock(state_.mutex);
        if (state_.settings.form != kForm) {
            throw std::logic_error("another form than RGBA was set; call zorv_utt_pull");
        }
        state_.settled = true;
        if (state_.ring.size() > 0 && capacity < ctx_.frameBytes(kForm)) return Pull::kTooSmall;
    }
    zorv_utt_frame frame = {};
    if (!take(ctx_.packed(kForm, buffer), kForm, frame)) return Pull::kNothing;
    if (info) *info = {frame.sequence, frame.kind, frame.frame, frame.speech_sequence};
    return Pull::kDone;
}

bool zorv_utt::pull(zorv_utt_frame& frame) {
    const MutexLock turn(pullMutex_);
    zorv::PixelForm form;
    zorv::FrameView to;
    {
        const MutexLock lock(state_.mutex);
        form = state_.settings.form;
        if (!zorv::readPlanes(form, ctx_.manifest.W, ctx_.manifest.H, frame.plane, frame.stride,
                              to)) {
            throw std::invalid_argument("a plane is missing, or its stride is below a row");
        }
        if (frame.sound && frame.sound_capacity < state_.book.frameSamples()) {
            throw std::invalid_argument("sound_capacity is below rate / 25");
        }
        state_.settled = true;
    }
    return take(to, form, frame);
}

/// The oldest frame goes to `to`, what it is and its sound to `frame`.
bool zorv_utt::take(const zorv::FrameView& to, zorv::PixelForm form, zorv_utt_frame& frame) {
    std::uint64_t generation = 0;
    {
        const MutexLock lock(state_.mutex);
        if (state_.ring.size() == 0) {
            if (state_.stats.frames_pulled > 0) {
                telemetry::count({"zorv.utterance.frames.late", "{frame}"});
            }
            return false;
        }
        generation = state_.generation;
        state_.ring.front().pixels.swap(reading_);
    }
    // Without the engine's lock: the frame is out of the ring's reach, and pulls take turns.
    zorv::copyFrame(form, ctx_.packed(form, reading_.data()), to, ctx_.manifest.W, ctx_.manifest.H);
    zorv::UtteranceBook::Freed freed;  // outlives the lock
    const MutexLock lock(state_.mutex);
    if (state_.generation != generation) return false;
    describe(frame, freed);
    state_.ring.pop();
    ++state_.stats.frames_pulled;
    telemetry::count({"zorv.utterance.frames.pulled", "{frame}"});
    telemetry::gauge({"zorv.utterance.ring.depth", "{frame}"}, state_.ring.size());
    state_.changed();
    return true;
}

/// The frame in front of the ring is the host's now.
void zorv_utt::describe(zorv_utt_frame& frame, zorv::UtteranceBook::Freed& freed) {
    const zorv::FrameRing::Slot& oldest = state_.ring.front();
    const zorv::FrameInfo& info = oldest.info;
    const int samples = state_.book.frameSamples();
    frame.sound_samples = samples;
    frame.sequence = oldest.sequence;
    frame.kind = static_cast<std::int32_t>(info.kind);
    frame.frame = info.index;
    frame.speech_sequence = info.speechSequence;
    frame.utterance = info.utterance;
    frame.first_sample = -1;
    frame.pts = state_.framesPulled++ + info.skipped;
    frame.flags = info.gap ? ZORV_FRAME_GAP : 0;
    if (info.kind != zorv::FrameKind::kSpeech) {
        if (frame.sound) std::fill_n(frame.sound, samples, std::int16_t{0});
        state_.late.stop();
        return;
    }
    ++state_.stats.speech_frames_pulled;
    frame.first_sample = info.number * samples;
    frame.flags = state_.book.show(info.utterance, info.number, frame.pts, frame.sound, freed);
    if (state_.spokenTo != info.utterance) state_.late.stop();
    state_.spokenTo = info.utterance;
    state_.late.pulled(state_.clock.nowMs());
}

bool zorv_utt::nextEvent(zorv_utt_event& event) {
    const MutexLock lock(state_.mutex);
    if (state_.book.events.empty()) return false;
    const std::size_t size = event.struct_size;
    event = state_.book.events.take();
    event.struct_size = size;
    state_.changed();
    return true;
}

int zorv_utt::wait(int mask, int timeoutMs, zorv::FailureText& fatal) {
    zorv::checkRange(zorv::WakeUp::isMask(mask), "mask: 1, 2 or 3");
    const MutexLock lock(state_.mutex);
    ++state_.hostWaits;
    const double due = timeoutMs < 0 ? zorv::Clock::kNever : state_.clock.nowMs() + timeoutMs;
    int had = 0;
    while ((had = state_.ready() & mask) == 0) {
        if (state_.stopping) {
            fatal.set("zorv_utt_wait: the engine is destroyed");
            had = -1;
        } else if ((state_.possible() & mask) == 0) {
            fatal = state_.fatalText;
            had = -1;
        } else if (state_.clock.nowMs() < due) {
            state_.clock.wait(state_.hostWake, state_.mutex, due);
            continue;
        }
        break;
    }
    if (--state_.hostWaits == 0) state_.hostWake.notifyAll();
    return had;
}

int zorv_utt::descriptor(int mask) {
    zorv::checkRange(zorv::WakeUp::isMask(mask), "mask: 1, 2 or 3");
    const MutexLock lock(state_.mutex);
    return state_.wakeUp.descriptor(mask);
}

void zorv_utt::latency(zorv_utt_latency_info& info) {
    const MutexLock lock(state_.mutex);
    state_.passSlots();
    info.look_ahead_samples = state_.lookAhead;
    info.idle_ahead = state_.settings.idleAhead;
    info.render_ms = state_.stats.render_ms;
    info.frames_left_out_late = state_.leftOutLate;
    info.frames_left_out_failed = state_.leftOutFailed;
    info.late_slots = static_cast<std::uint64_t>(state_.late.count());
    info.sound_bytes = state_.book.soundBytes();
}

bool zorv_utt::atRest() {
    const MutexLock lock(state_.mutex);
    return state_.clock.nowMs() < state_.restsUntilMs;
}

zorv_utt_stats zorv_utt::stats() {
    const MutexLock lock(state_.mutex);
    return state_.stats;
}

std::uint64_t zorv_utt::failure(char* text, std::size_t capacity) {
    const MutexLock lock(state_.mutex);
    if (text && capacity > 0) std::snprintf(text, capacity, "%s", state_.failureText.get());
    return state_.failures;
}
