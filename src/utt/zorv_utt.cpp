#include "utt/zorv_utt.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>

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
      loop_(state_, ctx, options_, rows_, dispatch_, compositor_) {
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

/// Ends the threads that run, those first that use others.
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
    zorv::SpeechInput::Utterances freed;  // outlives the lock
    const MutexLock lock(state_.mutex);
    state_.noteFatal(text, counted);
    state_.input.clear(freed);
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
    std::unique_ptr<zorv::Renderer> steady;
    if (!options_.steadyModel.empty()) {
        steady = std::make_unique<zorv::Renderer>(ctx_.manifest, ctx_.identity,
                                                  options_.steadyModel, ctx_.threads, ctx_.ep);
    }
    // The run loop renders nothing before the engine is ready.
    const zorv::Drive& drive = ctx_.drive;
    if (drive.frames > 0) {
        ctx_.renderer->render(drive.si.data(), drive.xs.data(), drive.xd.data(), 1);
        if (steady) steady->render(drive.si.data(), drive.xs.data(), drive.xd.data(), 1);
    }
    const MutexLock lock(state_.mutex);
    state_.steady = std::move(steady);
    state_.source = std::move(source);
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

void zorv_utt::setInput(int rate) {
    if (rate != 16000) throw std::runtime_error("only 16000 Hz for now");
}
void zorv_utt::setPixels(int pixels) {
    if (pixels != ZORV_PIXELS_RGBA) throw std::runtime_error("only RGBA for now");
}
void zorv_utt::setMatrix(int matrix) {
    if (matrix != ZORV_MATRIX_AUTO) throw std::runtime_error("only AUTO for now");
}
void zorv_utt::setIdleAhead(int frames) {
    if (frames != 8) throw std::runtime_error("only 8 for now");
}
void zorv_utt::setLate(int policy) {
    if (policy != ZORV_LATE_WAIT) throw std::runtime_error("only WAIT for now");
}
bool zorv_utt::pull(zorv_utt_frame&) {
    throw std::runtime_error("not there yet");
}
bool zorv_utt::nextEvent(zorv_utt_event&) {
    return false;
}
int zorv_utt::wait(int, int, zorv::FailureText&) {
    throw std::runtime_error("not there yet");
}
int zorv_utt::descriptor(int) {
    throw std::runtime_error("not there yet");
}
void zorv_utt::latency(zorv_utt_latency_info&) {}

std::uint64_t zorv_utt::push(const std::int16_t* pcm, std::size_t n, zorv::FailureText&) {
    if (n == 0) return 0;
    const MutexLock turn(pushMutex_);
    {
        const MutexLock lock(state_.mutex);
        if (state_.warmth == zorv::Warmth::kFailed) return 0;
        if (state_.input.fits(n)) {
            state_.input.push(pcm, n, state_.clock.nowMs());
            state_.changed();
            return 0;
        }
    }
    // Pushes take turns: what did not fit does not fit now, either.
    zorv::SpeechInput::Push prepared(pcm, n);
    const MutexLock lock(state_.mutex);
    if (state_.warmth == zorv::Warmth::kFailed) return 0;
    state_.input.push(prepared, state_.clock.nowMs());
    state_.changed();
    return 0;
}

void zorv_utt::endUtterance() {
    const MutexLock lock(state_.mutex);
    state_.input.end();
    state_.changed();
}

void zorv_utt::interrupt() {
    zorv::SpeechInput::Utterances freed;  // outlives the lock
    const MutexLock lock(state_.mutex);
    ++state_.generation;
    telemetry::count({"zorv.utterance.interrupts", "{interrupt}"});
    telemetry::count({"zorv.utterance.frames.dropped", "{frame}"},
                     static_cast<std::uint64_t>(state_.waiting()));
    state_.input.clear(freed);
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
    std::uint64_t generation = 0;
    zorv_utt_frame_info frame;
    {
        const MutexLock lock(state_.mutex);
        if (state_.ring.size() == 0) {
            if (state_.stats.frames_pulled > 0) {
                telemetry::count({"zorv.utterance.frames.late", "{frame}"});
            }
            return Pull::kNothing;
        }
        zorv::FrameRing::Slot& oldest = state_.ring.front();
        if (capacity < oldest.pixels.size()) return Pull::kTooSmall;
        generation = state_.generation;
        frame = {state_.ring.frontSequence(), static_cast<std::int32_t>(oldest.info.kind),
                 oldest.info.index, oldest.info.speechSequence};
        oldest.pixels.swap(reading_);
    }
    // Without the engine's lock: the frame is out of the ring's reach, and pulls take turns.
    std::memcpy(buffer, reading_.data(), reading_.size());
    const MutexLock lock(state_.mutex);
    if (state_.generation != generation) return Pull::kNothing;
    state_.ring.pop();
    ++state_.stats.frames_pulled;
    telemetry::count({"zorv.utterance.frames.pulled", "{frame}"});
    telemetry::gauge({"zorv.utterance.ring.depth", "{frame}"}, state_.ring.size());
    if (frame.kind == static_cast<std::int32_t>(zorv::FrameKind::kSpeech)) {
        ++state_.stats.speech_frames_pulled;
    }
    state_.changed();
    if (info) *info = frame;
    return Pull::kDone;
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
