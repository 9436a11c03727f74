#include "damaged_dir.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "support/test_bundle.h"

namespace zorv::fuzz {
namespace {

constexpr int kMostOperations = 8;
constexpr std::size_t kMostBytes = std::size_t{1} << 20;

std::size_t place(FuzzInput& input) {
    const std::size_t low = input.word();
    return low | std::size_t{input.byte()} << 16;
}

void resize(std::string& content, std::size_t size) {
    content.resize(std::min(size, kMostBytes), '\0');
}

void overwrite(std::string& content, std::size_t place, std::string_view bytes) {
    if (content.empty()) return;
    place %= content.size();
    bytes = bytes.substr(0, content.size() - place);
    content.replace(place, bytes.size(), bytes);
}

/// Replaces the text between a colon and what ends its value.
void setValue(std::string& content, std::size_t colon, std::string_view value) {
    const auto colons = static_cast<std::size_t>(std::count(content.begin(), content.end(), ':'));
    if (colons == 0) return;
    std::size_t begin = content.find(':') + 1;
    for (colon %= colons; colon > 0; --colon) begin = content.find(':', begin) + 1;
    const std::size_t end = std::min(content.find_first_of(",}", begin), content.size());
    content.replace(begin, end - begin, value);
}

}  // namespace

void keepTempDirsInMemory() {
    constexpr const char* kInMemory = "/dev/shm";
    if (::access(kInMemory, W_OK | X_OK) == 0) ::setenv("TMPDIR", kInMemory, 0);
}

DamagedDir::DamagedDir(std::string dir, std::vector<std::string> files)
    : dir_(std::move(dir)), choice_(std::move(files)) {
    for (const std::string& name : choice_) original_[name] = test::readFile(dir_ + "/" + name);
}

void DamagedDir::damage(FuzzInput& input) {
    for (int i = 0; i < kMostOperations && !input.empty(); ++i) {
        change(choice_[input.byte() % choice_.size()], input);
    }
}

void DamagedDir::change(const std::string& name, FuzzInput& input) {
    const std::string path = dir_ + "/" + name;
    std::string& content = changed_.try_emplace(name, original_[name]).first->second;
    const unsigned kind = input.byte() % 8;
    switch (kind) {
        case 2: {
            const auto more = static_cast<std::int16_t>(input.word());
            const auto size = static_cast<std::ptrdiff_t>(content.size()) + more;
            resize(content, static_cast<std::size_t>(std::max<std::ptrdiff_t>(size, 0)));
            break;
        }
        case 3:
            resize(content, place(input) % kMostBytes);
            break;
        case 4: {
            const std::size_t at = place(input);
            overwrite(content, at, input.bytes(input.byte()));
            break;
        }
        case 5:
            content += input.bytes(input.byte());
            break;
        case 6:
            content = original_[choice_[input.byte() % choice_.size()]];
            break;
        case 7: {
            const unsigned colon = input.byte();
            setValue(content, colon, input.bytes(input.byte()));
            break;
        }
        default:
            break;
    }
    std::filesystem::remove_all(path);
    if (kind == 1) {
        std::filesystem::create_directory(path);
    } else if (kind != 0) {
        test::writeFile(path, content);
    }
}

void DamagedDir::mend() {
    for (const auto& [name, content] : changed_) {
        std::filesystem::remove_all(dir_ + "/" + name);
        test::writeFile(dir_ + "/" + name, original_[name]);
    }
    changed_.clear();
}

std::size_t DamagedDir::size(const std::string& name) const {
    struct stat status {};
    return ::stat((dir_ + "/" + name).c_str(), &status) == 0 && S_ISREG(status.st_mode)
               ? static_cast<std::size_t>(status.st_size)
               : 0;
}

}  // namespace zorv::fuzz
