// What every engine does to the samples that hosts hand in.
#pragma once

#include <cmath>
#include <cstddef>
#include <limits>

namespace zorv {

/// Samples that are not finite become 0: one of them would spoil all that the models remember.
inline void silenceNonFinite(float* samples, std::size_t n) {
    constexpr float kLargest = std::numeric_limits<float>::max();
    for (std::size_t i = 0; i < n; ++i) {
        samples[i] = std::abs(samples[i]) <= kLargest ? samples[i] : 0.f;
    }
}

}  // namespace zorv
