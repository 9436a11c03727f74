// The audio front end: pushed samples become conditioning rows, five per window.
#pragma once

#include <vector>

#include "common/model_run.h"
#include "motion/frame_store.h"
#include "motion/motion_dump.h"
#include "motion/motion_spectrum.h"
#include "motion/motion_tables.h"

namespace zorv::motion {

/// Holds the audio that windows still need and the rows that chunks still need. Row f belongs to
/// frame f.
class FrontEnd {
  public:
    /// All three must outlive the front end; `student` is the speech-feature model.
    FrontEnd(const MotionTables& tables, ModelRun& student, const Dump& dump);

    void push(const float* samples, std::size_t n) { audio_.append(samples, n); }
    /// Samples pushed since the last reset.
    std::int64_t samples() const { return audio_.end(); }

    /// Whether the audio of the next window is all there.
    bool nextWindowHeard() const;
    std::int64_t nextWindowFrame() const { return nextWindow_; }
    /// Runs the next window and lets the audio that only it needed go.
    void processNextWindow();
    /// Runs windows up to the one of frame `end` - 1 with zeros for audio that is not there yet.
    /// Their rows are provisional: they go with dropProvisionalRows(), which must be called first.
    void processProvisionally(std::int64_t end);
    void dropProvisionalRows();

    const FrameStore& rows() const { return rows_; }
    void cutRows(std::int64_t end) { rows_.truncate(end); }
    /// No later step reads rows before `frame`. They are kept when dumping.
    void releaseRowsBefore(std::int64_t frame);

    void reset();

  private:
    void processWindow(std::int64_t frame);
    void copyWindow(std::int64_t frame, float* samples) const;
    void appendRow(const float* first, const float* second, std::int64_t frame);

    const MotionTables& tables_;
    ModelRun& student_;
    const Dump& dump_;
    const SpectrumTables spectrum_;
    const SpectrumKernels& kernels_;
    std::vector<float> features_;  ///< [80][21], the model's input
    std::vector<float> speech_;    ///< [20][1024], its output
    FrameStore audio_;
    FrameStore rows_;
    std::int64_t nextWindow_ = 0;  ///< first frame of the next window, a multiple of 5
    std::int64_t provisionalRows_ = 0;
};

}  // namespace zorv::motion
