#include "render/int8conv_vnni_conv.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <thread>

#include "common/parallel.h"
#include "render/int8conv_vnni_profile.h"

namespace zorv {
namespace {

/// How many of `workers` a phase employs whose work would fill `shares` threads.
int employed(int workers, double shares) {
    return shares < 2 ? 1 : static_cast<int>(std::min<double>(workers, shares));
}

/// Quantises one row of up to four channels into its padded column phases. `quads` is scratch for
/// w pixels.
void quantiseColumns(const Int8ConvKernels& kernels, const ConvGeometry& g,
                     const float* const* channels, Quantisation q, std::uint32_t* quads,
                     std::uint32_t* out) {
    const std::int64_t stride = g.attributes.strides[1], left = g.attributes.pads[1];
    if (stride == 1) {  // one phase, which is the padded row itself
        std::fill_n(out, left, 0u);
        kernels.quantiseRow(channels, g.w, q, out + left);
        std::fill(out + left + g.w, out + g.phaseColumns, 0u);
        return;
    }
    kernels.quantiseRow(channels, g.w, q, quads);
    for (const std::int64_t residue : g.phaseResidues) {
        std::int64_t column = residue - left;
        for (std::int64_t i = 0; i < g.phaseColumns; ++i, column += stride) {
            *out++ = column >= 0 && column < g.w ? quads[column] : 0;
        }
    }
}

}  // namespace

int chooseConvThreads(const char* setting, unsigned hardware) {
    const long most = static_cast<long>(std::min(hardware, 1024u));
    long count = setting ? std::strtol(setting, nullptr, 10) : most;
    if (most >= 1) count = std::min(count, most);
    return static_cast<int>(std::clamp(count, 1L, 1024L));
}

int convThreads() {
    static const int count =
        chooseConvThreads(std::getenv("ZORV_INT8_THREADS"), std::thread::hardware_concurrency());
    return count;
}

Quantisation chooseQuantisation(float min, float max) {
    Quantisation q;
    q.scale = (max - min) / 255;
    if (!(q.scale > 0)) q.scale = 1;
    const float zero = std::nearbyint(-min / q.scale);
    q.zeroPoint = zero > 0 ? static_cast<std::int32_t>(std::min(zero, 255.0f)) : 0;
    return q;
}

void Int8Conv::findRange(const ConvGeometry& g, const float* x, float* min, float* max) const {
    const PhaseTimer timer(&Int8Profile::minmax);
    std::mutex mutex;
    *min = *max = 0;
    const auto total = static_cast<std::ptrdiff_t>(g.inputCount());
    parallelRange(
        total, employed(split_.workers, static_cast<double>(total) / split_.floatsPerThread),
        [&](std::ptrdiff_t begin, std::ptrdiff_t end) {
            float low = 0, high = 0;
            kernels_.minMax(x + begin, static_cast<std::size_t>(end - begin), &low, &high);
            const std::lock_guard lock(mutex);
            *min = std::min(*min, low);
            *max = std::max(*max, high);
        },
        1);
}

void Int8Conv::quantise(const ConvGeometry& g, const float* x, Quantisation q,
                        std::uint8_t* out) const {
    const PhaseTimer timer(&Int8Profile::transpose);
    const int workers =
        employed(split_.workers, static_cast<double>(g.inputCount()) / split_.floatsPerThread);
    const std::int64_t plane = g.h * g.w;
    const auto quantiseRows = [&](std::ptrdiff_t begin, std::ptrdiff_t end, std::uint32_t* quads) {
        for (std::ptrdiff_t at = begin; at < end; ++at) {
            std::uint8_t* line = out + at * g.rowBytes;
            const std::int64_t image = at / g.rows, row = at % g.rows - g.attributes.pads[0];
            if (row < 0 || row >= g.h) {
                std::fill_n(line, g.rowBytes, std::uint8_t{0});
                continue;
            }
            for (std::int64_t channel = 0; channel < g.c;) {
                const std::int64_t left = g.groupIn - channel % g.groupIn;
                const float* channels[4] = {};
                for (std::int64_t i = 0; i < std::min<std::int64_t>(4, left); ++i) {
                    channels[i] = x + (image * g.c + channel + i) * plane + row * g.w;
                }
                quantiseColumns(kernels_, g, channels, q, quads,
                                reinterpret_cast<std::uint32_t*>(line));
                line += g.quadBytes;
                channel += std::min<std::int64_t>(4, left);
            }
        }
    };
    const auto perWorker = static_cast<std::size_t>(g.w);
    const auto quads = std::make_unique_for_overwrite<std::uint32_t[]>(
        perWorker * static_cast<std::size_t>(workers));
    std::atomic<std::size_t> next{0};
    parallelRange(
        g.n * g.rows, workers,
        [&](std::ptrdiff_t begin, std::ptrdiff_t end) {
            quantiseRows(begin, end, quads.get() + next++ * perWorker);
        },
        1);
}

void Int8Conv::prepare(const ConvGeometry& g, const std::int8_t* weights) {
    const std::int64_t shape[4] = {g.m, g.groupIn, g.kh, g.kw};
    std::call_once(once_, [&] {
        packed_ = PackedWeights(g, weights, kernels_.block, kernels_.widened);
        std::copy_n(shape, 4, packedShape_);
    });
    if (!std::equal(shape, shape + 4, packedShape_)) {
        throw std::runtime_error("Int8ConvVNNI: W changed its shape");
    }
}

void Int8Conv::run(const ConvGeometry& g, const Operands& operands) {
    if (g.empty()) return;
    prepare(g, operands.weights);
    float min = 0, max = 0;
    findRange(g, operands.x, &min, &max);
    const Quantisation q = chooseQuantisation(min, max);
    const auto quantised = std::make_unique_for_overwrite<std::uint8_t[]>(g.quantisedBytes());
    quantise(g, operands.x, q, quantised.get());

    std::vector<std::int32_t> correction;
    std::vector<float> factor;
    for (std::size_t m = 0; m < packed_.wsum.size(); ++m) {
        correction.push_back(static_cast<std::int32_t>(static_cast<std::uint32_t>(packed_.wsum[m]) *
                                                       static_cast<std::uint32_t>(q.zeroPoint)));
        factor.push_back(q.scale * operands.weightScale[m]);
    }
    const ConvRun run = {
        g, packed_, quantised.get(), correction.data(), factor.data(), operands.bias, operands.y};
    parallelRange(
        g.n * g.oh, employed(split_.workers, g.macs() / split_.macsPerThread),
        [&](std::ptrdiff_t begin, std::ptrdiff_t end) {
            const PhaseTimer timer(&Int8Profile::gemm);
            kernels_.convolveRows(run, begin, end);
        },
        1);
}

}  // namespace zorv
