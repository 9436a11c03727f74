#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace zorv::test {

/// Sets an environment variable, or unsets it with nullptr; restores it at the end.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* before = std::getenv(name)) before_ = before;
        assign(value);
    }
    ScopedEnv(const char* name, const std::string& value) : ScopedEnv(name, value.c_str()) {}
    ~ScopedEnv() { assign(before_ ? before_->c_str() : nullptr); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    void assign(const char* value) {
        if (value) {
            ::setenv(name_, value, 1);
        } else {
            ::unsetenv(name_);
        }
    }

    const char* name_;
    std::optional<std::string> before_;
};

}  // namespace zorv::test
