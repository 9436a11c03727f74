// The machine and the model runtime as the library meets them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zorv::tools {

struct RuntimeFacts {
    std::string path;       // of the loaded library
    std::string version;    // that it gives itself
    int built_against = 0;  // API version, the second part of the version number
    bool usable = false;    // offers that API
    bool matches() const;   // the loaded version is the one that was built against
};

struct MachineFacts {
    std::string processor;
    std::vector<std::string> instruction_sets;
    std::vector<std::pair<std::string, std::string>> kernels;  // name, path
    int allowed_cores = 0;                                     // by affinity
    std::optional<double> core_quota;                          // of the control group
    uint64_t memory_bytes = 0, available_bytes = 0;            // limits of the group regarded
    double load_average = 0;
    std::string library_version;
    bool optimised = false;  // the program's own compilation, which is the library's
    RuntimeFacts runtime;

    double usable_cores() const;
    /** The highest level of the processor: "portable", "avx2" or "avx512". */
    std::string best_level() const;
};

MachineFacts machine_facts();

}  // namespace zorv::tools
