#include "file_view.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "failure.h"

namespace zorv::tools {

FileView::FileView(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) fail("{}", errorText(errno));
    struct stat status {};
    int reason = fstat(fd, &status) == 0 ? 0 : errno;
    if (reason == 0 && !S_ISREG(status.st_mode)) reason = S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
    if (reason == 0) size_ = static_cast<size_t>(status.st_size);
    if (size_ > 0) {
        base_ = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0);
        if (base_ == MAP_FAILED) reason = errno;
    }
    close(fd);
    if (reason != 0) fail("{}", errorText(reason));
}

FileView::~FileView() {
    if (base_) munmap(base_, size_);
}

std::vector<float> readFloats(const std::string& path, size_t count) try {
    const FileView file(path);
    if (file.size() / sizeof(float) < count) return {};
    const auto* values = reinterpret_cast<const float*>(file.data());
    return {values, values + count};
} catch (const Failure&) {
    return {};
}

}  // namespace zorv::tools
