// Weights of the compositor's kernels, by 1/32-pixel phase.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

namespace zorv {

constexpr int kPhases = 32;
constexpr int kMaxTaps = 8;

/// One resampling kernel: weight of tap k at phase p is weights[p * taps + k]. Tap 0 lies
/// `before` pixels before the pixel that the position falls into.
struct PhaseTable {
    int taps = 0;
    int before = 0;
    /// Aligned so that no vector of weights lies across two cache lines.
    alignas(64) std::array<float, kPhases * kMaxTaps> weights{};  ///< phase by phase
    alignas(64) std::array<float, kPhases * kMaxTaps> byTap{};    ///< byTap[k * kPhases + p]
    const float* at(int phase) const { return weights.data() + phase * taps; }
};

PhaseTable lanczosTable();  ///< order 4, 8 taps, each phase normalised
PhaseTable cubicTable();    ///< A = -0.75, 4 taps
PhaseTable linearTable();   ///< 2 taps

/// `ksize` Gaussian weights that sum to 1.
std::vector<float> gaussianKernel(int ksize, float sigma);

}  // namespace zorv
