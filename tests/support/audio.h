// Audio for tests.
#pragma once

#include <cmath>
#include <cstddef>
#include <random>
#include <vector>

namespace zorv::test {

/// Noise whose loudness wanders, with stretches of digital silence.
inline std::vector<float> speechLike(int n) {
    std::mt19937 random(3);
    std::vector<float> audio(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
        const double loud = std::cos(i * 6e-6) * std::sin(i * 1.3e-4 + 1);
        const double amplitude = loud > 0.05 ? loud * 0.5 : loud < -0.5 ? 0.01 : 0;
        const double noise = static_cast<double>(random() % 20001) / 10000 - 1;
        audio[static_cast<std::size_t>(i)] = static_cast<float>(noise * amplitude);
    }
    return audio;
}

}  // namespace zorv::test
