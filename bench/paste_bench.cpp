// One paste into a full HD frame, per instruction set. Argument 0 is the placement's scale in
// percent.
#include <benchmark/benchmark.h>

#include "paste/zorv_paste.h"
#include "paste_scene.h"

namespace {

constexpr int W = PasteScene::kWidth, H = PasteScene::kHeight;

/// In place.
void composite(zorv::Paste& paste, PasteScene& scene, const zorv::Placement& where) {
    using zorv::PixelForm;
    const zorv::FrameView view = zorv::packedView(PixelForm::kRgb, scene.frame.data(), W, H);
    paste.composite(scene.crop.data(), 255, where, zorv::rgbBackdrop(scene.frame.data(), W, H),
                    {PixelForm::kRgb, zorv::YuvMatrix::kBt709, view, W, H});
    benchmark::ClobberMemory();
}

void run(benchmark::State& state, zorv::SimdLevel level, int workers, bool moving) {
    if (level > zorv::detectedSimdLevel()) {
        state.SkipWithError("the processor lacks this instruction set");
        return;
    }
    PasteScene scene(static_cast<double>(state.range(0)) / 100);
    const zorv::PasteKernels& kernels = *zorv::chooseKernel(zorv::kPasteKernels, level).entry;
    zorv::Paste paste(scene.mask, PasteScene::kSide, {}, kernels, workers);
    zorv::Placement where = paste.place(scene.M, W, H);
    for (auto _ : state) {
        if (moving) {
            scene.M[2] += scene.M[2] < 970 ? 0.25f : -20.0f;
            where = paste.place(scene.M, W, H);
        }
        composite(paste, scene, where);
    }
}

void sameTarget(benchmark::State& state, zorv::SimdLevel level, int workers) {
    run(state, level, workers, false);
}

/// Every frame on another placement, so that nothing of the last one can be used again.
void otherTarget(benchmark::State& state, zorv::SimdLevel level) {
    run(state, level, 1, true);
}

BENCHMARK_CAPTURE(sameTarget, portable, zorv::SimdLevel::kPortable, 1)->Arg(100)->Arg(60);
BENCHMARK_CAPTURE(sameTarget, avx2, zorv::SimdLevel::kAvx2, 1)->Arg(100)->Arg(60);
BENCHMARK_CAPTURE(sameTarget, avx512, zorv::SimdLevel::kAvx512, 1)->Arg(100)->Arg(60);
BENCHMARK_CAPTURE(otherTarget, portable, zorv::SimdLevel::kPortable)->Arg(100)->Arg(60);
BENCHMARK_CAPTURE(otherTarget, avx2, zorv::SimdLevel::kAvx2)->Arg(100)->Arg(60);
BENCHMARK_CAPTURE(otherTarget, avx512, zorv::SimdLevel::kAvx512)->Arg(100)->Arg(60);
BENCHMARK_CAPTURE(sameTarget, portable_2_workers, zorv::SimdLevel::kPortable, 2)
    ->Arg(100)
    ->Arg(60)
    ->UseRealTime();
BENCHMARK_CAPTURE(sameTarget, avx2_2_workers, zorv::SimdLevel::kAvx2, 2)
    ->Arg(100)
    ->Arg(60)
    ->UseRealTime();
BENCHMARK_CAPTURE(sameTarget, avx512_2_workers, zorv::SimdLevel::kAvx512, 2)
    ->Arg(100)
    ->Arg(60)
    ->UseRealTime();

/// Instruction set and workers as the library chooses them; `ZORV_SIMD` lowers the first.
void byDefault(benchmark::State& state) {
    PasteScene scene(static_cast<double>(state.range(0)) / 100);
    zorv::Paste paste(scene.mask, PasteScene::kSide, {});
    const zorv::Placement where = paste.place(scene.M, W, H);
    for (auto _ : state) composite(paste, scene, where);
}
BENCHMARK(byDefault)->Arg(100)->Arg(60)->UseRealTime();

}  // namespace
