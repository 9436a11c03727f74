// A picture of a bundle: some of its target frames with what is pasted where, and its keypoints.
#pragma once

#include <optional>
#include <string>

#include "bundle_report.h"
#include "canvas.h"

namespace zorv::tools {

/// Nothing when the manifest does not tell the frames' count and size. What else is missing or
///  damaged is left out.
std::optional<Canvas> drawBundle(const BundleReport& report);

}  // namespace zorv::tools
