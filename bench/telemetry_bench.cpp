// What recording costs: one record of each kind, off and on, and all that one speech frame of an
// utterance engine records. `allocations` counts calls of
// operator new by the thread while the loop runs; `percent_of_frame` is the share of a frame's 40
// ms.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <new>
#include <vector>

#include "telemetry/telemetry.h"
#include "zorv_core.h"

namespace {

thread_local std::uint64_t allocations = 0;

}  // namespace

// Not inlined, or the compiler takes the pair below for a mismatch.
__attribute__((noinline)) void* operator new(std::size_t bytes) {
    ++allocations;
    if (void* memory = std::malloc(bytes)) return memory;
    throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* memory) noexcept {
    std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace {

using namespace zorv;

constexpr double kFrameSeconds = 0.04;

void recordCount() {
    telemetry::count({"zorv.frames.rendered", "{frame}"});
}

void recordDuration() {
    telemetry::Stopwatch().record({"zorv.render.duration", "s"});
}

/// As many records as a frame on its way through exchange, render, paste and pull makes.
void recordFrame() {
    telemetry::Stopwatch().record({"zorv.motion.step.duration", "s"});
    telemetry::Stopwatch().record({"zorv.render.duration", "s"});
    telemetry::count({"zorv.frames.rendered", "{frame}"});
    telemetry::Stopwatch().record({"zorv.composite.duration", "s"});
    telemetry::count({"zorv.frames.composited", "{frame}"});
    telemetry::count({"zorv.utterance.frames.pulled", "{frame}"});
    telemetry::gauge({"zorv.utterance.ring.depth", "{frame}"}, 3);
}

template <void (*Record)()>
void records(benchmark::State& state) {
    zorv_telemetry_enable(static_cast<int>(state.range(0)));
    Record();  // the first of a name makes its instrument
    const std::uint64_t before = allocations;
    for (auto _ : state) Record();
    state.counters["allocations"] = static_cast<double>(allocations - before);
    if (Record == recordFrame) {
        state.counters["percent_of_frame"] =
            benchmark::Counter(static_cast<double>(state.iterations()) * kFrameSeconds / 100,
                               benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    }
    zorv_telemetry_enable(0);
}

BENCHMARK(records<recordCount>)->Name("count")->ArgName("on")->Arg(0)->Arg(1)->ThreadRange(1, 4);
BENCHMARK(records<recordDuration>)
    ->Name("duration")
    ->ArgName("on")
    ->Arg(0)
    ->Arg(1)
    ->ThreadRange(1, 4);
BENCHMARK(records<recordFrame>)->Name("frame")->ArgName("on")->Arg(0)->Arg(1)->ThreadRange(1, 4);

void takeBatch(benchmark::State& state) {
    zorv_telemetry_enable(1);
    std::vector<char> text(1 << 20);
    for (auto _ : state) {
        recordFrame();
        benchmark::DoNotOptimize(zorv_telemetry_take(text.data(), text.size()));
    }
    zorv_telemetry_enable(0);
}
BENCHMARK(takeBatch);

}  // namespace
