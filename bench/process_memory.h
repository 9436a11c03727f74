// What a process occupies.
#pragma once

#include <cstdlib>
#include <fstream>
#include <string>

namespace zorv::bench {

/// In MiB: "own" is memory that no other process shares, "mapped" the resident pages of files,
/// which all processes and handles that map them share.
struct Memory {
    double own = 0, mapped = 0;
};

inline Memory memoryNow() {
    std::ifstream file("/proc/self/smaps_rollup");
    double resident = 0, own = 0;
    for (std::string line; std::getline(file, line);) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        const double mib = std::atof(line.c_str() + colon + 1) / 1024;
        if (line.rfind("Rss:", 0) == 0) resident = mib;
        if (line.rfind("Anonymous:", 0) == 0) own = mib;
    }
    return {own, resident - own};
}

}  // namespace zorv::bench
