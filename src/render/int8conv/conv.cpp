#include "render/int8conv/conv.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <stdexcept>
#include <thread>

#include "common/parallel.h"
#include "render/int8conv/profile.h"
#include "render/int8conv/rows.h"

namespace zorv {
namespace {

/// How many of `workers` a phase employs whose work would fill `shares` threads.
int employed(int workers, double shares) {
    return shares < 2 ? 1 : static_cast<int>(std::min<double>(workers, shares));
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

/// Steps of a band: so few that its input rows stay in the second cache, and whole tiles.
std::int64_t Int8Conv::bandRows(const ConvGeometry& g) const {
    const double bytes =
        static_cast<double>(g.rowBytes) * static_cast<double>(g.attributes.strides[0]);
    const auto rows = static_cast<std::int64_t>(
        std::max(1.0, static_cast<double>(split_.bandBytes) / std::max(1.0, bytes)));
    return std::min(g.steps(), rows < 4 ? rows : rows / 4 * 4);
}

struct Int8Conv::Workspace {
    QuantisedRows window;
    std::vector<std::int32_t> scratch;
};

void Int8Conv::convolve(const ConvGeometry& g, const Operands& operands, const ConvRun& shared,
                        Workspace& workspace, std::ptrdiff_t begin, std::ptrdiff_t end) const {
    const std::int64_t band = bandRows(g), steps = g.steps();
    const auto convolveBand =
        g.attributes.enlarged ? kernels_.convolveEnlarged : kernels_.convolveRows;
    while (begin < end) {
        const std::int64_t image = begin / steps;
        std::int64_t row = begin % steps;
        const std::int64_t stop = std::min<std::int64_t>(steps, row + end - begin);
        begin += stop - row;
        ConvRun run = shared;
        run.rows = workspace.window.data();
        run.scratch = workspace.scratch.data();
        run.y = operands.y + image * g.m * g.oh * g.ow;
        workspace.window.startImage(operands.x + image * g.c * g.h * g.w);
        for (; row < stop; row += band) {
            const std::int64_t count = std::min(band, stop - row);
            {
                const PhaseTimer timer(&Int8Profile::transpose);
                workspace.window.moveTo(row, count);
            }
            const PhaseTimer timer(&Int8Profile::gemm);
            convolveBand(run, row, count);
        }
    }
}

void Int8Conv::prepare(const ConvGeometry& g, const std::int8_t* weights) {
    const std::int64_t shape[4] = {g.m, g.groupIn, g.kh, g.kw};
    std::call_once(once_, [&] {
        const int block = attributes_.enlarged ? 1 : kernels_.block;
        packed_ = PackedWeights(g, weights, block, kernels_.widened);
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
    std::vector<std::int32_t> start(packed_.wsum.size() + kMaxBlock), edges;  // wrap like the sums
    std::vector<float> factor;
    const auto times = [](std::int32_t sum, std::int32_t byte) {
        return static_cast<std::uint32_t>(sum) * static_cast<std::uint32_t>(byte);
    };
    for (std::size_t m = 0; m < packed_.wsum.size(); ++m) {
        start[m] = static_cast<std::int32_t>(0u - times(packed_.wsum[m], q.zeroPoint));
        factor.push_back(q.scale * operands.weightScale[m]);
    }
    for (const std::int32_t sum : packed_.edgeSums) {
        edges.push_back(static_cast<std::int32_t>(times(sum, padByte(g.attributes, q))));
    }
    const ConvRun shared = {
        g, packed_, nullptr, start.data(), factor.data(), operands.bias, nullptr, edges.data()};
    const double share = split_.macsPerThread > 0 ? split_.macsPerThread : kernels_.macsPerThread;
    const int workers = employed(split_.workers, g.macs() / share);
    std::vector<Workspace> workspaces;  // made here: the threads must not run out of memory
    workspaces.reserve(static_cast<std::size_t>(workers));
    const std::int64_t scratch = g.attributes.enlarged ? enlargedScratch(g.w) : 0;
    for (int i = 0; i < workers; ++i) {
        workspaces.push_back({QuantisedRows(g, kernels_, q, bandRows(g)),
                              std::vector<std::int32_t>(static_cast<std::size_t>(scratch))});
    }
    std::atomic<std::size_t> next{0};
    parallelRange(
        g.n * g.steps(), workers,
        [&](std::ptrdiff_t begin, std::ptrdiff_t end) {
            convolve(g, operands, shared, workspaces[next++], begin, end);
        },
        1);
}

}  // namespace zorv
