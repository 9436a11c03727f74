// The machine and the model runtime as the library meets them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zorv::tools {

struct RuntimeFacts {
    std::string path;      // of the loaded library
    std::string version;   // that it gives itself
    int builtAgainst = 0;  // API version, the second part of the version number
    bool usable = false;   // offers that API
    bool matches() const;  // the loaded version is the one that was built against
};

struct MachineFacts {
    std::string processor;
    std::vector<std::string> instructionSets;
    std::vector<std::pair<std::string, std::string>> kernels;  // name, path
    int allowedCores = 0;                                      // by affinity
    std::optional<double> coreQuota;                           // of the control group
    uint64_t memoryBytes = 0, availableBytes = 0;              // limits of the group regarded
    double loadAverage = 0;
    std::string libraryVersion;
    bool optimised = false;  // the program's own compilation, which is the library's
    RuntimeFacts runtime;

    double usableCores() const;
    /// The highest level of the processor: "portable", "avx2" or "avx512".
    std::string bestLevel() const;
};

MachineFacts machineFacts();

}  // namespace zorv::tools
