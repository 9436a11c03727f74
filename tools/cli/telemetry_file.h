// --telemetry FILE: what the library counted during a run.
#pragma once

#include <optional>
#include <string>

#include "output_guard.h"

namespace zorv::tools {

class TelemetryFile {
  public:
    /// Switches telemetry on, and starts anew, unless `path` is empty. Fails when the file cannot
    ///  be written.
    explicit TelemetryFile(const std::string& path);

    /// Writes the batch of the run; without a path it does nothing.
    void save();

  private:
    std::optional<OutputGuard> output_;
};

}  // namespace zorv::tools
