// Which nodes of a renderer model the library's own operators run.
#pragma once

#include <string>
#include <string_view>

#include "model_report.h"

namespace zorv::tools {

/// Reads a serialised model. Throws std::runtime_error for malformed bytes.
OperatorCensus countOperators(std::string_view model);

}  // namespace zorv::tools
