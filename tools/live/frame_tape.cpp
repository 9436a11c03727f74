#include "frame_tape.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "failure.h"

namespace fs = std::filesystem;

namespace zorv::tools {
namespace {

constexpr size_t kMaxQueued = 50;

/// Whole buffer to or from a file position; false with errno set.
template <class Call, class Byte>
bool transfer(Call call, int file, Byte* data, size_t size, off_t at) {
    while (size > 0) {
        const ssize_t n = call(file, data, size, at);
        if (n < 0 && errno == EINTR) continue;
        if (n == 0) errno = ENOSPC;
        if (n <= 0) return false;
        data += n;
        size -= static_cast<size_t>(n);
        at += n;
    }
    return true;
}

}  // namespace

FrameTape::FrameTape(const std::string& output, size_t frameBytes, int64_t frames)
    : frameBytes_(frameBytes) {
    const fs::path target(output);
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    std::error_code error;
    const fs::space_info space = fs::space(folder, error);
    const uint64_t wanted = static_cast<uint64_t>(frames) * frameBytes;
    if (!error && space.available < wanted) {
        fail(
            "frames need {:.1f} GB beside '{}' until they are encoded and {:.1f} GB are free; "
            "free some space or leave out -o",
            static_cast<double>(wanted) * 1e-9, output,
            static_cast<double>(space.available) * 1e-9);
    }
    std::string name = (folder / fmt::format(".{}.XXXXXX", target.filename().string())).string();
    file_ = mkostemp(name.data(), O_CLOEXEC);
    if (file_ < 0) {
        fail("cannot write beside '{}': {}; check that its folder exists and is writable", output,
             errorText(errno));
    }
    unlink(name.c_str());
    try {
        writer_ = std::thread([this] { writeQueue(); });
    } catch (...) {
        close(file_);
        throw;
    }
}

FrameTape::~FrameTape() {
    stop();
    close(file_);
}

void FrameTape::add(std::vector<uint8_t>& frame) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return queue_.size() < kMaxQueued || error_ != 0; });
    check();
    queue_.push_back(std::move(frame));
    if (spare_.empty()) {
        frame = {};
    } else {
        frame = std::move(spare_.front());
        spare_.pop_front();
    }
    changed_.notify_all();
    lock.unlock();
    frame.resize(frameBytes_);
}

void FrameTape::writeQueue() {
    off_t at = 0;
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return !queue_.empty() || stopping_; });
        if (queue_.empty() || error_ != 0) return;
        std::vector<uint8_t> frame = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        const bool written = transfer(pwrite, file_, frame.data(), frameBytes_, at);
        const int error = written ? 0 : errno;
        at += static_cast<off_t>(frameBytes_);
        lock.lock();
        error_ = error;
        spare_.push_back(std::move(frame));
        changed_.notify_all();
    }
}

void FrameTape::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
    }
    if (writer_.joinable()) writer_.join();
}

void FrameTape::check() {
    if (error_ != 0) {
        fail("keeping the frames failed: {}; free some space or leave out -o", errorText(error_));
    }
}

void FrameTape::finish() {
    stop();
    check();
}

void FrameTape::read(int64_t number, std::vector<uint8_t>& frame) {
    frame.resize(frameBytes_);
    if (!transfer(pread, file_, frame.data(), frameBytes_,
                  static_cast<off_t>(number) * static_cast<off_t>(frameBytes_))) {
        fail("reading the frames back failed: {}; check the disk", errorText(errno));
    }
}

}  // namespace zorv::tools
