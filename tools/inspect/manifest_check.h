// Checks manifest.json key by key, reading it exactly as the library does.
#pragma once

#include <string>

#include "bundle_report.h"

namespace zorv::tools {

/// All that is wrong with directory/manifest.json goes to `report`.
BundleFacts checkManifest(const std::string& directory, FileReport& report);

}  // namespace zorv::tools
