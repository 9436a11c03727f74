// What an inspection of a bundle found, file by file.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "model_report.h"

namespace zorv::tools {

/// kWarning: the library accepts it, but it is probably a mistake. kFault: something fails.
enum class Severity { kOk, kWarning, kFault };

struct Finding {
    Severity severity;
    std::string what;
    std::string expected;  // may be empty
};

/// One file, or a run of numbered files that are all in the same state.
struct FileReport {
    std::string name;           // relative to the bundle
    std::string lastName = "";  // the run's last; empty for one file
    int64_t count = 1;          // files of the run
    std::string content = "";   // what it holds, in words
    std::vector<Finding> findings = {};
    std::optional<ModelReport> model = {};

    void warn(std::string what, std::string expected = "") {
        findings.push_back({Severity::kWarning, std::move(what), std::move(expected)});
    }
    void fault(std::string what, std::string expected = "") {
        findings.push_back({Severity::kFault, std::move(what), std::move(expected)});
    }
    Severity severity() const {
        Severity worst = Severity::kOk;
        for (const Finding& finding : findings) worst = std::max(worst, finding.severity);
        return worst;
    }
};

/// What the manifest says; a number is there only when it can be used.
struct BundleFacts {
    std::string agent;
    std::optional<int> targetFrames, height, width, crop, driveFrames;
    std::optional<double> amount, sigma;  // of the sharpening
    std::optional<int> ksize;
    int placementWidth = 0, placementHeight = 0;  // frames that M.f32 was computed for
};

struct BundleReport {
    std::string directory;
    BundleFacts facts;
    std::vector<FileReport> files;
    std::vector<std::string> others;  // names that the format does not know; not looked into

    /// Findings of this severity.
    int64_t count(Severity severity) const {
        int64_t sum = 0;
        for (const FileReport& file : files) {
            sum += std::count_if(
                file.findings.begin(), file.findings.end(),
                [severity](const Finding& finding) { return finding.severity == severity; });
        }
        return sum;
    }
    bool good() const { return count(Severity::kFault) == 0; }
};

}  // namespace zorv::tools
