#include "frame_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "failure.h"
#include "file_view.h"
#include "interrupt.h"
#include "progress.h"

// The library decodes frames with the same code, so both agree on what a picture is.
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_STATIC
#define STBI_NO_HDR
#define STBI_NO_LINEAR
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#include <stb_image.h>
#pragma GCC diagnostic pop

namespace fs = std::filesystem;

namespace zorv::tools {
namespace {

constexpr const char* kFolder = "target_frames";
constexpr size_t kLongestPath = 1023;  // of a frame, in the library

bool isJpeg(const FileView& file) {
    return file.size() > 3 && file.data()[0] == 0xff && file.data()[1] == 0xd8;
}

/// Whether the picture's data are followed by their end mark. The decoder fills the missing part
///  of a file that was cut off with grey and says nothing.
bool isCompleteJpeg(const FileView& file) {
    const uint8_t* bytes = file.data();
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
        const std::string path = directory + "/" + frameName(index);
        decodeFrame(directory, index, facts.width.value_or(0), facts.height.value_or(0));
        if (!isJpeg(FileView(path))) {
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
    const std::string path = directory + "/" + frameName(index);
    if (path.size() > kLongestPath) {
        fail("its path has {} characters, more than {}", path.size(), kLongestPath);
    }
    const FileView file(path);
    if (file.size() > INT_MAX) fail("{} bytes are too many for a picture", file.size());
    const int size = static_cast<int>(file.size());
    int w = 0, h = 0, channels = 0;
    if (size == 0) fail("is empty");
    if (!stbi_info_from_memory(file.data(), size, &w, &h, &channels)) {
        fail("cannot be decoded: {}", stbi_failure_reason());
    }
    // Sizes that the manifest does not tell are not compared.
    if ((width > 0 && w != width) || (height > 0 && h != height)) fail("is {} x {}", w, h);
    const std::unique_ptr<stbi_uc, void (*)(void*)> pixels(
        stbi_load_from_memory(file.data(), size, &w, &h, &channels, 3), stbi_image_free);
    if (!pixels) fail("cannot be decoded: {}", stbi_failure_reason());
    if (isJpeg(file) && !isCompleteJpeg(file)) {
        fail("is cut off after {} bytes, in the middle of the picture", size);
    }
    return {pixels.get(),
            pixels.get() + size_t{3} * static_cast<size_t>(w) * static_cast<size_t>(h)};
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
