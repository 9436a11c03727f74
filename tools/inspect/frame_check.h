// The target frames of a bundle: are they all there, and do they decode at the right size?
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bundle_report.h"

namespace zorv::tools {

std::string frameName(int index);  // "targetFrames/frame_000012.jpg"

/// Width x height x 3 RGB bytes of a frame; fails with the reason when the library could not show
///  it or would show it damaged.
std::vector<uint8_t> decodeFrame(const std::string& directory, int index, int width, int height);

/// Decodes all frames. Frames in the same state that follow each other share one report.
std::vector<FileReport> checkFrames(const std::string& directory, const BundleFacts& facts);

}  // namespace zorv::tools
