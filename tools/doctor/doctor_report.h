// What zorv doctor found out, for readers and for programs.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "environment_check.h"
#include "machine_facts.h"
#include "self_benchmark.h"
#include "session_verdict.h"

namespace zorv::tools {

struct DoctorReport {
    MachineFacts machine;
    std::vector<SlowSwitch> switches;
    std::string subject;
    std::optional<LiveMeasure> live;
    std::optional<BatchMeasure> batch;  // none without a speech encoder
    std::vector<SessionsRun> runs;      // the first is that of `live`
    std::optional<Verdict> verdict;
};

/// Why the library cannot work with the model runtime that was loaded; "" when it can.
std::string runtimeFault(const RuntimeFacts& runtime);

/// The parts of the text, in the order in which they become known.
std::string machineText(const DoctorReport& report);
std::string liveText(const LiveMeasure& live);
std::string batchText(const BatchMeasure& batch);
std::string runText(const SessionsRun& run);

std::string doctorJson(const DoctorReport& report);

}  // namespace zorv::tools
