#include "telemetry_file.h"

#include <zorv_core.h>

#include <fstream>

#include "failure.h"

namespace zorv::tools {

TelemetryFile::TelemetryFile(const std::string& path) {
    if (path.empty()) return;
    output_.emplace(path, OutputGuard::Kind::kFile);
    zorv_telemetry_clear();
    zorv_telemetry_enable(1);
}

void TelemetryFile::save() {
    if (!output_) return;
    std::string batch(zorv_telemetry_pending(), '\0');
    if (batch.empty() || zorv_telemetry_take(batch.data(), batch.size()) != batch.size()) {
        fail("no telemetry to write to '{}': {}", output_->finalPath(),
             zorv_telemetry_last_error());
    }
    batch.back() = '\n';
    std::ofstream file(output_->path(), std::ios::binary);
    file << batch << std::flush;
    if (!file) fail("cannot write '{}'; check the free space", output_->finalPath());
    output_->commit();
}

}  // namespace zorv::tools
