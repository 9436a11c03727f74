// What an utterance engine was asked to be, with every default filled in.
#pragma once

#include <string>

#include "zorv_core.h"

namespace zorv {

struct UttOptions {
    std::string motionDir;
    int threads = 1;
    std::string ep;
    std::string steadyModel;  ///< "" for no second renderer
    int eager = -1;           ///< of the motion source: -1 adaptive, else a fixed step of frames
    double silenceMs = 600;   ///< below 0: an utterance never ends by itself
    int rampFrames = 6;
    int rampFramesInterrupt = 4;
    bool expression = false;  ///< the expression engine's directory, else the motion engine's
    bool pipelined = false;   ///< composite on a thread of its own
};

/// Fills in defaults from the context, the environment and the files in the directory. Throws
/// "opts.motion_dir required".
UttOptions resolveOptions(const zorv_utt_opts& opts, int contextThreads);

}  // namespace zorv
