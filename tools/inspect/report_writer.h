// The result of an inspection as text for people and as one JSON object.
#pragma once

#include <string>

#include "bundle_report.h"

namespace zorv::tools {

std::string reportText(const BundleReport& report);
std::string reportJson(const BundleReport& report);

/// "2 faults, 1 warning"
std::string countsText(const BundleReport& report);

}  // namespace zorv::tools
