// The result of an inspection as text for people and as one JSON object.
#pragma once

#include <string>

#include "bundle_report.h"

namespace zorv::tools {

std::string report_text(const BundleReport& report);
std::string report_json(const BundleReport& report);

/** "2 faults, 1 warning" */
std::string counts_text(const BundleReport& report);

}  // namespace zorv::tools
