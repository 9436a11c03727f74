// The three neural models of a motion directory.
#pragma once

#include <string>

#include "common/model_run.h"

namespace zorv::motion {

/// Inputs are known by their place, in the shapes that the models declare.
struct MotionModels {
    /// `threads` below 1 means 1. `ep`: "" for the CPU or "coreml[:cpu|gpu|ane]", whose compiled
    /// models are kept in the directory; anything else throws "zorv_motion: unknown ep '...'".
    MotionModels(const std::string& dir, int threads, const std::string& ep);

    ModelRun student;  ///< bands [80][21] -> speech features [20][1024]
    ModelRun lmdm;     ///< motion vector 265, rows [80][1103] -> motion vectors [80][265]
    ModelRun stitch;   ///< source and driving keypoints, 63 each -> keypoints [21][3]
};

}  // namespace zorv::motion
