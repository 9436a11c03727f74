#include "machine_facts.h"

#include <dlfcn.h>
#include <onnxruntime_cxx_api.h>
#include <zorv_core.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "cgroup_limits.h"
#include "failure.h"

namespace zorv::tools {
namespace {

/// What the library knows of the machine, out of a batch of telemetry.
nlohmann::json device() {
    const int before = zorv_telemetry_enabled();
    zorv_telemetry_enable(1);
    zorv_telemetry_event("doctor.begin", "");
    std::string batch(zorv_telemetry_pending(), '\0');
    const bool taken =
        !batch.empty() && zorv_telemetry_take(batch.data(), batch.size()) == batch.size();
    zorv_telemetry_enable(before);
    if (!taken) fail("the library does not know this machine: {}", zorv_telemetry_last_error());
    batch.pop_back();
    return nlohmann::json::parse(batch).at("device");
}

std::string wholeText(const char* path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

uint64_t availableMemory() {
    std::ifstream file("/proc/meminfo");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("MemAvailable:", 0) == 0) {
            return std::strtoull(line.c_str() + 13, nullptr, 10) * 1024;
        }
    }
    return 0;
}

RuntimeFacts runtimeFacts() {
    RuntimeFacts facts;
    facts.builtAgainst = ORT_API_VERSION;
    const OrtApiBase* base = OrtGetApiBase();
    if (!base) return facts;
    facts.version = base->GetVersionString();
    facts.usable = base->GetApi(ORT_API_VERSION) != nullptr;
    // A function of the library itself; the address of OrtGetApiBase may be a stub in the program.
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(base->GetVersionString), &info) != 0 && info.dli_fname) {
        std::error_code error;
        const auto path = std::filesystem::canonical(info.dli_fname, error);
        facts.path = error ? info.dli_fname : path.string();
    }
    return facts;
}

}  // namespace

bool RuntimeFacts::matches() const {
    return usable && version.rfind("1." + std::to_string(builtAgainst) + ".", 0) == 0;
}

double MachineFacts::usableCores() const {
    const double allowed = allowedCores;
    return coreQuota ? std::min(allowed, *coreQuota) : allowed;
}

std::string MachineFacts::bestLevel() const {
    for (const char* level : {"avx512", "avx2"}) {
        if (std::find(instructionSets.begin(), instructionSets.end(), level) !=
            instructionSets.end()) {
            return level;
        }
    }
    return "portable";
}

MachineFacts machineFacts() {
    const nlohmann::json known = device();
    const CgroupLimits limits = readCgroupLimits(wholeText("/proc/self/cgroup"), "/sys/fs/cgroup");
    MachineFacts facts;
    facts.processor = known.at("processor");
    facts.instructionSets = known.at("instruction_sets");
    for (const char* kernel : {"compositor", "grid_sampler", "int8_convolution", "speech_spectrum",
                               "half_conversion", "pixel_packing", "yuv_conversion"}) {
        facts.kernels.emplace_back(kernel, zorv_kernel_path(kernel));
    }
    facts.allowedCores = known.at("cores");
    facts.coreQuota = limits.cores;
    facts.memoryBytes = known.at("memory_bytes");
    facts.availableBytes = availableMemory();
    if (limits.memoryBytes) {
        facts.memoryBytes = std::min(facts.memoryBytes, *limits.memoryBytes);
        facts.availableBytes = std::min(facts.availableBytes, *limits.memoryBytes);
    }
    if (getloadavg(&facts.loadAverage, 1) != 1) facts.loadAverage = 0;
    facts.libraryVersion = known.at("library_version");
#ifdef __OPTIMIZE__
    facts.optimised = true;
#endif
    facts.runtime = runtimeFacts();
    return facts;
}

}  // namespace zorv::tools
