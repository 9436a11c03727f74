#include "bundle_files.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <stdexcept>

#include "failure.h"
#include "interrupt.h"
#include "paste/paste_placement.h"

namespace fs = std::filesystem;

namespace zorv::tools {
namespace {

struct Manifested {
    const char* key;
    std::optional<int> value;
};

Manifested manifested(int dimension, const BundleFacts& facts) {
    switch (dimension) {
        case TensorFile::kNT:
            return {"NT", facts.targetFrames};
        case TensorFile::kFrames:
            return {"frames", facts.driveFrames};
        case TensorFile::kCrop:
            return {"crop", facts.crop};
        default:
            return {"", dimension};
    }
}

/// The dimensions of `file` from `first` on.
std::vector<Manifested> dimensions(const TensorFile& file, const BundleFacts& facts,
                                   size_t first = 0) {
    std::vector<Manifested> all;
    for (size_t i = first; i < file.shape.size() && file.shape[i] != 0; ++i) {
        all.push_back(manifested(file.shape[i], facts));
    }
    return all;
}

std::string shapeText(const TensorFile& file, const BundleFacts& facts) {
    std::vector<std::string> words;
    for (const auto& [key, value] : dimensions(file, facts)) {
        words.push_back(value ? std::to_string(*value) : key);
    }
    return fmt::format("{} {}", fmt::join(words, " x "), file.type);
}

/// Bytes of the dimensions from `first` on; nothing when a number is missing or too large.
std::optional<uint64_t> bytesOf(const TensorFile& file, const BundleFacts& facts, size_t first) {
    uint64_t bytes = file.elementBytes;
    for (const auto& [key, value] : dimensions(file, facts, first)) {
        if (!value || __builtin_mul_overflow(bytes, static_cast<uint64_t>(*value), &bytes)) {
            return std::nullopt;
        }
    }
    return bytes;
}

bool numbersKnown(const TensorFile& file, const BundleFacts& facts) {
    const auto all = dimensions(file, facts);
    return std::all_of(all.begin(), all.end(),
                       [](const Manifested& one) { return one.value.has_value(); });
}

bool checkSize(const BundleFile& checked, const BundleFacts& facts, uint64_t size,
               FileReport& report) {
    const TensorFile& file = checked.tensor;
    const auto wanted = bytesOf(file, facts, 0);
    if (!wanted && numbersKnown(file, facts)) {
        report.fault(fmt::format("{} bytes", size),
                     expectedContent(checked, facts) + ", more than any file can hold");
        return false;
    }
    if (!wanted) {
        report.warn(fmt::format("{} bytes, which cannot be checked without the manifest", size),
                    expectedContent(checked, facts));
        return false;
    }
    if (size == *wanted) return true;
    const bool longer = size > *wanted;
    std::string what =
        fmt::format("{} bytes, {} too {}", size, longer ? size - *wanted : *wanted - size,
                    longer ? "many" : "few");
    const uint64_t row = bytesOf(file, facts, 1).value_or(0);
    if (file.shape[1] != 0 && row > 0 && size > 0 && size % row == 0) {
        what += fmt::format(" ({} rows)", size / row);
    }
    if (checked.mayBeLonger && longer) {
        report.warn(what + "; the rest is ignored", expectedContent(checked, facts));
        return true;
    }
    report.fault(what, expectedContent(checked, facts));
    return false;
}

bool finite(float value) {
    return std::isfinite(value);
}
bool finite(uint16_t halfBits) {
    return (halfBits & 0x7c00) != 0x7c00;
}

template <typename T>
void checkFinite(const T* values, size_t count, size_t row, FileReport& report) {
    size_t bad = 0, first = 0;
    for (size_t i = 0; i < count; ++i) {
        if (!finite(values[i]) && bad++ == 0) first = i;
    }
    if (bad > 0) {
        report.warn(fmt::format("{} of {} values are not finite, the first is value {} of row {}",
                                bad, count, first % row, first / row),
                    "finite numbers");
    }
}

void checkIndices(const int32_t* values, size_t count, const BundleFacts& facts,
                  FileReport& report) {
    if (!facts.targetFrames) return;
    size_t bad = 0, first = 0;
    for (size_t i = 0; i < count; ++i) {
        if ((values[i] < 0 || values[i] >= *facts.targetFrames) && bad++ == 0) first = i;
    }
    if (bad > 0) {
        report.fault(fmt::format("{} of {} indices are out of range, the first is entry {}: {}",
                                 bad, count, first, values[first]),
                     fmt::format("0 to {}", *facts.targetFrames - 1));
    }
}

void checkMask(const uint8_t* values, size_t count, FileReport& report) {
    if (std::all_of(values, values + count, [](uint8_t value) { return value == 0; })) {
        report.warn("all 0, so that nothing of a crop is shown");
    }
}

/// "3, 4, 5 and 7 more".
std::string someOf(const std::vector<int>& rows) {
    constexpr size_t kShown = 8;
    const size_t shown = std::min(rows.size(), kShown);
    std::string text = fmt::format("{}", fmt::join(rows.data(), rows.data() + shown, ", "));
    if (shown < rows.size()) text += fmt::format(" and {} more", rows.size() - shown);
    return text;
}

void checkPlacements(const std::string& directory, const BundleFacts& facts, FileReport& report) {
    if (!facts.crop || !facts.width || !facts.height) return;
    const std::vector<float> placements = readPlacements(directory, facts);
    std::vector<int> unseen;
    for (size_t row = 0; row < placements.size() / 6; ++row) {
        const float* m = placements.data() + row * 6;
        if (!std::all_of(m, m + 6, [](float value) { return finite(value); })) continue;
        if (!Placement().locate(m, *facts.crop, *facts.width, *facts.height)) {
            unseen.push_back(static_cast<int>(row));
        }
    }
    if (!unseen.empty()) {
        report.warn(
            fmt::format("nothing is pasted in row {}: the placement is singular or wholly "
                        "outside the frame",
                        someOf(unseen)));
    }
}

/// The values that the library reads, `bytes` of them.
void checkValues(const TensorFile& file, const MappedFile& data, size_t bytes,
                 const BundleFacts& facts, FileReport& report) {
    const size_t count = bytes / file.elementBytes;
    const size_t row = bytesOf(file, facts, 1).value_or(file.elementBytes) / file.elementBytes;
    const std::string type = file.type;
    if (type == "float16") {
        checkFinite(reinterpret_cast<const uint16_t*>(data.data()), count, row, report);
    } else if (type == "float32") {
        checkFinite(reinterpret_cast<const float*>(data.data()), count, row, report);
    } else if (type == "int32") {
        checkIndices(reinterpret_cast<const int32_t*>(data.data()), count, facts, report);
    } else {
        checkMask(data.data(), count, report);
    }
}

}  // namespace

const std::vector<BundleFile>& tensorFiles() {
    static const std::vector<BundleFile> all = {
        {files::kPooled, Reader::kContext},
        {files::kImages, Reader::kStandardGraph},
        {files::kReduced, Reader::kFeatSynthGraph},
        {files::kPlacements, Reader::kContext},
        {files::kMask, Reader::kContext, true},
        {files::kDriveSource, Reader::kContext},
        {files::kDriveDriving, Reader::kContext},
        {files::kDriveTargets, Reader::kContext},
        {files::kTargetKeypoints, Reader::kBatchStream, true},
    };
    return all;
}

std::optional<uint64_t> fileSizeOf(const std::string& directory, FileReport& report) {
    std::error_code error;
    const fs::path path = directory + "/" + report.name;
    const fs::file_status status = fs::status(path, error);
    if (!fs::exists(status)) {
        report.fault("missing");
        return std::nullopt;
    }
    const uint64_t size = fs::is_regular_file(status) ? fs::file_size(path, error) : 0;
    if (!fs::is_regular_file(status) || error) {
        report.fault(error ? error.message() : "no regular file", "a readable file");
        return std::nullopt;
    }
    return size;
}

std::string expectedContent(const BundleFile& file, const BundleFacts& facts) {
    const auto bytes = bytesOf(file.tensor, facts, 0);
    const std::string shape = shapeText(file.tensor, facts);
    return bytes ? fmt::format("{} = {} bytes", shape, *bytes) : shape;
}

void checkTensorFile(const BundleFile& file, const std::string& directory, const BundleFacts& facts,
                     FileReport& report) {
    const auto size = fileSizeOf(directory, report);
    if (!size) {
        report.findings.back().expected = expectedContent(file, facts);
        return;
    }
    if (!checkSize(file, facts, *size, report)) return;
    report.content = expectedContent(file, facts);
    if (*size == 0) return;
    try {
        throwIfInterrupted();
        const MappedFile data = mapFile(directory + "/" + report.name, *size);
        checkValues(file.tensor, data, bytesOf(file.tensor, facts, 0).value_or(*size), facts,
                    report);
    } catch (const Interrupted&) {
        throw;
    } catch (const std::runtime_error& error) {
        report.fault(fmt::format("cannot be read: {}", error.what()));
        return;
    }
    if (report.name == files::kPlacements.name) checkPlacements(directory, facts, report);
}

std::vector<float> readPlacements(const std::string& directory, const BundleFacts& facts) try {
    Manifest manifest;
    manifest.dir = directory;
    manifest.NT = facts.targetFrames.value_or(0);
    manifest.W = facts.width.value_or(0);
    manifest.H = facts.height.value_or(0);
    if (facts.width && facts.height) {
        manifest.M_src_w = facts.placementWidth;
        manifest.M_src_h = facts.placementHeight;
    }
    return loadPlacements(manifest);
} catch (const std::exception&) {  // the report says why
    return {};
}

std::vector<float> readFloats(const std::string& path, size_t count) try {
    const MappedFile file = mapFile(path, fs::file_size(path));
    if (file.length() / sizeof(float) < count) return {};
    const auto* values = reinterpret_cast<const float*>(file.data());
    return {values, values + count};
} catch (const std::exception&) {
    return {};
}

}  // namespace zorv::tools
