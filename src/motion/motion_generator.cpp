#include "motion/motion_generator.h"

#include <algorithm>
#include <limits>

#include "motion/motion_math.h"

namespace zorv::motion {
namespace {

/// Smoothing the seam reads the frame before the faded ones, which also conditions the next chunk.
constexpr std::int64_t kSeamFrames = kFadeFrames + 1;

}  // namespace

Generator::Generator(const MotionTables& tables, ModelRun& lmdm, const Dump& dump)
    : tables_(tables),
      lmdm_(lmdm),
      dump_(dump),
      condInput_(kMotionFloats),
      rowsInput_(kChunkFrames * kRowFloats),
      prediction_(kChunkFrames * kMotionFloats),
      results_(kMotionFloats, 64, 6),
      cond_(tables.initial),
      savedTail_(kFadeFrames * kMotionFloats) {
    lmdm_.bindInput(0, condInput_.data());
    lmdm_.bindInput(1, rowsInput_.data());
    lmdm_.bindOutput(0, prediction_.data());
}

void Generator::runNextChunk(const FrameStore& rows) {
    restoreTail();
    runChunk(rows, nextChunkFrame(), std::numeric_limits<std::int64_t>::max(), cond_.data());
    ++chunk_;
}

void Generator::runProvisionally(const FrameStore& rows, std::int64_t limit) {
    saveTail();
    std::array<float, kMotionFloats> cond = cond_;
    for (std::int64_t start = nextChunkFrame(); start < limit; start += kChunkStep) {
        runChunk(rows, start, limit, cond.data());
    }
}

void Generator::saveTail() {
    savedCount_ = results_.end();
    const std::int64_t frames = std::min(savedCount_, kFadeFrames);
    results_.copy(savedCount_ - frames, static_cast<std::size_t>(frames), savedTail_.data());
    tailSaved_ = true;
}

void Generator::restoreTail() {
    if (!tailSaved_) return;
    results_.truncate(savedCount_);
    const float* saved = savedTail_.data();
    for (std::int64_t f = std::max<std::int64_t>(savedCount_ - kFadeFrames, 0); f < savedCount_;
         ++f, saved += kMotionFloats) {
        std::copy_n(saved, kMotionFloats, results_.at(f));
    }
    tailSaved_ = false;
}

void Generator::buildFinal(std::int64_t total) {
    restoreTail();
    results_.truncate(total);
    dumpResults("/res_post.bin", false);
    final_ = true;
    dumpResults("/final.bin", true);
}

void Generator::motionAt(std::int64_t frame, float* motion) const {
    const float* now = results_.at(frame);
    const float* before = frame > 0 ? results_.at(frame - 1) : nullptr;
    const float* after = frame + 1 < results_.end() ? results_.at(frame + 1) : nullptr;
    smoothPose(before, now, after, motion);
    std::copy(now + kPoseFloats, now + kMotionFloats, motion + kPoseFloats);
    clampMotion(tables_.low.data(), tables_.high.data(), motion);
}

void Generator::releaseBefore(std::int64_t frame) {
    if (dump_.isOn()) return;
    const std::int64_t settled = tailSaved_ ? savedCount_ : results_.end();
    const std::int64_t neighbour = frame - 1;
    results_.releaseBefore(final_ ? neighbour : std::min(neighbour, settled - kSeamFrames));
}

void Generator::reset() {
    results_.clear();
    chunk_ = 0;
    cond_ = tables_.initial;
    final_ = false;
    tailSaved_ = false;
}

void Generator::runChunk(const FrameStore& rows, std::int64_t start, std::int64_t limit,
                         float* cond) {
    predict(rows, start, limit, cond);
    if (results_.end() == 0) {
        dumpFirst();
        takeFirst();
    } else {
        fadeIn();
    }
    std::copy_n(results_.at(results_.end() - kSeamFrames), kMotionFloats, cond);
}

void Generator::predict(const FrameStore& rows, std::int64_t start, std::int64_t limit,
                        const float* cond) {
    const std::int64_t count = std::min({limit - start, rows.end() - start, kChunkFrames});
    std::copy_n(cond, kMotionFloats, condInput_.data());
    rows.copy(start, static_cast<std::size_t>(count), rowsInput_.data());
    for (std::int64_t i = count; i < kChunkFrames; ++i) {
        std::copy_n(rows.at(start + count - 1), kRowFloats, rowsInput_.data() + i * kRowFloats);
    }
    lmdm_.run();
}

void Generator::takeFirst() {
    results_.append(prediction_.data(), kChunkFrames);
    smooth(0, kChunkFrames);
}

void Generator::fadeIn() {
    const std::int64_t count = results_.end();
    results_.append(predicted(kFadeFrames), kChunkFrames - kFadeFrames);
    for (int k = 0; k < kFadeFrames; ++k) {
        crossFade(k, predicted(k), results_.at(count - kFadeFrames + k));
    }
    smooth(count - kFadeFrames, count + 1);
}

/// Smooths the pose of frames [from, to), each from the values that its neighbours had before.
void Generator::smooth(std::int64_t from, std::int64_t to) {
    std::array<std::array<float, kPoseFloats>, 2> unsmoothed;
    const float* before = from > 0 ? results_.at(from - 1) : nullptr;
    for (std::int64_t f = from; f < to; ++f) {
        float* frame = results_.at(f);
        auto& kept = unsmoothed[static_cast<std::size_t>(f % 2)];
        std::copy_n(frame, kPoseFloats, kept.begin());
        const float* after = f + 1 < results_.end() ? results_.at(f + 1) : nullptr;
        smoothPose(before, frame, after, frame);
        before = kept.data();
    }
}

void Generator::dumpFirst() const {
    dump_.write("/lmdm0_kp.bin", condInput_.data(), condInput_.size());
    dump_.write("/lmdm0_aud.bin", rowsInput_.data(), rowsInput_.size());
    dump_.write("/lmdm0_pred.bin", prediction_.data(), prediction_.size());
}

void Generator::dumpResults(const char* name, bool asHandedOut) const {
    if (!dump_.isOn()) return;
    dump_.write(name, nullptr, 0);
    std::array<float, kMotionFloats> motion;
    for (std::int64_t f = 0; f < results_.end(); ++f) {
        if (asHandedOut) {
            motionAt(f, motion.data());
        } else {
            std::copy_n(results_.at(f), kMotionFloats, motion.data());
        }
        dump_.write(name, motion.data(), motion.size(), Dump::Mode::kAppend);
    }
}

}  // namespace zorv::motion
