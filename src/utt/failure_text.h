// The text of a failure, kept without allocating.
#pragma once

#include <array>
#include <cstdio>

namespace zorv {

/// Setting it cannot fail; what does not fit is cut.
class FailureText {
  public:
    void set(const char* text) noexcept { std::snprintf(text_.data(), text_.size(), "%s", text); }
    void clear() noexcept { text_[0] = 0; }
    bool empty() const { return text_[0] == 0; }
    const char* get() const { return text_.data(); }

  private:
    std::array<char, 1024> text_{};
};

}  // namespace zorv
