// What a control group leaves to this process, in a container or under a service manager.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace zorv::tools {

struct CgroupLimits {
    std::optional<double> cores;          // processor time per time; none: no quota
    std::optional<uint64_t> memoryBytes;  // none: no limit
};

/// The tightest limits of the process's groups and of those above them, version 1 or 2.
/// membership  the text of /proc/self/cgroup.
/// mount       where the hierarchies are mounted: /sys/fs/cgroup.
/// Files that are not there or hold no number limit nothing.
CgroupLimits readCgroupLimits(const std::string& membership, const std::string& mount);

}  // namespace zorv::tools
