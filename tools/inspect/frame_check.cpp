#include "frame_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "capi/target_frames.h"
#include "capi/zorv_image.h"
#include "common/file.h"
#include "failure.h"
#include "interrupt.h"
#include "progress.h"

namespace fs = std::filesystem;

namespace zorv::tools {
namespace {

constexpr const char* kFolder = "target_frames";
constexpr size_t kMostPixels = 1 << 28;  // larger pictures are refused: no frame is as large

bool isJpeg(const std::string& file) {
    return file.size() > 3 && file.compare(0, 2, "\xff\xd8") == 0;
}

/// Whether the picture's data are followed by their end mark. The decoder fills the missing part
///  of a file that was cut off with grey and says nothing.
bool isCompleteJpeg(const std::string& file) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(file.data());
    size_t at = 2;
    while (at + 4 <= file.size() && bytes[at] == 0xff) {  // segments before the picture's data
        const size_t length = static_cast<size_t>(bytes[at + 2] << 8 | bytes[at + 3]);
        const bool dataFollow = bytes[at + 1] == 0xda;
        at += 2 + length;
        if (dataFollow) break;
    }
    for (; at + 2 <= file.size(); ++at) {
        if (bytes[at] == 0xff && bytes[at + 1] == 0xd9) return true;
    }
    return false;
}

std::string wantedSize(const BundleFacts& facts) {
    const auto text = [](const std::optional<int>& value, const char* key) {
        return value ? std::to_string(*value) : key;
    };
    return fmt::format("a JPEG picture of {} x {}", text(facts.width, "W"),
                       text(facts.height, "H"));
}

/// The frames' indices found in the folder, in order; other names go to `others`.
std::vector<int> framesInFolder(const std::string& directory, std::vector<std::string>& others) {
    std::vector<int> indices;
    std::error_code error;
    for (fs::directory_iterator entry(directory + "/" + kFolder, error), end; entry != end;
         entry.increment(error)) {
        const std::string name = std::string(kFolder) + "/" + entry->path().filename().string();
        const long index = std::atol(name.c_str() + sizeof "target_frames/frame_" - 1);
        if (index >= 0 && index < INT_MAX && name == frameName(static_cast<int>(index))) {
            indices.push_back(static_cast<int>(index));
        } else {
            others.push_back(name);
        }
    }
    std::sort(indices.begin(), indices.end());
    return indices;
}

std::string pathOf(const std::string& directory, int index) {
    Manifest manifest;
    manifest.dir = directory;
    return targetPath(manifest, index);
}

std::string contentOf(const std::string& directory, int index) {
    std::string content;
    if (readWholeFile(pathOf(directory, index), content) != ReadStatus::kOk) {
        fail("cannot be read");
    }
    return content;
}

/// Appends what was found about frames first .. last, to the run before when it is in that state.
void append(std::vector<FileReport>& runs, int first, int last, const Finding& finding,
            const std::string& content) {
    const int64_t count = int64_t{last} - first + 1;
    const auto same = [&](const FileReport& run) {
        if (run.content != content || run.findings.empty() != finding.what.empty()) return false;
        return finding.what.empty() || run.findings[0].what == finding.what;
    };
    if (runs.empty() || !same(runs.back())) {
        runs.push_back({frameName(first), "", 0, content});
        if (!finding.what.empty()) runs.back().findings.push_back(finding);
    }
    FileReport& run = runs.back();
    run.count += count;
    if (run.count > 1) run.lastName = frameName(last);
}

Finding checkFrame(const std::string& directory, int index, const BundleFacts& facts) {
    try {
        decodeFrame(directory, index, facts.width.value_or(0), facts.height.value_or(0));
        if (!isJpeg(contentOf(directory, index))) {
            return {Severity::kWarning, "a picture, but no JPEG", wantedSize(facts)};
        }
    } catch (const Interrupted&) {
        throw;
    } catch (const Failure& error) {
        return {Severity::kFault, error.what(), wantedSize(facts)};
    }
    return {Severity::kOk, "", ""};
}

}  // namespace

std::string frameName(int index) {
    return fmt::format("{}/frame_{:06}.jpg", kFolder, index);
}

std::vector<uint8_t> decodeFrame(const std::string& directory, int index, int width, int height) {
    const std::string path = pathOf(directory, index);
    if (path.size() < directory.size() + 1 + frameName(index).size()) {
        fail("its path has more than {} characters", path.size());
    }
    int w = 0, h = 0;
    std::vector<uint8_t> rgb;
    try {
        rgb = loadImageRGB(path, w, h, kMostPixels);
    } catch (const std::runtime_error&) {
        fail("cannot be decoded");
    }
    // Sizes that the manifest does not tell are not compared.
    if ((width > 0 && w != width) || (height > 0 && h != height)) fail("is {} x {}", w, h);
    if (const std::string file = contentOf(directory, index);
        isJpeg(file) && !isCompleteJpeg(file)) {
        fail("is cut off after {} bytes, in the middle of the picture", file.size());
    }
    return rgb;
}

std::vector<FileReport> checkFrames(const std::string& directory, const BundleFacts& facts) {
    std::vector<FileReport> runs;
    std::vector<std::string> others;
    const std::vector<int> there = framesInFolder(directory, others);
    // Without the manifest's count the frames that are there are looked at all the same.
    const int wanted = facts.targetFrames.value_or(there.empty() ? 0 : there.back() + 1);
    const Finding missing = {Severity::kFault, "missing", wantedSize(facts)};
    const std::string content = wantedSize(facts).substr(sizeof "a " - 1);
    if (!facts.targetFrames && there.empty()) {
        runs.push_back({kFolder});
        runs.back().fault("no frames", "NT files frame_000000.jpg, frame_000001.jpg, ...");
    }
    const auto used = std::lower_bound(there.begin(), there.end(), wanted);
    int next = 0;
    {
        Progress progress(static_cast<int>(used - there.begin()));
        for (auto frame = there.begin(); frame != used; ++frame) {
            throwIfInterrupted();
            if (next < *frame) append(runs, next, *frame - 1, missing, "");
            const Finding finding = checkFrame(directory, *frame, facts);
            append(runs, *frame, *frame, finding, finding.what.empty() ? content : "");
            next = *frame + 1;
            progress.update(static_cast<int>(frame - there.begin()) + 1);
        }
    }
    if (next < wanted) append(runs, next, wanted - 1, missing, "");
    if (used != there.end()) {
        append(runs, *used, there.back(),
               {Severity::kWarning, "not used", fmt::format("{} frames", wanted)}, "");
    }
    for (const std::string& name : others) {
        runs.push_back({name});
        runs.back().warn("not used: no frame's name", "frame_000000.jpg, frame_000001.jpg, ...");
    }
    return runs;
}

}  // namespace zorv::tools
