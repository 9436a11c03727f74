// Feeds the files of the folders named on the command line to a fuzz target. A folder need not
// exist, but there must be a file.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

std::vector<std::filesystem::path> filesOf(int folders, char** names) {
    std::vector<std::filesystem::path> files;
    for (int i = 0; i < folders; ++i) {
        if (!std::filesystem::is_directory(names[i])) continue;
        for (const auto& entry : std::filesystem::directory_iterator(names[i])) {
            if (entry.is_regular_file()) files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv) {
    const auto files = filesOf(argc - 1, argv + 1);
    for (const auto& path : files) {
        std::ifstream file(path, std::ios::binary);
        if (!file) {
            std::fprintf(stderr, "cannot open %s\n", path.c_str());
            return 1;
        }
        std::fprintf(stderr, "%s\n", path.c_str());  // the last one named is the one that failed
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    if (files.empty()) std::fputs("usage: replay FOLDER..., with files in one of them\n", stderr);
    return files.empty() ? 2 : 0;
}
