// The int8 convolution beside the runtime's own chain of nodes and its float convolution, by turns
// in one run. Every figure is a median; ratios are the rival's time over ours. The share of the
// machine's peak counts useful multiplications against a loop of byte dot products in registers.
// Rows of one thread count processor time and need ZORV_INT8_THREADS=1, those of two count time.
//   int8conv_bench, with ZORV_DEMO_BUNDLE naming the bundle (default: build/demo/bundle)
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "bundle/zorv_bundle.h"
#include "common/model_run.h"
#include "common/ort.h"
#include "demo_subject.h"
#include "render/custom_operators.h"
#include "render/int8conv/int8conv_vnni.h"
#include "render/zorv_renderer.h"
#include "stopwatch.h"

namespace {

using zorv::bench::median;
using zorv::bench::seconds;

#define DOT_PRODUCTS(one)                                                                  \
    "1:\n" one(2) one(3) one(4) one(5) one(6) one(7) one(8) one(9) one(10) one(11) one(12) \
        one(13) "dec %0\njnz 1b\n"
#define DOT_512(n) "vpdpbusd %%zmm0,%%zmm1,%%zmm" #n "\n"
#define DOT_256(n) "%{vex%} vpdpbusd %%ymm0,%%ymm1,%%ymm" #n "\n"
#define RUN_DOT_PRODUCTS(one)                                                                   \
    asm volatile(DOT_PRODUCTS(one)                                                              \
                 : "+r"(loops)::"xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7", \
                   "xmm8", "xmm9", "xmm10", "xmm11", "xmm12", "xmm13")

/// Multiplications per second of one core that does nothing else; 0 without the instruction.
double measuredPeak() {
    constexpr long kLoops = 100000;
    long loops = kLoops;
    if (zorv::hasAvx512Vnni()) {
        return 64 * 12 * kLoops /
               seconds(CLOCK_THREAD_CPUTIME_ID, [&] { RUN_DOT_PRODUCTS(DOT_512); });
    }
    if (zorv::hasAvxVnni()) {
        return 32 * 12 * kLoops /
               seconds(CLOCK_THREAD_CPUTIME_ID, [&] { RUN_DOT_PRODUCTS(DOT_256); });
    }
    return 0;
}

/// One model of int8conv_models.py with input and output bound.
class Model {
  public:
    Model(const std::string& name, const std::vector<float>& x, std::int64_t c, std::int64_t side,
          std::int64_t m, int threads)
        : x_(x), y_(static_cast<std::size_t>(m * side * side)) {
        Ort::SessionOptions options = zorv::makeSessionOptions(threads);
        options.AddConfigEntry("session.intra_op.allow_spinning", "0");
        zorv::registerInt8ConvVNNI(options);
        const std::string path = std::string(ZORV_BENCH_MODELS) + "/" + name + ".onnx";
        Ort::Env env = zorv::makeOrtEnv("bench");
        Ort::Session session = zorv::createOperatorSession(env, path, options);
        run_.emplace(zorv::makeModel(path, std::move(env), std::move(session)),
                     zorv::ModelContract{{{"x", {1, c, side, side}}}, {{"y", {1, m, side, side}}}});
        run_->bindInput(0, x_.data());
        run_->bindOutput(0, y_.data());
    }
    void run() { run_->run(); }

  private:
    std::vector<float> x_, y_;
    std::optional<zorv::ModelRun> run_;
};

/// The convolution with one entry of the kernel table, and its matrix part alone.
class Direct {
  public:
    Direct(const zorv::Kernel<const zorv::Int8ConvKernels*>& kernel,
           const zorv::ConvGeometry& geometry, const std::vector<float>& x, int workers)
        : kernel_(kernel),
          geometry_(geometry),
          x_(x),
          weights_(static_cast<std::size_t>(geometry.m * geometry.c * 9)),
          perChannel_(static_cast<std::size_t>(geometry.m), 0.01f),
          starts_(static_cast<std::size_t>(geometry.m) + zorv::kMaxBlock, 7),
          quantised_(geometry.windowBytes(geometry.oh)),
          y_(static_cast<std::size_t>(geometry.m * geometry.oh * geometry.ow)),
          conv_(geometry.attributes, *kernel.entry, {workers}) {
        std::mt19937 random(2);
        for (auto& v : weights_) v = static_cast<std::int8_t>(random());
        for (auto& v : quantised_) v = static_cast<std::uint8_t>(random());
        packed_ = zorv::PackedWeights(geometry, weights_.data(), kernel.entry->block,
                                      kernel.entry->widened);
    }
    void run() {
        conv_.run(geometry_,
                  {x_.data(), weights_.data(), perChannel_.data(), perChannel_.data(), y_.data()});
    }
    void matrixPart() {
        const zorv::ConvRun run = {
            geometry_,          packed_,  quantised_.data(), starts_.data(), perChannel_.data(),
            perChannel_.data(), y_.data()};
        kernel_.entry->convolveRows(run, 0, geometry_.oh);
    }
    std::string name() const { return kernel_.name; }
    bool enlarges() const { return geometry_.attributes.enlarged; }

  private:
    const zorv::Kernel<const zorv::Int8ConvKernels*>& kernel_;
    const zorv::ConvGeometry& geometry_;
    const std::vector<float>& x_;
    std::vector<std::int8_t> weights_;
    std::vector<float> perChannel_;
    std::vector<std::int32_t> starts_;
    std::vector<std::uint8_t> quantised_;
    std::vector<float> y_;
    zorv::PackedWeights packed_;
    zorv::Int8Conv conv_;
};

/// The operator's worker count is the process's own and must agree with the row.
bool workersAgree(benchmark::State& state, int threads) {
    if (zorv::convThreads() == threads) return true;
    state.SkipWithError(threads == 1 ? "run with ZORV_INT8_THREADS=1" : "too few workers");
    return false;
}

using Times = std::map<std::string, std::vector<double>>;

std::string matrixName(const Direct& direct) {
    return "matrix_" + direct.name();
}

/// Ratios to the chain, and shares of the measured peak.
void report(benchmark::State& state, Times& times,
            const std::vector<std::unique_ptr<Direct>>& direct, double macs, int threads) {
    const double chainTime = median(times["chain"]), peak = median(times["peak"]) * threads;
    state.counters["chain_us"] = chainTime * 1e6;
    state.counters["float_us"] = median(times["float"]) * 1e6;
    state.counters["node_us"] = median(times["node"]) * 1e6;
    state.counters["node_x"] = chainTime / median(times["node"]);
    state.counters["peak_GMAC_s"] = peak / 1e9;
    for (const auto& one : direct) {
        const double whole = median(times[one->name()]);
        state.counters[one->name() + "_us"] = whole * 1e6;
        state.counters[one->name() + "_x"] = chainTime / whole;
        if (peak > 0) state.counters[one->name() + "_percent"] = 100 * macs / whole / peak;
        if (peak > 0 && threads == 1) {
            state.counters[one->name() + "_matrix_percent"] =
                100 * macs / median(times[matrixName(*one)]) / peak;
        }
    }
}

/// Arguments: C, side, M, threads.
void besideTheChain(benchmark::State& state) {
    const std::int64_t c = state.range(0), side = state.range(1), m = state.range(2);
    const int threads = static_cast<int>(state.range(3));
    if (!workersAgree(state, threads)) return;
    std::string shape;
    for (const std::int64_t size : {c, side, m}) shape.append("_").append(std::to_string(size));
    std::mt19937 random(1);
    std::vector<float> x(static_cast<std::size_t>(c * side * side));
    for (float& v : x) v = static_cast<float>(random() % 3001) / 1000 - 1;
    const zorv::ConvGeometry geometry({{1, 1}, {1, 1, 1, 1}, {1, 1}, 1}, {1, c, side, side},
                                      {m, c, 3, 3});

    Model chain("chain" + shape, x, c, side, m, threads);
    Model floats("conv" + shape, x, c, side, m, threads);
    Model node("int8" + shape, x, c, side, m, threads);
    std::vector<std::unique_ptr<Direct>> direct;
    for (const auto& kernel : zorv::kInt8ConvKernels) {
        if (!kernel.usable(zorv::simdLevel())) continue;
        if (kernel.level == zorv::SimdLevel::kPortable) continue;  // seconds per run
        direct.push_back(std::make_unique<Direct>(kernel, geometry, x, threads));
    }

    const clockid_t clock = threads == 1 ? CLOCK_PROCESS_CPUTIME_ID : CLOCK_MONOTONIC;
    Times times;
    const auto turn = [&](bool counted) {
        // Warm, as in a network, where the input has just been written.
        const auto take = [&](const std::string& what, auto&& work) {
            constexpr int kRuns = 3;
            work();
            const double time = seconds(clock, [&] {
                for (int i = 0; i < kRuns; ++i) work();
            });
            if (counted) times[what].push_back(time / kRuns);
        };
        take("chain", [&] { chain.run(); });
        take("node", [&] { node.run(); });
        take("float", [&] { floats.run(); });
        for (const auto& one : direct) {
            take(one->name(), [&] { one->run(); });
            if (threads == 1) take(matrixName(*one), [&] { one->matrixPart(); });
        }
        if (counted) times["peak"].push_back(measuredPeak());
    };
    turn(false);
    for (auto _ : state) turn(true);

    report(state, times, direct, static_cast<double>(m * c * 9) * static_cast<double>(side * side),
           threads);
}

void shapes(benchmark::internal::Benchmark* bench) {
    for (const int threads : {1, 2}) {
        for (const auto& s : std::vector<std::vector<std::int64_t>>{
                 {64, 64, 64}, {128, 64, 128}, {64, 128, 64}, {32, 256, 32}, {256, 32, 256}}) {
            bench->Args({s[0], s[1], s[2], threads});
        }
    }
}

/// A 3 x 3 convolution of a picture enlarged by two, worked out from the small one, beside the
/// plain one of the large picture, which is there already. Arguments: C, small side, M; one thread.
void enlarging(benchmark::State& state) {
    const std::int64_t c = state.range(0), side = state.range(1), m = state.range(2);
    std::vector<float> x(static_cast<std::size_t>(c * side * side * 4));
    std::mt19937 random(1);
    for (float& v : x) v = static_cast<float>(random() % 3001) / 1000 - 1;
    const zorv::ConvGeometry small({{1, 1}, {1, 1, 1, 1}, {1, 1}, 1, true}, {1, c, side, side},
                                   {m, c, 3, 3});
    const zorv::ConvGeometry large({{1, 1}, {1, 1, 1, 1}, {1, 1}, 1}, {1, c, 2 * side, 2 * side},
                                   {m, c, 3, 3});
    std::vector<std::unique_ptr<Direct>> direct;
    Times times;
    for (const auto& kernel : zorv::kInt8ConvKernels) {
        if (kernel.level == zorv::SimdLevel::kPortable || !kernel.usable(zorv::simdLevel()))
            continue;
        for (const auto* geometry : {&small, &large}) {
            direct.push_back(std::make_unique<Direct>(kernel, *geometry, x, 1));
        }
    }
    const auto name = [](const Direct& one) {
        return one.name() + (one.enlarges() ? "" : "_plain");
    };
    for (const auto& one : direct) one->run();
    for (auto _ : state) {
        for (const auto& one : direct) {
            times[name(*one)].push_back(seconds(CLOCK_PROCESS_CPUTIME_ID, [&] { one->run(); }));
        }
    }
    for (const auto& [what, values] : times) state.counters[what + "_us"] = median(values) * 1e6;
}

/// A renderer of realistic size: in float with the runtime's nodes alone, in float with our grid
/// sampler, and its int8 twin: as it is, with the nodes beside its convolutions left apart, and
/// with the last layer in int8, too. Argument: threads.
void wholeRenderers(benchmark::State& state) {
    const int threads = static_cast<int>(state.range(0));
    if (!workersAgree(state, threads)) return;
    zorv::Manifest manifest = zorv::loadManifest(zorv::bench::demoBundle());
    const zorv::Identity identity(manifest);
    const zorv::Drive drive = zorv::loadDrive(manifest);
    manifest.dir = ZORV_BENCH_MODELS;
    ::setenv("ZORV_GS_FAST", "0", 1);
    zorv::Renderer bare(manifest, identity, "float", threads, "");
    ::unsetenv("ZORV_GS_FAST");
    zorv::Renderer floats(manifest, identity, "float", threads, "");
    zorv::Renderer int8(manifest, identity, "int8", threads, "");
    zorv::Renderer int8Last(manifest, identity, "int8_last", threads, "");
    ::setenv("ZORV_INT8_FOLD", "0", 1);
    zorv::Renderer int8Apart(manifest, identity, "int8", threads, "");
    ::unsetenv("ZORV_INT8_FOLD");

    std::map<std::string, std::vector<double>> times;
    const clockid_t clock = threads == 1 ? CLOCK_PROCESS_CPUTIME_ID : CLOCK_MONOTONIC;
    std::size_t k = 0;
    for (auto _ : state) {
        const auto take = [&](const char* what, zorv::Renderer& renderer) {
            times[what].push_back(seconds(clock, [&] {
                renderer.render(&drive.si[k], drive.xs.data() + 63 * k, drive.xd.data() + 63 * k,
                                1);
            }));
        };
        take("bare", bare);
        take("float", floats);
        take("int8", int8);
        take("int8_last", int8Last);
        take("int8_apart", int8Apart);
        k = (k + 1) % drive.si.size();
    }
    state.counters["fps_without_operators"] = 1 / median(times["bare"]);
    state.counters["fps_float"] = 1 / median(times["float"]);
    for (const char* what : {"int8", "int8_last", "int8_apart"}) {
        state.counters[std::string("fps_") + what] = 1 / median(times[what]);
    }
}

BENCHMARK(wholeRenderers)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(enlarging)->Args({128, 64, 64})->Args({64, 128, 32})->Unit(benchmark::kMillisecond);
BENCHMARK(besideTheChain)->Apply(shapes)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
