// What the compositor's benchmark and its rival both paste.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

/// A 512 crop with an elliptical, soft-edged mask, turned by 3 degrees around the middle of a
/// 1920 x 1080 frame.
struct PasteScene {
    static constexpr int kSide = 512;
    static constexpr int kWidth = 1920;
    static constexpr int kHeight = 1080;

    std::vector<float> crop;  ///< 3 planes, 0..1
    std::vector<std::uint8_t> mask;
    std::vector<std::uint8_t> frame;
    float M[6];

    explicit PasteScene(double scale)
        : crop(3 * kSide * kSide), mask(kSide * kSide), frame(3 * kWidth * kHeight) {
        std::mt19937 rng(1);
        for (float& v : crop) v = static_cast<float>(rng() % 4096) / 4095;
        for (std::uint8_t& v : frame) v = static_cast<std::uint8_t>(rng());
        for (int i = 0; i < kSide * kSide; ++i) {
            const double x = (i % kSide + 0.5) / kSide * 2 - 1;
            const double y = (i / kSide + 0.5) / kSide * 2 - 1;
            const double edge = (1 - std::hypot(x, y)) * 16;
            mask[i] = static_cast<std::uint8_t>(255 * std::clamp(edge, 0.0, 1.0));
        }
        const double turn = 3 * std::acos(-1.0) / 180;
        const double a = scale * std::cos(turn);
        const double b = -scale * std::sin(turn);
        const double half = (kSide - 1) / 2.0;
        const double values[6] = {a,  b, kWidth / 2.0 - a * half - b * half,
                                  -b, a, kHeight / 2.0 + b * half - a * half};
        for (int i = 0; i < 6; ++i) M[i] = static_cast<float>(values[i]);
    }
};
