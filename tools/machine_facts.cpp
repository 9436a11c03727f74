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

/** What the library knows of the machine, out of a batch of telemetry. */
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

std::string whole_text(const char* path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

uint64_t available_memory() {
    std::ifstream file("/proc/meminfo");
    for (std::string line; std::getline(file, line);)
        if (line.rfind("MemAvailable:", 0) == 0)
            return std::strtoull(line.c_str() + 13, nullptr, 10) * 1024;
    return 0;
}

RuntimeFacts runtime_facts() {
    RuntimeFacts facts;
    facts.built_against = ORT_API_VERSION;
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
    return usable && version.rfind("1." + std::to_string(built_against) + ".", 0) == 0;
}

double MachineFacts::usable_cores() const {
    const double allowed = allowed_cores;
    return core_quota ? std::min(allowed, *core_quota) : allowed;
}

std::string MachineFacts::best_level() const {
    for (const char* level : {"avx512", "avx2"})
        if (std::find(instruction_sets.begin(), instruction_sets.end(), level) !=
            instruction_sets.end())
            return level;
    return "portable";
}

MachineFacts machine_facts() {
    const nlohmann::json known = device();
    const CgroupLimits limits =
        read_cgroup_limits(whole_text("/proc/self/cgroup"), "/sys/fs/cgroup");
    MachineFacts facts;
    facts.processor = known.at("processor");
    facts.instruction_sets = known.at("instruction_sets");
    for (const char* kernel : {"compositor", "grid_sampler", "int8_convolution", "speech_spectrum",
                               "half_conversion", "pixel_packing"})
        facts.kernels.emplace_back(kernel, zorv_kernel_path(kernel));
    facts.allowed_cores = known.at("cores");
    facts.core_quota = limits.cores;
    facts.memory_bytes = known.at("memory_bytes");
    facts.available_bytes = available_memory();
    if (limits.memory_bytes) {
        facts.memory_bytes = std::min(facts.memory_bytes, *limits.memory_bytes);
        facts.available_bytes = std::min(facts.available_bytes, *limits.memory_bytes);
    }
    if (getloadavg(&facts.load_average, 1) != 1) facts.load_average = 0;
    facts.library_version = known.at("library_version");
#ifdef __OPTIMIZE__
    facts.optimised = true;
#endif
    facts.runtime = runtime_facts();
    return facts;
}

}  // namespace zorv::tools
