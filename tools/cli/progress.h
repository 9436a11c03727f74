// Progress on standard error: a bar on a terminal, plain lines elsewhere.
#pragma once

#include <chrono>
#include <string>

namespace zorv::tools {

class Progress {
  public:
    explicit Progress(int total);
    ~Progress() { clearLine(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// `done` of the total frames are finished.
    void update(int done);

    /// Erases the bar, if one stands on the terminal's current line. Any thread.
    static void clearLine();

  private:
    using Clock = std::chrono::steady_clock;

    std::string describe(int done, double rate) const;

    int total_;
    bool terminal_;
    Clock::time_point start_ = Clock::now();
    Clock::time_point shown_ = start_;
};

}  // namespace zorv::tools
