// The whole batch path on the demo subject: the stages alone, all of them together, and how the
// time per frame depends on the clip's length. Argument: seconds of audio; threads are 1 each.
//   batch_bench, with ZORV_DEMO_BUNDLE and ZORV_DEMO_ENCODER (defaults under build/demo)
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <zorv_core.hpp>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "demo_subject.h"

namespace {

using zorv::bench::demoBundle;
using zorv::bench::demoEncoder;

/// Speech-like: a pitch with formant-like harmonics, syllables at 4 Hz, pauses.
std::vector<float> clip(std::int64_t seconds) {
    std::vector<float> audio(static_cast<std::size_t>(seconds) * 16000);
    for (std::size_t i = 0; i < audio.size(); ++i) {
        const double t = static_cast<double>(i) / 16000;
        const double syllable = std::max(0.0, std::sin(2 * M_PI * 4 * t));
        const double phrase = std::fmod(t, 3.0) < 2.4 ? 1 : 0;
        double voice = 0;
        for (int h = 1; h <= 12; ++h) voice += std::sin(2 * M_PI * 130 * h * t) / h;
        audio[i] = static_cast<float>(0.15 * phrase * syllable * voice);
    }
    return audio;
}

zorv::ContextPtr openContext() {
    zorv::ContextPtr ctx = zorv::openContext(demoBundle(), "render", 1);
    for (int i = 0; i < zorv_nt(ctx.get()); ++i) zorv_target_frame(ctx.get(), i);
    return ctx;
}

void perFrame(benchmark::State& state, std::int64_t frames) {
    state.counters["frames"] = benchmark::Counter(static_cast<double>(frames * state.iterations()),
                                                  benchmark::Counter::kIsRate);
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    state.counters["peak_MiB"] = static_cast<double>(usage.ru_maxrss) / 1024;
}

void deltasAlone(benchmark::State& state) {
    const auto audio = clip(state.range(0));
    const int frames = static_cast<int>(audio.size() / 640);
    std::vector<float> out(static_cast<std::size_t>(frames) * 63);
    const zorv::DeltaPtr fca = zorv::openDelta(demoEncoder(), demoBundle() + "/fca_stream.onnx", 1);
    for (auto _ : state) {
        if (zorv_fca_deltas(fca.get(), audio.data(), static_cast<int>(audio.size()), out.data(),
                            frames) != frames) {
            state.SkipWithError(zorv_fca_last_error());
            return;
        }
    }
    perFrame(state, frames);
}

void rendersAlone(benchmark::State& state) {
    const zorv::ContextPtr ctx = openContext();
    const std::int64_t frames = state.range(0) * 25;
    for (auto _ : state) {
        for (std::int64_t i = 0; i < frames; ++i) {
            if (!zorv_render_drive_crop(ctx.get(),
                                        static_cast<int>(i % zorv_drive_frames(ctx.get())))) {
                state.SkipWithError(zorv_last_error());
                return;
            }
        }
    }
    perFrame(state, frames);
}

void pastesAlone(benchmark::State& state) {
    const zorv::ContextPtr ctx = openContext();
    const std::int64_t frames = state.range(0) * 25;
    const float* crop = zorv_render_drive_crop(ctx.get(), 0);
    if (!crop) {
        state.SkipWithError(zorv_last_error());
        return;
    }
    std::vector<std::uint8_t> out(static_cast<std::size_t>(zorv_width(ctx.get())) *
                                  static_cast<std::size_t>(zorv_height(ctx.get())) * 3);
    for (auto _ : state) {
        for (std::int64_t i = 0; i < frames; ++i) {
            zorv_paste_crop(ctx.get(), static_cast<int>(i % zorv_nt(ctx.get())), crop, out.data(),
                            out.size());
        }
    }
    perFrame(state, frames);
}

void wholeStream(benchmark::State& state) {
    const auto audio = clip(state.range(0));
    const int frames = static_cast<int>(audio.size() / 640);
    const zorv::StreamPtr stream = zorv::openStream(demoBundle(), demoEncoder(), 1);
    // Decodes the target frames, which later runs find in the cache.
    if (zorv_stream_run(stream.get(), audio.data(), 16000 * 10, nullptr, nullptr) < 0) {
        state.SkipWithError(zorv_stream_last_error());
        return;
    }
    for (auto _ : state) {
        if (zorv_stream_run(stream.get(), audio.data(), static_cast<int>(audio.size()), nullptr,
                            nullptr) != frames) {
            state.SkipWithError(zorv_stream_last_error());
            return;
        }
    }
    perFrame(state, frames);
}

BENCHMARK(deltasAlone)->Arg(20)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(rendersAlone)->Arg(20)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(pastesAlone)->Arg(20)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(wholeStream)->Arg(20)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(wholeStream)->Arg(600)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
