// The check of a whole bundle.
#pragma once

#include <string>

#include "bundle_report.h"

namespace zorv::tools {

/// Looks at every file of the bundle. Only an interruption or a lack of memory throws.
BundleReport checkBundle(const std::string& directory);

}  // namespace zorv::tools
