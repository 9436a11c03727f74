#include "motion/motion_engine.h"

#include <algorithm>
#include <array>
#include <chrono>

namespace zorv::motion {
namespace {

/// Frames at the end of the results that are held back: the next chunk fades ten of them and the
/// one before is smoothed with the first of those.
constexpr std::int64_t kHeldBack = kFadeFrames + 1;

}  // namespace

MotionEngine::MotionEngine(const std::string& dir, int threads, const std::string& ep)
    : tables_(loadMotionTables(dir)),
      models_(dir, threads, ep),
      front_(tables_, models_.student, dump_),
      generator_(tables_, models_.lmdm, dump_),
      emitter_(tables_, models_.stitch, dump_) {}

int MotionEngine::lookAheadSamples() const {
    if (eager_ != 0) {
        const int step = eager_ > 0 ? eager_ : adaptiveStep(latencyMs_);
        return step * kSamplesPerFrame + 1;
    }
    // The frame before a chunk is held back by the chunk before and waits for the last window.
    return static_cast<int>(kChunkFrames - kWindowFrames + 1) * kSamplesPerFrame +
           kWindowFollowSamples;
}

void MotionEngine::finish() {
    if (finished()) return;
    total_ = coveredFrames(front_.samples());
    if (!dump_.isOn()) return;
    advance();
    dumpRows();
}

std::int64_t MotionEngine::avail() {
    advance();
    const std::int64_t covered = coveredFrames(front_.samples());
    if (!generator_.isFinal() && eagerPassDue(covered)) eagerAdvance(covered);
    return ready();
}

int MotionEngine::pull(int* idx, float* xs, float* xd, int max) {
    const int count = static_cast<int>(std::min<std::int64_t>(avail(), max));
    const std::int64_t first = emitted_;
    const Cursor cursor = cursor_;
    try {
        for (int k = 0; k < count; ++k) {
            emitNext(idx ? idx + k : nullptr, xs + kKeypointFloats * k, xd + kKeypointFloats * k);
        }
    } catch (...) {  // the next pull starts with the same frame
        emitted_ = first;
        cursor_ = cursor;
        throw;
    }
    generator_.releaseBefore(emitted_);
    return count;
}

void MotionEngine::reset(int startFrame, int direction, bool loop) {
    front_.reset();
    generator_.reset();
    emitter_.reset();
    total_ = -1;
    emitted_ = 0;
    cursor_ = {std::clamp(startFrame, 0, nt() - 1), direction < 0 ? -1 : 1, loop};
    eagerCovered_ = 0;
    eagerHighest_ = 0;
    chunkSinceEagerPass_ = false;
}

/// A chunk runs as soon as its rows are there instead of after all windows: the order changes no
/// value, and the rows of a long clip need not all be in memory at once.
void MotionEngine::advance() {
    front_.dropProvisionalRows();
    // Without eager passes to come, what is handed out must be what no later chunk changes.
    if (eager_ == 0) generator_.restoreTail();
    while (true) {
        if (chunkDue()) {
            generator_.runNextChunk(front_.rows());
            chunkSinceEagerPass_ = true;
            front_.releaseRowsBefore(generator_.nextChunkFrame());
        } else if (windowDue()) {
            front_.processNextWindow();
            if (finished()) front_.cutRows(total_);
        } else {
            break;
        }
    }
    if (finished() && !generator_.isFinal()) generator_.buildFinal(total_);
}

bool MotionEngine::windowDue() const {
    return finished() ? front_.nextWindowFrame() < total_ : front_.nextWindowHeard();
}

bool MotionEngine::chunkDue() const {
    const std::int64_t first = generator_.nextChunkFrame();
    const std::int64_t last = first + kChunkFrames;
    if (!finished()) return front_.rows().end() >= last;
    return first < total_ && front_.rows().end() >= std::min(last, total_);
}

bool MotionEngine::eagerPassDue(std::int64_t covered) const {
    if (eager_ == 0) return false;
    if (chunkSinceEagerPass_) return true;
    const bool nothingEmitted = emitted_ == 0;
    if (eager_ > 0 && nothingEmitted && covered > eagerCovered_) return true;
    const int step = eager_ > 0 ? eager_ : nothingEmitted ? 1 : adaptiveStep(latencyMs_);
    return covered - eagerCovered_ >= step;
}

void MotionEngine::eagerAdvance(std::int64_t covered) {
    const auto start = std::chrono::steady_clock::now();
    front_.dropProvisionalRows();
    front_.processProvisionally(covered);
    generator_.restoreTail();
    if (covered > generator_.nextChunkFrame()) {
        generator_.runProvisionally(front_.rows(), covered);
    }
    eagerCovered_ = covered;
    eagerHighest_ = std::max(eagerHighest_, covered - 1);
    chunkSinceEagerPass_ = false;
    const std::chrono::duration<double, std::milli> elapsed =
        std::chrono::steady_clock::now() - start;
    latencyMs_ = latencyMs_ > 0 ? 0.7 * latencyMs_ + 0.3 * elapsed.count() : elapsed.count();
}

std::int64_t MotionEngine::ready() const {
    const std::int64_t results = generator_.resultCount();
    if (generator_.isFinal()) return results - emitted_;
    const std::int64_t end = eager_ == 0 ? std::min(front_.rows().end() - 1, results - kHeldBack)
                                         : std::min(results - 1, eagerHighest_);
    return std::max<std::int64_t>(0, end - emitted_);
}

void MotionEngine::emitNext(int* idx, float* xs, float* xd) {
    std::array<float, kMotionFloats> motion;
    generator_.motionAt(emitted_, motion.data());
    const int frame = cursor_.frame;
    if (idx) *idx = frame;
    cursor_.advance(nt());
    const Dump::Mode mode = emitted_ == 0 ? Dump::Mode::kFresh : Dump::Mode::kAppend;
    emitter_.emitFrame(motion.data(), frame, mode, xs, xd);
    dump_.write("/xs.bin", xs, kKeypointFloats, mode);
    dump_.write("/xd.bin", xd, kKeypointFloats, mode);
    ++emitted_;
}

void MotionEngine::dumpRows() const {
    dump_.write("/cond.bin", nullptr, 0);
    for (std::int64_t f = 0; f < front_.rows().end(); ++f) {
        dump_.write("/cond.bin", front_.rows().at(f), kRowFloats, Dump::Mode::kAppend);
    }
}

}  // namespace zorv::motion
