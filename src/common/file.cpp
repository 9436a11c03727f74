#include "common/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace zorv {
namespace {

/// A descriptor opened for reading; -1 when it could not be opened or is a directory.
class Descriptor {
  public:
    explicit Descriptor(const std::string& path) : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
        if (fd_ >= 0 && (::fstat(fd_, &status_) != 0 || S_ISDIR(status_.st_mode))) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    bool isOpen() const { return fd_ >= 0; }
    std::size_t size() const { return static_cast<std::size_t>(status_.st_size); }

    /// Reads until `bytes` bytes have come, the file ends or an error stops it.
    std::size_t read(void* destination, std::size_t bytes) const {
        auto* to = static_cast<char*>(destination);
        std::size_t done = 0;
        while (done < bytes) {
            const ssize_t got = ::read(fd_, to + done, bytes - done);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) break;
            done += static_cast<std::size_t>(got);
        }
        return done;
    }

  private:
    int fd_;
    struct stat status_ {};
};

}  // namespace

ReadStatus readWholeFile(const std::string& path, std::string& content) {
    const Descriptor file(path);
    if (!file.isOpen()) return ReadStatus::kCannotOpen;
    content.resize(file.size());
    return file.read(content.data(), content.size()) == content.size() ? ReadStatus::kOk
                                                                       : ReadStatus::kShort;
}

ReadStatus readExactly(const std::string& path, void* destination, std::size_t bytes) {
    const Descriptor file(path);
    if (!file.isOpen()) return ReadStatus::kCannotOpen;
    if (file.read(destination, bytes) != bytes) return ReadStatus::kShort;
    char extra = 0;
    return file.read(&extra, 1) == 0 ? ReadStatus::kOk : ReadStatus::kLong;
}

}  // namespace zorv
