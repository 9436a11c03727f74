#include "progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <cstdio>

namespace zorv::tools {
namespace {

std::atomic<bool> lineOpen{false};

std::string clockText(double seconds) {
    const int whole = static_cast<int>(std::lround(seconds));
    return whole < 3600 ? fmt::format("{}:{:02}", whole / 60, whole % 60)
                        : fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
}

}  // namespace

Progress::Progress(int total) : total_(total), terminal_(isatty(STDERR_FILENO) == 1) {}

void Progress::update(int done) {
    const Clock::time_point now = Clock::now();
    const double sinceShown = std::chrono::duration<double>(now - shown_).count();
    const bool last = done == total_;
    if (!last && sinceShown < (terminal_ ? 0.1 : 5.0)) return;
    shown_ = now;
    const double elapsed = std::chrono::duration<double>(now - start_).count();
    const std::string text = describe(done, elapsed > 0 ? done / elapsed : 0.0);
    if (!terminal_) {
        fmt::print(stderr, "{}\n", text);
        return;
    }
    constexpr int kWidth = 30;
    const int filled = static_cast<int>(static_cast<long>(done) * kWidth / total_);
    lineOpen = true;
    fmt::print(stderr, "\r\033[K[{:#<{}}{:.<{}}] {}", "", filled, "", kWidth - filled, text);
    std::fflush(stderr);
}

std::string Progress::describe(int done, double rate) const {
    const std::string left = rate > 0 ? clockText((total_ - done) / rate) : "?";
    return fmt::format("{}/{} frames, {:.1f} frames/s, {} left", done, total_, rate, left);
}

void Progress::clearLine() {
    if (lineOpen.exchange(false)) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
    }
}

}  // namespace zorv::tools
