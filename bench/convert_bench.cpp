// Conversions on the way in and out: half-precision identity tensors to float, RGB to RGBA, sound
// of another rate in pieces of 20 ms (share of a core: processor time of a second of it). The
// rivals are loops with the same reads and writes (bench-only, see convert_rival*.cpp).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "audio/speech_resampler.h"
#include "common/cpu.h"
#include "common/half.h"
#include "convert_rival.h"
#include "paste/rgba.h"

namespace {

using HalfLoop = void (*)(const std::uint16_t*, float*, std::size_t);
using RgbaLoop = void (*)(const std::uint8_t*, std::uint8_t*, std::size_t);

constexpr std::size_t kCropValues = 3 * 512 * 512;
constexpr std::size_t kFramePixels = 1920 * 1080;

/// The tensors of 16 target frames in turn, as a walk reads them: not in the cache.
void half(benchmark::State& state, HalfLoop loop) {
    constexpr std::size_t kFrames = 16;
    std::vector<std::uint16_t> source(kFrames * kCropValues);
    for (std::size_t i = 0; i < source.size(); ++i) {
        source[i] = static_cast<std::uint16_t>(i * 7 % 15360);
    }
    std::vector<float> destination(kCropValues);
    std::size_t frame = 0;
    for (auto _ : state) {
        loop(source.data() + frame * kCropValues, destination.data(), kCropValues);
        benchmark::ClobberMemory();
        frame = (frame + 1) % kFrames;
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kCropValues * 6));
}

void rgba(benchmark::State& state, RgbaLoop loop) {
    std::vector<std::uint8_t> source(kFramePixels * 3, 77);
    std::vector<std::uint8_t> destination(kFramePixels * 4);
    for (auto _ : state) {
        loop(source.data(), destination.data(), kFramePixels);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kFramePixels * 7));
}

void resample(benchmark::State& state) {
    const auto rate = static_cast<int>(state.range(0));
    const std::size_t piece = static_cast<std::size_t>(rate) / 50;
    std::vector<std::int16_t> second(static_cast<std::size_t>(rate));
    for (std::size_t i = 0; i < second.size(); ++i) {
        second[i] = static_cast<std::int16_t>(i * 7919 % 20011);
    }
    zorv::SpeechResampler resampler(rate);
    std::vector<float> out;
    for (auto _ : state) {
        for (std::size_t at = 0; at + piece <= second.size(); at += piece) {
            out.clear();
            resampler.push(second.data() + at, piece, out);
            benchmark::ClobberMemory();
        }
    }
}

BENCHMARK_CAPTURE(half, rival_no_conversion, rival::widenWithoutConversion);
BENCHMARK_CAPTURE(half, rival_no_conversion_avx2, rival::widenWithoutConversionAvx2);
BENCHMARK_CAPTURE(half, portable, zorv::kernels::halfToFloatPortable);
BENCHMARK_CAPTURE(half, chosen, zorv::halfToFloat);

BENCHMARK_CAPTURE(rgba, rival_scalar, rival::rgbToRgbaScalar);
BENCHMARK_CAPTURE(rgba, portable, zorv::kernels::rgbToRgbaPortable);
BENCHMARK_CAPTURE(rgba, chosen, zorv::rgbToRgba);

BENCHMARK(resample)->Arg(8000)->Arg(16000)->Arg(24000)->Arg(44100)->Arg(48000);

}  // namespace
