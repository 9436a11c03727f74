// The compositor written down straight from its formulas: every step over the whole picture,
// every tap checked. Slow; shares no code with the library.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

struct ReferencePaste {
    std::vector<std::uint8_t> mask;
    int S;
    int K;
    float amount;
    float sigma;
    int fast;  ///< 0 Lanczos-4, 1 bicubic, 2 bilinear

    static int reflect(int i, int n) {
        if (n == 1) return 0;
        while (i < 0 || i >= n) i = i < 0 ? -i : 2 * n - 2 - i;
        return i;
    }

    /// Weight of the tap `offset` pixels from the one that the position falls into.
    static float weight(int kernel, int phase, int offset) {
        const double t = phase / 32.0;
        if (kernel == 2) return static_cast<float>(offset == 0 ? 1 - t : t);
        if (kernel == 1) {
            const auto inner = [](double x) { return (1.25 * x - 2.25) * x * x + 1; };
            const double z = t + 1;
            const auto w0 = static_cast<float>(((-0.75 * z + 3.75) * z - 6) * z + 3);
            const auto w1 = static_cast<float>(inner(t));
            const auto w2 = static_cast<float>(inner(1 - t));
            return offset == -1 ? w0 : offset == 0 ? w1 : offset == 1 ? w2 : 1 - w0 - w1 - w2;
        }
        if (phase == 0) return offset == 0 ? 1.0f : 0.0f;
        const double pi = std::acos(-1.0);
        const auto lobe = [&](int o) {
            const double x = (t - o) * pi;
            return std::sin(x) * std::sin(x / 4) / (x * x);
        };
        double sum = 0;
        for (int o = -3; o <= 4; ++o) sum += lobe(o);
        return static_cast<float>(lobe(offset) / sum);
    }

    std::vector<float> sharpened(const float* crop, float scale) const {
        std::vector<double> g(K);
        double sum = 0;
        for (int i = 0; i < K; ++i) {
            const double d = i - (K - 1) * 0.5;
            sum += g[i] = sigma == 0 ? d == 0 : std::exp(-d * d / (2.0 * sigma * sigma));
        }
        std::vector<float> across(S * S), out(S * S);
        const auto value = [&](int y, int x) { return scale * crop[y * S + x]; };
        for (int y = 0; y < S; ++y) {
            for (int x = 0; x < S; ++x) {
                float blur = 0;
                for (int t = 0; t < K; ++t) {
                    blur += static_cast<float>(g[t] / sum) * value(y, reflect(x + t - K / 2, S));
                }
                across[y * S + x] = blur;
            }
        }
        for (int y = 0; y < S; ++y) {
            for (int x = 0; x < S; ++x) {
                float blur = 0;
                for (int t = 0; t < K; ++t) {
                    blur +=
                        static_cast<float>(g[t] / sum) * across[reflect(y + t - K / 2, S) * S + x];
                }
                const float v = value(y, x) * (1 + amount) - blur * amount;
                out[y * S + x] = v < 0 ? 0 : v > 255 ? 255 : v;
            }
        }
        return out;
    }

    template <class At>
    static float resample(int kernel, int U, int V, const At& at) {
        const int before = kernel == 0 ? 3 : kernel == 1 ? 1 : 0;
        const int after = kernel == 0 ? 4 : kernel == 1 ? 2 : 1;
        float sum = 0;
        for (int r = -before; r <= after; ++r) {
            float row = 0;
            for (int k = -before; k <= after; ++k) {
                row += weight(kernel, (U >> 5) & 31, k) * at((V >> 10) + r, (U >> 10) + k);
            }
            sum += weight(kernel, (V >> 5) & 31, r) * row;
        }
        return sum;
    }

    void composite(const float* crop, float scale, const float* M, std::uint8_t* frame, int W,
                   int H) const {
        const double a = M[0], b = M[1], tx = M[2], c = M[3], d = M[4], ty = M[5];
        const double det = a * d - b * c;
        if (det == 0) return;
        std::vector<float> planes[3];
        for (int p = 0; p < 3; ++p) planes[p] = sharpened(crop + p * S * S, scale);
        const double uc = -(tx * (d / det) + ty * (-b / det));
        const double vc = -(tx * (-c / det) + ty * (a / det));
        for (int Y = 0; Y < H; ++Y) {
            for (int X = 0; X < W; ++X) {
                const int U = static_cast<int>(std::rint(X * (d / det) * 1024)) +
                              static_cast<int>(std::rint((Y * (-b / det) + uc) * 1024)) + 16;
                const int V = static_cast<int>(std::rint(X * (-c / det) * 1024)) +
                              static_cast<int>(std::rint((Y * (a / det) + vc) * 1024)) + 16;
                if (U < -1024 || V < -1024 || (U >> 10) >= S || (V >> 10) >= S) continue;
                const auto inside = [&](int y, int x) {
                    return y >= 0 && x >= 0 && y < S && x < S;
                };
                const float cover = resample(2, U, V, [&](int y, int x) {
                    return inside(y, x) ? static_cast<float>(mask[y * S + x]) : 0.0f;
                });
                const float alpha = std::rint(cover) / 255;
                if (alpha <= 0) continue;
                for (int p = 0; p < 3; ++p) {
                    const float s = resample(fast, U, V, [&](int y, int x) {
                        return inside(y, x) ? planes[p][y * S + x] : 0.0f;
                    });
                    std::uint8_t& pixel = frame[(Y * W + X) * 3 + p];
                    const float out = static_cast<float>(pixel) * (1 - alpha) + alpha * s;
                    pixel = out > 255 ? 255 : out >= 0 ? static_cast<std::uint8_t>(out) : 0;
                }
            }
        }
    }
};
