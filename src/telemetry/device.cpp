#include "telemetry/device.h"

#include <cpuid.h>
#include <onnxruntime_cxx_api.h>
#include <sched.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>

#include <array>
#include <cstring>
#include <string>

#include "common/cpu.h"
#include "zorv_core.h"

namespace zorv::telemetry {
namespace {

/// The processor's own name for itself, 48 bytes from three leaves.
std::string processorName() {
    std::array<unsigned, 13> words{};
    for (unsigned leaf = 0; leaf < 3; ++leaf) {
        unsigned* part = words.data() + std::size_t{4} * leaf;
        if (!__get_cpuid(0x80000002u + leaf, part, part + 1, part + 2, part + 3)) return "unknown";
    }
    std::string name(reinterpret_cast<const char*>(words.data()));
    name.erase(0, name.find_first_not_of(' '));
    name.erase(name.find_last_not_of(' ') + 1);
    return name;
}

/// Cores that this process may use.
int coreCount() {
    cpu_set_t set;
    CPU_ZERO(&set);
    return sched_getaffinity(0, sizeof set, &set) == 0 ? CPU_COUNT(&set) : 0;
}

std::uint64_t memoryBytes() {
    struct sysinfo info;
    return sysinfo(&info) == 0 ? std::uint64_t{info.totalram} * info.mem_unit : 0;
}

std::string libraryVersion() {
    return std::to_string(ZORV_VERSION_MAJOR) + "." + std::to_string(ZORV_VERSION_MINOR) + "." +
           std::to_string(ZORV_VERSION_PATCH);
}

}  // namespace

void writeDevice(JsonWriter& json) {
    struct utsname kernel;
    const bool known = uname(&kernel) == 0;
    json.open('{');
    json.key("processor").value(processorName());
    json.key("cores").value(coreCount());
    json.key("instruction_sets").open('[');
    if (detectedSimdLevel() >= SimdLevel::kAvx2) json.value("avx2");
    if (hasAvxVnni()) json.value("avx_vnni");
    if (detectedSimdLevel() >= SimdLevel::kAvx512) json.value("avx512");
    if (hasAvx512Vnni()) json.value("avx512_vnni");
    json.close(']');
    json.key("kernel_paths").value(simdLevelName(simdLevel()));
    json.key("memory_bytes").value(memoryBytes());
    json.key("system").value(known ? kernel.sysname : "unknown");
    json.key("system_release").value(known ? kernel.release : "unknown");
    json.key("library_version").value(libraryVersion());
    json.key("onnxruntime_version").value(OrtGetApiBase()->GetVersionString());
    json.close('}');
}

}  // namespace zorv::telemetry
