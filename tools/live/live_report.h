// What a live session showed, for readers and for programs.
#pragma once

#include <optional>
#include <string>

#include "lip_sync.h"
#include "session_report.h"

namespace zorv::tools {

struct LiveReport {
    driver::SessionReport session;
    std::string output;           // "" when none is kept
    std::optional<LipSync> sync;  // where it could be measured
};

std::string liveReportText(const LiveReport& report);
std::string liveReportJson(const LiveReport& report);

}  // namespace zorv::tools
