// How much sound a motion source needs before its first frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "live_engine.h"

namespace zorv::driver {

/// Whether the directory is the expression engine's.
bool isExpressionDir(const std::string& motionDir);

/// Hands the sound in pieces of 20 ms to a source of its own, opened as the engine opens it, and
/// returns how many it took until a frame was there; all, if the source needs the sound's end.
size_t piecesBeforeFirstFrame(const LiveSetup& setup, const std::vector<int16_t>& sound);

}  // namespace zorv::driver
