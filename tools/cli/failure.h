// Failures that end the program: one line that says what to do.
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace zorv::tools {

class Failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// The user asked the program to stop (Ctrl-C, SIGTERM).
class Interrupted : public Failure {
  public:
    Interrupted() : Failure("interrupted") {}
};

template <typename... Args>
[[noreturn]] void fail(fmt::format_string<Args...> text, Args&&... args) {
    throw Failure(fmt::format(text, std::forward<Args>(args)...));
}

/// The system's words for a value of errno, from any thread.
inline std::string errorText(int error) {
    return std::generic_category().message(error);
}

}  // namespace zorv::tools
