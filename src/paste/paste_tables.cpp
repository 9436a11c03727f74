#include "paste/paste_tables.h"

#include <cmath>
#include <cstddef>

namespace zorv {
namespace {

PhaseTable makeTable(int taps, int before, void (*fill)(int phase, float* weights)) {
    PhaseTable table;
    table.taps = taps;
    table.before = before;
    for (int p = 0; p < kPhases; ++p) {
        fill(p, table.weights.data() + p * taps);
        for (int k = 0; k < taps; ++k) table.byTap[k * kPhases + p] = table.at(p)[k];
    }
    return table;
}

// The window sin(y) sin(y / 4) / y^2 at eight points pi / 4 apart: the sine of the sum of the
// phase's angle and a multiple of pi / 4 is a fixed mix of the angle's own sine and cosine.
void fillLanczos(int phase, float* weights) {
    const double t = phase / 32.0;
    if (t < 1e-7) {
        for (int i = 0; i < 8; ++i) weights[i] = i == 3 ? 1.0f : 0.0f;
        return;
    }
    const double r = std::sqrt(2.0) / 2;
    const double mix[8][2] = {{1, 0}, {-r, -r}, {0, 1}, {r, -r}, {-1, 0}, {r, r}, {0, -1}, {-r, r}};
    const double quarter = std::acos(-1.0) / 4;
    const double q = -(t + 3) * quarter;
    const double s0 = std::sin(q);
    const double c0 = std::cos(q);
    double w[8];
    double sum = 0;
    for (int i = 0; i < 8; ++i) {
        const double y = (t + 3 - i) * quarter;
        w[i] = (mix[i][0] * s0 + mix[i][1] * c0) / (y * y);
        sum += w[i];
    }
    for (int i = 0; i < 8; ++i) weights[i] = static_cast<float>(w[i] / sum);
}

void fillCubic(int phase, float* weights) {
    const float x = static_cast<float>(phase) / 32;
    const float z = 1 - x;
    weights[0] = ((-0.75f * (x + 1) + 3.75f) * (x + 1) - 6) * (x + 1) + 3;
    weights[1] = (1.25f * x - 2.25f) * x * x + 1;
    weights[2] = (1.25f * z - 2.25f) * z * z + 1;
    weights[3] = 1 - weights[0] - weights[1] - weights[2];
}

void fillLinear(int phase, float* weights) {
    const float t = static_cast<float>(phase) / 32;
    weights[0] = 1 - t;
    weights[1] = t;
}

}  // namespace

PhaseTable lanczosTable() {
    return makeTable(8, 3, fillLanczos);
}
PhaseTable cubicTable() {
    return makeTable(4, 1, fillCubic);
}
PhaseTable linearTable() {
    return makeTable(2, 0, fillLinear);
}

std::vector<float> gaussianKernel(int ksize, float sigma) {
    std::vector<float> kernel(static_cast<std::size_t>(ksize));
    if (sigma == 0) {  // the limit of ever narrower kernels
        kernel[kernel.size() / 2] = 1;
        return kernel;
    }
    const double centre = (ksize - 1) * 0.5;
    const double width = 2.0 * static_cast<double>(sigma) * static_cast<double>(sigma);
    const auto weight = [&](int i) { return std::exp(-(i - centre) * (i - centre) / width); };
    double sum = 0;
    for (int i = 0; i < ksize; ++i) sum += weight(i);
    for (int i = 0; i < ksize; ++i) kernel[i] = static_cast<float>(weight(i) / sum);
    return kernel;
}

}  // namespace zorv
