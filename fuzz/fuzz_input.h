// What fuzz targets share: reading the fuzzer's bytes, and checks.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace zorv::fuzz {

/// Takes values off the front of the fuzzer's bytes; zeros once they have run out.
class FuzzInput {
  public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : data_(data), left_(size) {}

    bool empty() const { return left_ == 0; }
    std::uint8_t byte() {
        if (left_ == 0) return 0;
        --left_;
        return *data_++;
    }
    std::uint16_t word() {
        const unsigned low = byte();
        return static_cast<std::uint16_t>(low | unsigned{byte()} << 8);
    }
    /// At most `count` bytes: those that there are.
    std::string_view bytes(std::size_t count) {
        const std::string_view taken(reinterpret_cast<const char*>(data_), std::min(count, left_));
        data_ += taken.size();
        left_ -= taken.size();
        return taken;
    }
    std::int32_t number() {
        const std::uint32_t low = word();
        return static_cast<std::int32_t>(low | std::uint32_t{word()} << 16);
    }

  private:
    const std::uint8_t* data_;
    std::size_t left_;
};

/// Ends the process, as fuzzers want it, with a line that tells what did not hold: the compiler may
/// merge all checks of a function into one, so that the call stack does not tell.
inline void require(bool condition, const char* what = "a check", int line = __builtin_LINE()) {
    if (condition) return;
    std::fprintf(stderr, "does not hold: %s (line %d)\n", what, line);
    std::abort();
}

}  // namespace zorv::fuzz
