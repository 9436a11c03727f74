// The windowed generator: conditioning rows become motion vectors, chunk by chunk.
#pragma once

#include <array>
#include <vector>

#include "common/model_run.h"
#include "motion/frame_store.h"
#include "motion/motion_dump.h"
#include "motion/motion_tables.h"

namespace zorv::motion {

/// Holds the motion vectors that may still be read or faded. Frame f of the results belongs to row
/// f. Provisional chunks overwrite the tail of the results; the tail is saved before and put back
/// before the next chunk, provisional or real, and before the results are final.
class Generator {
  public:
    /// All three must outlive the generator.
    Generator(const MotionTables& tables, ModelRun& lmdm, const Dump& dump);

    /// First frame of the next chunk.
    std::int64_t nextChunkFrame() const { return chunk_ * kChunkStep; }
    /// Runs the next chunk over rows [nextChunkFrame(), + 80), the last row repeated where fewer
    /// are there.
    void runNextChunk(const FrameStore& rows);
    /// Runs chunks from the next one on over rows before `limit`, to be rolled back.
    void runProvisionally(const FrameStore& rows, std::int64_t limit);
    /// Takes back what provisional chunks did.
    void restoreTail();
    /// Cuts the results to `total` frames; they do not change any more.
    void buildFinal(std::int64_t total);
    bool isFinal() const { return final_; }

    /// Motion vectors there are, provisional ones included.
    std::int64_t resultCount() const { return results_.end(); }
    /// The motion vector of a frame as it is handed out: pose smoothed with its neighbours,
    /// limited to the bounds.
    void motionAt(std::int64_t frame, float* motion) const;
    /// Frames before `frame` are not asked for again. They are kept when dumping.
    void releaseBefore(std::int64_t frame);

    void reset();

  private:
    void runChunk(const FrameStore& rows, std::int64_t start, std::int64_t limit, float* cond);
    void predict(const FrameStore& rows, std::int64_t start, std::int64_t limit, const float* cond);
    void takeFirst();
    void fadeIn();
    void smooth(std::int64_t from, std::int64_t to);
    const float* predicted(std::int64_t k) const { return prediction_.data() + k * kMotionFloats; }
    void saveTail();
    void dumpFirst() const;
    void dumpResults(const char* name, bool asHandedOut) const;

    const MotionTables& tables_;
    ModelRun& lmdm_;
    const Dump& dump_;
    std::vector<float> condInput_, rowsInput_;  ///< what lmdm reads: 265, [80][1103]
    std::vector<float> prediction_;             ///< what it writes: [80][265]
    FrameStore results_;
    std::int64_t chunk_ = 0;
    std::array<float, kMotionFloats> cond_{};  ///< the frame before the next chunk's first
    bool final_ = false;

    std::vector<float> savedTail_;  ///< the last frames that provisional chunks fade
    std::int64_t savedCount_ = 0;
    bool tailSaved_ = false;
};

}  // namespace zorv::motion
