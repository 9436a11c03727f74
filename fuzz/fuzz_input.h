// What fuzz targets share: reading the fuzzer's bytes, and checks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

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
    std::int32_t number() {
        const std::uint32_t low = word();
        return static_cast<std::int32_t>(low | std::uint32_t{word()} << 16);
    }

  private:
    const std::uint8_t* data_;
    std::size_t left_;
};

/// Ends the process, as fuzzers want it, with a line that tells what did not hold.
inline void require(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

}  // namespace zorv::fuzz
