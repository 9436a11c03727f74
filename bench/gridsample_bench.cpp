// Grid samplers against ONNX Runtime's own GridSample node on the same tensors. All are run by
// turns, so that whatever else the machine does meets them alike; counters are medians:
//   node_us                       the runtime's node, in a session of the given threads
//   portable, avx2, avx512_x      how many times as fast each kernel is, called directly
//   gather_x                      the same for a plain loop with one gather per corner
//   operator_x                    and for the operator in a session of one thread
// With one thread the calling thread's processor time counts, with two the wall time.
// Arguments: channels, height, width, grid (see Grid), threads of the node's session.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "common/memory.h"
#include "common/model_run.h"
#include "common/ort.h"
#include "gridsample_rival.h"
#include "one_node_model.h"
#include "render/gridsample/gridsample_fast.h"
#include "render/gridsample/op.h"
#include "render/gridsample/rewrite.h"
#include "stopwatch.h"

namespace {

enum Grid { kSmooth, kRandom, kTurned, kOutside };

/// A few degrees, one per cent of scale and slow waves; every point anywhere; a quarter turn
/// (neighbours lie in a column); everything beyond the left edge.
std::vector<float> makeGrid(Grid kind, std::int64_t H, std::int64_t W) {
    std::vector<float> grid;
    std::mt19937 random(1);
    std::uniform_real_distribution<float> anywhere(-1.05f, 1.05f);
    const float angle = 0.05f, scale = 1.01f;
    for (std::int64_t i = 0; i < H * W; ++i) {
        const float u = (2 * static_cast<float>(i % W) + 1) / static_cast<float>(W) - 1;
        const float v = (2 * static_cast<float>(i / W) + 1) / static_cast<float>(H) - 1;
        float x = scale * (std::cos(angle) * u - std::sin(angle) * v) + 0.01f * std::sin(3 * v);
        float y = scale * (std::sin(angle) * u + std::cos(angle) * v) + 0.01f * std::sin(3 * u);
        if (kind == kTurned) std::swap(x, y);
        if (kind == kRandom) x = anywhere(random), y = anywhere(random);
        if (kind == kOutside) x -= 3;
        grid.push_back(x);
        grid.push_back(y);
    }
    return grid;
}

struct Tensors {
    Tensors(std::int64_t c, std::int64_t h, std::int64_t w, Grid kind)
        : C(c),
          H(h),
          W(w),
          x(static_cast<std::size_t>(c * h * w)),
          y(x.size()),
          grid(makeGrid(kind, h, w)) {
        std::mt19937 random(2);
        std::uniform_real_distribution<float> value(-1, 1);
        for (std::size_t i = 0; i < x.size(); ++i) x.data()[i] = value(random);
        std::fill_n(y.data(), y.size(), 0.0f);  // the pages are there before anything is timed
    }
    std::int64_t C, H, W;
    zorv::ZeroedArray<float> x, y;  ///< aligned, as the runtime's tensors are
    std::vector<float> grid;
};

/// A session of the one-node model, bound to the tensors.
zorv::ModelRun openSession(Tensors& t, int threads, bool fast) {
    Ort::SessionOptions options = zorv::makeSessionOptions(threads);
    std::string model = zorv::bench::gridSampleModel(t.C, t.H, t.W);
    if (fast) {
        zorv::registerGridSampleFast(options);
        zorv::rewriteGridSampleToFast(model);
    }
    Ort::Env env = zorv::makeOrtEnv("bench");
    Ort::Session session(env, model.data(), model.size(), options);
    zorv::ModelRun bound(
        zorv::makeModel("", std::move(env), std::move(session)),
        {{{"x", {1, t.C, t.H, t.W}}, {"grid", {1, t.H, t.W, 2}}}, {{"y", {1, t.C, t.H, t.W}}}});
    bound.bindInput(0, t.x.data());
    bound.bindInput(1, t.grid.data());
    bound.bindOutput(0, t.y.data());
    return bound;
}

/// One thing to time, and its times in microseconds.
struct Contender {
    std::string name;
    int runs;  ///< per turn
    std::function<void()> work;
    std::vector<double> times = {};

    void turn(clockid_t clock) {
        times.push_back(1e6 / runs * zorv::bench::seconds(clock, [&] {
                            for (int i = 0; i < runs; ++i) work();
                        }));
    }
    double median() const { return zorv::bench::median(times); }
};

void againstNode(benchmark::State& state) {
    Tensors t(state.range(0), state.range(1), state.range(2), static_cast<Grid>(state.range(3)));
    zorv::ModelRun node = openSession(t, static_cast<int>(state.range(4)), false);
    zorv::ModelRun op = openSession(t, 1, true);
    std::vector<Contender> contenders;
    contenders.push_back({"node_us", 1, [&] { node.run(); }});
    for (const auto& kernel : zorv::kGridSampleKernels) {
        if (!kernel.usable(zorv::detectedSimdLevel())) continue;
        const int runs = kernel.level == zorv::SimdLevel::kPortable ? 1 : 5;
        contenders.push_back(
            {kernel.name + std::string("_x"), runs,
             [&] { kernel.entry(t.x.data(), t.grid.data(), t.y.data(), t.C, t.H, t.W); }});
    }
    contenders.push_back({"operator_x", 5, [&] { op.run(); }});
    if (zorv::detectedSimdLevel() >= zorv::SimdLevel::kAvx2) {
        contenders.push_back(
            {"gather_x", 3,
             [&] { gatherPerCorner(t.x.data(), t.grid.data(), t.y.data(), t.C, t.H, t.W); }});
    }
    // What a session's second thread does is not in the caller's processor time.
    const clockid_t clock = state.range(4) == 1 ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC;
    for (auto _ : state) {
        for (Contender& contender : contenders) contender.turn(clock);
    }
    const double nodeTime = contenders[0].median();
    state.counters["node_us"] = nodeTime;
    for (std::size_t i = 1; i < contenders.size(); ++i) {
        state.counters[contenders[i].name] = nodeTime / contenders[i].median();
    }
}

void cases(benchmark::internal::Benchmark* b) {
    for (const int threads : {1, 2}) {
        for (const Grid grid : {kSmooth, kRandom, kTurned, kOutside}) {
            b->Args({32, 64, 64, grid, threads});
            b->Args({64, 64, 64, grid, threads});
            b->Args({256, 64, 64, grid, threads});
            b->Args({64, 32, 32, grid, threads});
            b->Args({3, 512, 512, grid, threads});
        }
    }
}
BENCHMARK(againstNode)
    ->ArgNames({"C", "H", "W", "grid", "threads"})
    ->Apply(cases)
    ->Iterations(20)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
