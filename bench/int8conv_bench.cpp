// The int8 convolution beside the runtime's own chain of nodes and its float convolution, by turns
// in one run. Every figure is a median; ratios are the rival's time over ours. The share of the
// machine's peak counts useful multiplications against a loop of byte dot products in registers.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "common/ort.h"
#include "render/custom_operators.h"
#include "render/int8conv_vnni.h"

namespace {

double now(clockid_t clock) {
    timespec at{};
    ::clock_gettime(clock, &at);
    return static_cast<double>(at.tv_sec) + 1e-9 * static_cast<double>(at.tv_nsec);
}

double seconds(clockid_t clock, auto&& work) {
    const double start = now(clock);
    work();
    return now(clock) - start;
}

double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

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
    if (zorv::hasAvx512Vnni())
        return 64 * 12 * kLoops /
               seconds(CLOCK_THREAD_CPUTIME_ID, [&] { RUN_DOT_PRODUCTS(DOT_512); });
    if (zorv::hasAvxVnni())
        return 32 * 12 * kLoops /
               seconds(CLOCK_THREAD_CPUTIME_ID, [&] { RUN_DOT_PRODUCTS(DOT_256); });
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
        session_ = zorv::BoundSession(zorv::createOperatorSession(env_, path, options));
        session_.bindInput("x", x_.data(), x_.size(), {1, c, side, side});
        session_.bindOutput("y", y_.data(), y_.size(), {1, m, side, side});
    }
    void run() { session_.run(); }

  private:
    Ort::Env env_ = zorv::makeOrtEnv("bench");
    std::vector<float> x_, y_;
    zorv::BoundSession session_;
};

/// The convolution with one entry of the kernel table, and its matrix part alone.
class Direct {
  public:
    Direct(const zorv::Int8ConvKernels& kernels, const zorv::ConvGeometry& geometry,
           const std::vector<float>& x, int workers)
        : kernels_(kernels),
          geometry_(geometry),
          x_(x),
          weights_(static_cast<std::size_t>(geometry.m * geometry.c * 9)),
          perChannel_(static_cast<std::size_t>(geometry.m), 0.01f),
          corrections_(static_cast<std::size_t>(geometry.m), 7),
          quantised_(geometry.quantisedBytes()),
          y_(static_cast<std::size_t>(geometry.m * geometry.oh * geometry.ow)),
          conv_(geometry.attributes, kernels, {workers}) {
        std::mt19937 random(2);
        for (auto& v : weights_) v = static_cast<std::int8_t>(random());
        for (auto& v : quantised_) v = static_cast<std::uint8_t>(random());
        packed_ = zorv::PackedWeights(geometry, weights_.data(), kernels.block, kernels.widened);
    }
    void run() {
        conv_.run(geometry_,
                  {x_.data(), weights_.data(), perChannel_.data(), perChannel_.data(), y_.data()});
    }
    void matrixPart() {
        const zorv::ConvRun run = {geometry_,          packed_,
                                   quantised_.data(),  corrections_.data(),
                                   perChannel_.data(), perChannel_.data(),
                                   y_.data()};
        kernels_.convolveRows(run, 0, geometry_.oh);
    }
    std::string name() const { return kernels_.name; }

  private:
    const zorv::Int8ConvKernels& kernels_;
    const zorv::ConvGeometry& geometry_;
    const std::vector<float>& x_;
    std::vector<std::int8_t> weights_;
    std::vector<float> perChannel_;
    std::vector<std::int32_t> corrections_;
    std::vector<std::uint8_t> quantised_;
    std::vector<float> y_;
    zorv::PackedWeights packed_;
    zorv::Int8Conv conv_;
};

/// Arguments: C, side, M, threads.
void besideTheChain(benchmark::State& state) {
    const std::int64_t c = state.range(0), side = state.range(1), m = state.range(2);
    const int threads = static_cast<int>(state.range(3));
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
    for (const zorv::Int8ConvKernels* kernels : zorv::int8ConvKernels()) {
        if (kernels->path == zorv::Int8ConvPath::kPortable) continue;  // seconds per run
        direct.push_back(std::make_unique<Direct>(*kernels, geometry, x, threads));
    }

    // The time that one thread spends is free of what else the machine does.
    const clockid_t clock = threads == 1 ? CLOCK_THREAD_CPUTIME_ID : CLOCK_MONOTONIC;
    std::map<std::string, std::vector<double>> times;
    const auto turn = [&](bool counted) {
        const auto take = [&](const std::string& what, auto&& work) {
            const double time = seconds(clock, work);
            if (counted) times[what].push_back(time);
        };
        take("chain", [&] { chain.run(); });
        take("node", [&] { node.run(); });
        take("float", [&] { floats.run(); });
        for (const auto& one : direct) {
            take(one->name(), [&] { one->run(); });
            if (threads == 1)
                take(std::string("matrix_").append(one->name()), [&] { one->matrixPart(); });
        }
        if (counted) times["peak"].push_back(measuredPeak());
    };
    turn(false);
    for (auto _ : state) turn(true);

    const double macs = static_cast<double>(m * c * 9) * static_cast<double>(side * side);
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
                100 * macs / median(times[std::string("matrix_").append(one->name())]) / peak;
        }
    }
}

void shapes(benchmark::internal::Benchmark* bench) {
    for (const int threads : {1, 2}) {
        for (const auto& s : std::vector<std::vector<std::int64_t>>{
                 {64, 64, 64}, {128, 64, 128}, {64, 128, 64}, {32, 256, 32}, {256, 32, 256}}) {
            bench->Args({s[0], s[1], s[2], threads});
        }
    }
}
BENCHMARK(besideTheChain)->Apply(shapes)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
