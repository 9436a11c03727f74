#include "input_check.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "failure.h"

namespace fs = std::filesystem;

namespace zorv::tools {

void checkIsBundle(const std::string& path) {
    std::error_code error;
    if (!fs::is_directory(path, error)) fail("no bundle directory '{}'; check the path", path);
    if (!fs::exists(fs::path(path) / "manifest.json", error)) {
        fail("'{}' holds no manifest.json; name the directory of a prepared subject", path);
    }
}

void checkIsNotSound(const std::string& output, const std::string& audio) {
    std::error_code error;
    if (!output.empty() && fs::exists(output, error) && fs::equivalent(output, audio, error)) {
        fail("the output '{}' is the sound itself; name another output", output);
    }
}

bool endsWith(const std::string& path, const std::string& extension) {
    std::string found = fs::path(path).extension().string();
    std::transform(found.begin(), found.end(), found.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    return found == extension;
}

void nameEncoder(const std::string& path) {
    setenv("W2V_ONNX", path.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): see the header
}

}  // namespace zorv::tools
