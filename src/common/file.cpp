#include "common/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "common/fault.h"

namespace zorv {
namespace {

/// A descriptor opened for reading; -1 when it could not be opened or is a directory.
class Descriptor {
  public:
    explicit Descriptor(const std::string& path) : fd_(openForReading(path)) {
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
    /// Whether an error stopped the last read.
    bool failed() const { return failed_; }
    std::size_t size() const { return static_cast<std::size_t>(status_.st_size); }

    /// Reads until `bytes` bytes have come, the file ends or an error stops it.
    std::size_t read(void* destination, std::size_t bytes) {
        auto* to = static_cast<char*>(destination);
        std::size_t done = 0;
        while (done < bytes) {
            const bool faulty = fault::fails(fault::Kind::kRead);
            const ssize_t got = faulty ? -1 : ::read(fd_, to + done, bytes - done);
            if (got < 0 && !faulty && errno == EINTR) continue;
            failed_ = got < 0;
            if (got <= 0) break;
            done += static_cast<std::size_t>(got);
        }
        return done;
    }

  private:
    int fd_;
    bool failed_ = false;
    struct stat status_ {};
};

}  // namespace

int openForReading(const std::string& path) {
    if (fault::fails(fault::Kind::kOpen)) return -1;
    return ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
}

ReadStatus readWholeFile(const std::string& path, std::string& content) {
    Descriptor file(path);
    if (!file.isOpen()) return ReadStatus::kCannotOpen;
    content.resize(file.size());
    const std::size_t got = file.read(content.data(), content.size());
    const bool whole = got == content.size();
    content.resize(got);
    if (file.failed()) return ReadStatus::kFailed;
    return whole ? ReadStatus::kOk : ReadStatus::kShort;
}

ReadStatus readExactly(const std::string& path, void* destination, std::size_t bytes) {
    Descriptor file(path);
    if (!file.isOpen()) return ReadStatus::kCannotOpen;
    const std::size_t got = file.read(destination, bytes);
    if (file.failed()) return ReadStatus::kFailed;
    if (got != bytes) return ReadStatus::kShort;
    char extra = 0;
    const std::size_t more = file.read(&extra, 1);
    if (file.failed()) return ReadStatus::kFailed;
    return more == 0 ? ReadStatus::kOk : ReadStatus::kLong;
}

}  // namespace zorv
