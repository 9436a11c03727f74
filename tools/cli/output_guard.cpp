#include "output_guard.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <vector>

#include "failure.h"

namespace fs = std::filesystem;

namespace zorv::tools {
namespace {

// Paths that exist and are not committed. The lock also orders a commit against the clean-up of
// an interruption.
std::mutex unfinishedLock;
std::vector<std::string> unfinished;
bool closed = false;

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

}  // namespace

OutputGuard::OutputGuard(const std::string& finalPath, Kind kind)
    : final_(withoutTrailingSlashes(finalPath)), kind_(kind) {
    checkTarget();
    create();
}

void OutputGuard::checkTarget() const {
    std::error_code error;
    const fs::file_status status = fs::status(final_, error);
    if (!fs::exists(status)) return;
    if (kind_ == Kind::kFile) {
        if (fs::is_directory(status)) fail("'{}' is a directory; name a file", final_);
        if (!fs::is_regular_file(status)) {
            fail("'{}' is not a regular file; name another output", final_);
        }
    } else {
        if (!fs::is_directory(status)) {
            fail("'{}' exists and is no directory; name an .mp4 file or a directory", final_);
        }
        if (!fs::is_empty(final_, error) || error) {
            fail("directory '{}' is not empty; name a new one or empty it", final_);
        }
    }
}

void OutputGuard::create() {
    const fs::path target(final_);
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    temporary_ = (folder / fmt::format(".{}.XXXXXX", target.filename().string())).string();
    const std::lock_guard lock(unfinishedLock);
    if (closed) throw Interrupted();
    unfinished.reserve(unfinished.size() + 1);
    bool made;
    const mode_t mask = umask(0);
    umask(mask);
    if (kind_ == Kind::kFile) {
        const int file = mkstemp(temporary_.data());
        made = file >= 0;
        if (made) {
            fchmod(file, 0666 & ~mask);
            close(file);
        }
    } else {
        made = mkdtemp(temporary_.data()) != nullptr;
        if (made) chmod(temporary_.c_str(), 0777 & ~mask);
    }
    if (!made) {
        fail("cannot write '{}': {}; check that its folder exists, is writable and has room",
             final_, errorText(errno));
    }
    pending_ = true;
    unfinished.push_back(temporary_);
}

void OutputGuard::commit() {
    const std::lock_guard lock(unfinishedLock);
    if (closed) throw Interrupted();
    if (std::rename(temporary_.c_str(), final_.c_str()) != 0) {
        fail("cannot write '{}': {}; check that its folder is writable", final_, errorText(errno));
    }
    std::erase(unfinished, temporary_);
    pending_ = false;
}

OutputGuard::~OutputGuard() {
    if (!pending_) return;
    const std::lock_guard lock(unfinishedLock);
    std::error_code ignored;
    fs::remove_all(temporary_, ignored);
    std::erase(unfinished, temporary_);
}

void removeUnfinishedOutput() {
    const std::lock_guard lock(unfinishedLock);
    closed = true;
    std::error_code ignored;
    for (const std::string& path : unfinished) {
        // A frame that is being written may appear in a directory while it is emptied.
        for (int attempt = 0; attempt < 20 && fs::exists(path, ignored); ++attempt) {
            fs::remove_all(path, ignored);
        }
    }
    unfinished.clear();
}

}  // namespace zorv::tools
