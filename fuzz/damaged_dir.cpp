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

std::uint32_t Input::number(int count) {
    std::uint32_t value = 0;
    int shift = 0;
    for (const char byte : bytes(static_cast<std::size_t>(count))) {
        value |= static_cast<std::uint32_t>(static_cast<unsigned char>(byte)) << shift;
        shift += 8;
    }
    return value;
}

std::string_view Input::bytes(std::size_t count) {
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(taken.size());
    return taken;
}

DamagedDir::DamagedDir(std::string dir, std::vector<std::string> files)
    : dir_(std::move(dir)), choice_(std::move(files)) {
    for (const std::string& name : choice_) original_[name] = test::readFile(dir_ + "/" + name);
}

void DamagedDir::damage(Input& input) {
    for (int i = 0; i < kMostOperations && !input.empty(); ++i) {
        change(choice_[input.number(1) % choice_.size()], input);
    }
}

void DamagedDir::change(const std::string& name, Input& input) {
    const std::string path = dir_ + "/" + name;
    std::string& content = changed_.try_emplace(name, original_[name]).first->second;
    const std::uint32_t kind = input.number(1) % 8;
    switch (kind) {
        case 2: {
            const auto more = static_cast<std::int16_t>(input.number(2));
            const auto size = static_cast<std::ptrdiff_t>(content.size()) + more;
            resize(content, static_cast<std::size_t>(std::max<std::ptrdiff_t>(size, 0)));
            break;
        }
        case 3:
            resize(content, input.number(3) % kMostBytes);
            break;
        case 4: {
            const std::uint32_t place = input.number(3);
            overwrite(content, place, input.bytes(input.number(1)));
            break;
        }
        case 5:
            content += input.bytes(input.number(1));
            break;
        case 6:
            content = original_[choice_[input.number(1) % choice_.size()]];
            break;
        case 7: {
            const std::uint32_t colon = input.number(1);
            setValue(content, colon, input.bytes(input.number(1)));
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
