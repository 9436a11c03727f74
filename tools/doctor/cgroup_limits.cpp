#include "cgroup_limits.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace zorv::tools {
namespace {

constexpr uint64_t kNoLimit = uint64_t{1} << 60;  // version 1 writes "no limit" as a huge number

/// The number at `place` of a file's line of numbers; "max" is none.
std::optional<double> numberIn(const fs::path& file, int place = 0) {
    std::ifstream text(file);
    std::string word;
    for (int i = 0; i <= place; ++i) {
        if (!(text >> word)) return std::nullopt;
    }
    std::istringstream digits(word);
    double value = 0;
    if (!(digits >> value) || value < 0) return std::nullopt;
    return value;
}

template <class Value>
void tighten(std::optional<Value>& limit, Value value) {
    limit = limit ? std::min(*limit, value) : value;
}

void tightenCores(CgroupLimits& limits, std::optional<double> quota, std::optional<double> period) {
    if (quota && period && *period > 0) tighten(limits.cores, *quota / *period);
}

void tightenMemory(CgroupLimits& limits, std::optional<double> bytes) {
    if (bytes && *bytes < static_cast<double>(kNoLimit)) {
        tighten(limits.memoryBytes, static_cast<uint64_t>(*bytes));
    }
}

void lookAt(CgroupLimits& limits, const fs::path& group) {
    tightenCores(limits, numberIn(group / "cpu.max"), numberIn(group / "cpu.max", 1));
    tightenCores(limits, numberIn(group / "cpu.cfs_quota_us"),
                 numberIn(group / "cpu.cfs_period_us"));
    tightenMemory(limits, numberIn(group / "memory.max"));
    tightenMemory(limits, numberIn(group / "memory.limit_in_bytes"));
}

/// The group and all above it. In a container the path may be that of the host, which is not
///  there; the mount itself is then the container's group.
void lookUpwards(CgroupLimits& limits, const fs::path& hierarchy, const std::string& path) {
    for (fs::path group = fs::path(path).relative_path();; group = group.parent_path()) {
        lookAt(limits, hierarchy / group);
        if (group.empty()) return;
    }
}

}  // namespace

CgroupLimits readCgroupLimits(const std::string& membership, const std::string& mount) {
    CgroupLimits limits;
    std::istringstream lines(membership);
    // "number:controllers:path"; version 2 has no controllers.
    for (std::string line; std::getline(lines, line);) {
        const size_t first = line.find(':'), second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos) continue;
        const std::string path = line.substr(second + 1);
        std::istringstream controllers(line.substr(first + 1, second - first - 1));
        if (second == first + 1) {
            lookUpwards(limits, mount, path);
            lookUpwards(limits, fs::path(mount) / "unified", path);
        }
        for (std::string name; std::getline(controllers, name, ',');) {
            if (name == "cpu" || name == "memory") {
                lookUpwards(limits, fs::path(mount) / name, path);
            }
        }
    }
    return limits;
}

}  // namespace zorv::tools
