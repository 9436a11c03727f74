#include "bundle_files.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "failure.h"
#include "file_view.h"
#include "interrupt.h"

namespace fs = std::filesystem;

namespace zorv::tools {
namespace {

constexpr int kNT = -1, kFrames = -2, kCrop = -3;

struct Manifested {
    const char* key;
    std::optional<int> value;
};

Manifested manifested(int dimension, const BundleFacts& facts) {
    switch (dimension) {
        case kNT:
            return {"NT", facts.target_frames};
        case kFrames:
            return {"frames", facts.drive_frames};
        case kCrop:
            return {"crop", facts.crop};
        default:
            return {"", dimension};
    }
}

std::string shape_text(const TensorFile& file, const BundleFacts& facts) {
    std::vector<std::string> words;
    for (const int dimension : file.shape) {
        const auto [key, value] = manifested(dimension, facts);
        words.push_back(value ? std::to_string(*value) : key);
    }
    return fmt::format("{} {}", fmt::join(words, " x "), file.type);
}

/** Bytes of the dimensions from `first` on; nothing when a number is missing or too large. */
std::optional<uint64_t> bytes_of(const TensorFile& file, const BundleFacts& facts, size_t first) {
    uint64_t bytes = file.element_bytes;
    for (size_t i = first; i < file.shape.size(); ++i) {
        const auto value = manifested(file.shape[i], facts).value;
        if (!value || __builtin_mul_overflow(bytes, static_cast<uint64_t>(*value), &bytes))
            return std::nullopt;
    }
    return bytes;
}

bool numbers_known(const TensorFile& file, const BundleFacts& facts) {
    return std::all_of(file.shape.begin(), file.shape.end(), [&](int dimension) {
        return manifested(dimension, facts).value.has_value();
    });
}

bool check_size(const TensorFile& file, const BundleFacts& facts, uint64_t size,
                FileReport& report) {
    const auto wanted = bytes_of(file, facts, 0);
    if (!wanted && numbers_known(file, facts)) {
        report.fault(fmt::format("{} bytes", size),
                     expected_content(file, facts) + ", more than any file can hold");
        return false;
    }
    if (!wanted) {
        report.warn(fmt::format("{} bytes, which cannot be checked without the manifest", size),
                    expected_content(file, facts));
        return false;
    }
    if (size == *wanted) return true;
    const bool longer = size > *wanted;
    std::string what =
        fmt::format("{} bytes, {} too {}", size, longer ? size - *wanted : *wanted - size,
                    longer ? "many" : "few");
    const uint64_t row = bytes_of(file, facts, 1).value_or(0);
    if (file.shape.size() > 1 && row > 0 && size > 0 && size % row == 0)
        what += fmt::format(" ({} rows)", size / row);
    if (file.may_be_longer && longer) {
        report.warn(what + "; the rest is ignored", expected_content(file, facts));
        return true;
    }
    report.fault(what, expected_content(file, facts));
    return false;
}

bool finite(float value) {
    return std::isfinite(value);
}
bool finite(uint16_t half_bits) {
    return (half_bits & 0x7c00) != 0x7c00;
}

template <typename T>
void check_finite(const T* values, size_t count, size_t row, FileReport& report) {
    size_t bad = 0, first = 0;
    for (size_t i = 0; i < count; ++i)
        if (!finite(values[i]) && bad++ == 0) first = i;
    if (bad > 0)
        report.warn(fmt::format("{} of {} values are not finite, the first is value {} of row {}",
                                bad, count, first % row, first / row),
                    "finite numbers");
}

void check_indices(const int32_t* values, size_t count, const BundleFacts& facts,
                   FileReport& report) {
    if (!facts.target_frames) return;
    size_t bad = 0, first = 0;
    for (size_t i = 0; i < count; ++i)
        if ((values[i] < 0 || values[i] >= *facts.target_frames) && bad++ == 0) first = i;
    if (bad > 0)
        report.fault(fmt::format("{} of {} indices are out of range, the first is entry {}: {}",
                                 bad, count, first, values[first]),
                     fmt::format("0 to {}", *facts.target_frames - 1));
}

void check_mask(const uint8_t* values, size_t count, FileReport& report) {
    if (std::all_of(values, values + count, [](uint8_t value) { return value == 0; }))
        report.warn("all 0, so that nothing of a crop is shown");
}

/** "3, 4, 5 and 7 more". */
std::string some_of(const std::vector<int>& rows) {
    constexpr size_t kShown = 8;
    const size_t shown = std::min(rows.size(), kShown);
    std::string text = fmt::format("{}", fmt::join(rows.data(), rows.data() + shown, ", "));
    if (shown < rows.size()) text += fmt::format(" and {} more", rows.size() - shown);
    return text;
}

bool misses_frame(const float* M, int side, int width, int height) {
    float left = HUGE_VALF, right = -HUGE_VALF, top = HUGE_VALF, bottom = -HUGE_VALF;
    for (const int corner : {0, 1, 2, 3}) {
        const auto x = static_cast<float>(corner & 1 ? side - 1 : 0);
        const auto y = static_cast<float>(corner & 2 ? side - 1 : 0);
        const float px = M[0] * x + M[1] * y + M[2], py = M[3] * x + M[4] * y + M[5];
        left = std::min(left, px), right = std::max(right, px);
        top = std::min(top, py), bottom = std::max(bottom, py);
    }
    return right < 0 || bottom < 0 || left > static_cast<float>(width - 1) ||
           top > static_cast<float>(height - 1);
}

void check_placements(const std::string& directory, const BundleFacts& facts, FileReport& report) {
    const std::vector<float> placements = read_placements(directory, facts);
    std::vector<int> singular, outside;
    for (size_t row = 0; row < placements.size() / 6; ++row) {
        const float* M = placements.data() + row * 6;
        if (!std::all_of(M, M + 6, [](float value) { return finite(value); })) continue;
        if (1.0 * M[0] * M[4] - 1.0 * M[1] * M[3] == 0)
            singular.push_back(static_cast<int>(row));
        else if (facts.crop && facts.width && facts.height &&
                 misses_frame(M, *facts.crop, *facts.width, *facts.height))
            outside.push_back(static_cast<int>(row));
    }
    if (!singular.empty())
        report.warn(
            fmt::format("singular placement in row {}: nothing is pasted there", some_of(singular)),
            "a d - b c other than 0");
    if (!outside.empty())
        report.warn(fmt::format("placement wholly outside the frame in row {}", some_of(outside)));
}

/** The values that the library reads, `bytes` of them. */
void check_values(const TensorFile& file, const FileView& data, size_t bytes,
                  const BundleFacts& facts, FileReport& report) {
    const size_t count = bytes / file.element_bytes;
    const size_t row = bytes_of(file, facts, 1).value_or(file.element_bytes) / file.element_bytes;
    const std::string type = file.type;
    if (type == "float16")
        check_finite(reinterpret_cast<const uint16_t*>(data.data()), count, row, report);
    else if (type == "float32")
        check_finite(reinterpret_cast<const float*>(data.data()), count, row, report);
    else if (type == "int32")
        check_indices(reinterpret_cast<const int32_t*>(data.data()), count, facts, report);
    else
        check_mask(data.data(), count, report);
}

}  // namespace

const std::vector<TensorFile>& tensor_files() {
    static const std::vector<TensorFile> files = {
        {"pooled64.f16", Reader::kContext, "float16", 2, {kNT, 64, 32, 32}, false},
        {"P.f16", Reader::kStandardGraph, "float16", 2, {kNT, 3, kCrop, kCrop}, false},
        {"fs_red.f16", Reader::kFeatSynthGraph, "float16", 2, {kNT, 64, 64, 64}, false},
        {"M.f32", Reader::kContext, "float32", 4, {kNT, 6}, false},
        {"mask_512.u8", Reader::kContext, "uint8", 1, {kCrop, kCrop}, true},
        {"drive/xs.f32", Reader::kContext, "float32", 4, {kFrames, kKeypointFloats}, false},
        {"drive/xd.f32", Reader::kContext, "float32", 4, {kFrames, kKeypointFloats}, false},
        {"drive/si.i32", Reader::kContext, "int32", 4, {kFrames}, false},
        {"xs_target.bin", Reader::kBatchStream, "float32", 4, {kNT, kKeypointFloats}, true},
    };
    return files;
}

std::optional<uint64_t> file_size_of(const std::string& directory, FileReport& report) {
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

std::string expected_content(const TensorFile& file, const BundleFacts& facts) {
    const auto bytes = bytes_of(file, facts, 0);
    const std::string shape = shape_text(file, facts);
    return bytes ? fmt::format("{} = {} bytes", shape, *bytes) : shape;
}

void check_tensor_file(const TensorFile& file, const std::string& directory,
                       const BundleFacts& facts, FileReport& report) {
    const auto size = file_size_of(directory, report);
    if (!size) {
        report.findings.back().expected = expected_content(file, facts);
        return;
    }
    if (!check_size(file, facts, *size, report)) return;
    report.content = expected_content(file, facts);
    if (*size == 0) return;
    try {
        throw_if_interrupted();
        const FileView data(directory + "/" + report.name);
        if (data.size() != *size) fail("its size changes");
        check_values(file, data, bytes_of(file, facts, 0).value_or(*size), facts, report);
    } catch (const Interrupted&) {
        throw;
    } catch (const Failure& error) {
        report.fault(fmt::format("cannot be read: {}", error.what()));
        return;
    }
    if (report.name == "M.f32") check_placements(directory, facts, report);
}

std::vector<float> read_placements(const std::string& directory, const BundleFacts& facts) {
    const auto count = static_cast<size_t>(facts.target_frames.value_or(0)) * 6;
    std::vector<float> placements = read_floats(directory + "/M.f32", count);
    if (!facts.width || !facts.height || facts.placement_width < 1 || facts.placement_height < 1)
        return placements;
    const double across = 1.0 * *facts.width / facts.placement_width;
    const double down = 1.0 * *facts.height / facts.placement_height;
    for (size_t i = 0; i < placements.size(); ++i)
        placements[i] = static_cast<float>(placements[i] * (i % 6 < 3 ? across : down));
    return placements;
}

}  // namespace zorv::tools
