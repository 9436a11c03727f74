#include "paste/zorv_paste.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <random>
#include <string>

#include "paste_reference.h"
#include "support/failure.h"
#include "support/kernels.h"
#include "support/scoped_env.h"

namespace zorv {
namespace {

using test::ScopedEnv;
using PasteKernel = Kernel<const PasteKernels*>;

enum class MaskKind { kZero, kFull, kRandom, kEllipse };

struct Scene {
    int S, W, H;
    float scale;
    std::vector<std::uint8_t> mask;
    std::vector<float> crop;
    std::vector<std::uint8_t> frame;

    Scene(std::mt19937& rng, int side, int width, int height, MaskKind kind, float range = 255)
        : S(side), W(width), H(height), scale(range) {
        mask.resize(S * S);
        for (int i = 0; i < S * S; ++i) {
            const double dx = (i % S + 0.5) / S - 0.5;
            const double dy = (i / S + 0.5) / S - 0.5;
            const double edge = (0.5 - std::hypot(dx, dy)) * S * 60;
            mask[i] = kind == MaskKind::kZero   ? 0
                      : kind == MaskKind::kFull ? 255
                      : kind == MaskKind::kRandom
                          ? static_cast<std::uint8_t>(rng() % 3 ? rng() : 0)
                          : static_cast<std::uint8_t>(std::clamp(edge, 0.0, 255.0));
        }
        crop.resize(3 * S * S);
        for (float& v : crop) v = static_cast<float>(rng() % 4096) / 4095 * 255 / range;
        frame.resize(std::size_t{3} * W * H);
        for (std::uint8_t& v : frame) v = static_cast<std::uint8_t>(rng());
    }
};

std::array<float, 6> turned(float degrees, float scale, float cx, float cy, int S,
                            bool flipped = false) {
    const float a = scale * std::cos(degrees * 3.14159265f / 180);
    const float b = scale * std::sin(degrees * 3.14159265f / 180);
    const float half = static_cast<float>(S - 1) / 2;
    const float f = flipped ? -1.0f : 1.0f;
    return {f * a, -b, cx - f * a * half + b * half, f * b, a, cy - f * b * half - a * half};
}

/// Into an RGB frame.
void composite(Paste& paste, const float* crop, float scale, const float* M,
               std::vector<std::uint8_t>& frame, int W, int H) {
    const FrameView view = packedView(PixelForm::kRgb, frame.data(), W, H);
    paste.composite(crop, scale, paste.place(M, W, H), rgbBackdrop(frame.data(), W, H),
                    FrameWriter(PixelForm::kRgb, YuvMatrix::kBt601, view, W, H));
}

constexpr int kUnset = -2;

/// Pastes with the library and with the reference and expects the same bytes.
void expectSame(const Scene& scene, const float* M, Unsharp unsharp, int fast,
                const PasteKernel& kernel, int workers = 1, int referenceKsize = 0) {
    const std::string setting = std::to_string(fast);
    const ScopedEnv env("ZORV_PASTE_FAST", fast == kUnset ? nullptr : setting.c_str());
    const ReferencePaste reference{
        scene.mask,     scene.S,       referenceKsize ? referenceKsize : unsharp.ksize,
        unsharp.amount, unsharp.sigma, fast >= 0 && fast <= 2 ? fast : 0};
    std::vector<std::uint8_t> expected = scene.frame;
    reference.composite(scene.crop.data(), scene.scale, M, expected.data(), scene.W, scene.H);
    Paste paste(scene.mask, scene.S, unsharp, *kernel.entry, workers);
    // The second round runs on what the first one kept.
    for (int round = 0; round < 2; ++round) {
        std::vector<std::uint8_t> actual = scene.frame;
        composite(paste, scene.crop.data(), scene.scale, M, actual, scene.W, scene.H);
        EXPECT_TRUE(test::same(actual, expected))
            << "round " << round << " side " << scene.S << " fast " << fast << " ksize "
            << unsharp.ksize << " kernel " << kernel.name << " M " << M[0] << ' ' << M[1] << ' '
            << M[2] << ' ' << M[3] << ' ' << M[4] << ' ' << M[5];
    }
}

class PasteLevels : public testing::TestWithParam<PasteKernel> {};
INSTANTIATE_TEST_SUITE_P(Available, PasteLevels,
                         testing::ValuesIn(test::usableKernels(kPasteKernels)),
                         test::kernelName<const PasteKernels*>);

TEST_P(PasteLevels, RandomPlacementsMatchTheReference) {
    std::mt19937 rng(7);
    const auto uniform = [&](float low, float high) {
        return std::uniform_real_distribution<float>(low, high)(rng);
    };
    const int sides[] = {1, 2, 3, 5, 9, 16, 33, 50};
    const int ksizes[] = {1, 3, 5, 13, 31};
    const MaskKind masks[] = {MaskKind::kFull, MaskKind::kRandom, MaskKind::kEllipse};
    for (int trial = 0; trial < 96; ++trial) {
        const int W = 1 + static_cast<int>(rng() % 90);
        const int H = 1 + static_cast<int>(rng() % 70);
        const Scene scene(rng, sides[trial % 8], W, H, masks[trial % 3], trial % 2 ? 255 : 1);
        // Mostly small turns at ordinary scales, as in practice; some of anything.
        const bool wild = trial % 4 == 3;
        auto M = turned(wild ? uniform(-180, 180) : uniform(-9, 9),
                        wild ? uniform(0.08f, 6) : uniform(0.5f, 1.3f),
                        uniform(-5, static_cast<float>(W) + 5),
                        uniform(-5, static_cast<float>(H) + 5), scene.S, trial % 5 == 4);
        if (wild) M[1] += uniform(-0.3f, 0.3f);
        expectSame(scene, M.data(), {uniform(0, 2), uniform(0.4f, 3), ksizes[trial % 5]},
                   trial % 3 == 2 ? 0 : trial % 3, GetParam());
        const float sigma = trial % 6 == 0 ? 0.0f : 1.0f;
        expectSame(scene, M.data(), {uniform(0, 2), sigma, 3}, static_cast<int>(rng() % 3),
                   GetParam());
    }
}

TEST_P(PasteLevels, NotANumberBecomesZeroAndUncoveredPixelsStay) {
    std::mt19937 rng(5);
    Scene scene(rng, 24, 24, 24, MaskKind::kFull);
    for (float& v : scene.crop) v = std::numeric_limits<float>::quiet_NaN();
    for (int i = 0; i < 24 * 24; i += 2) scene.mask[i] = 0;
    const std::vector<std::uint8_t> before = scene.frame;
    const float identity[6] = {1, 0, 0, 0, 1, 0};
    Paste paste(scene.mask, 24, {}, *GetParam().entry, 1);
    composite(paste, scene.crop.data(), 255, identity, scene.frame, 24, 24);
    for (std::size_t i = 0; i < before.size(); ++i) {
        ASSERT_EQ(scene.frame[i], (i / 3) % 2 ? 0 : before[i]);
    }
}

TEST_P(PasteLevels, WorkersDoNotChangeTheResult) {
    std::mt19937 rng(13);
    const Scene scene(rng, 300, 420, 390, MaskKind::kEllipse);
    const auto M = turned(-4, 1.1f, 200, 190, 300);
    std::vector<std::uint8_t> first;
    for (const int workers : {1, 2, 3, 4}) {
        Paste paste(scene.mask, 300, {}, *GetParam().entry, workers);
        std::vector<std::uint8_t> frame = scene.frame;
        composite(paste, scene.crop.data(), scene.scale, M.data(), frame, 420, 390);
        if (first.empty()) first = frame;
        EXPECT_TRUE(test::same(frame, first)) << workers << " workers";
    }
    EXPECT_FALSE(first == scene.frame);
}

TEST(Paste, EnvironmentSettings) {
    std::mt19937 rng(17);
    const Scene scene(rng, 21, 30, 30, MaskKind::kRandom);
    const auto M = turned(20, 1.2f, 15, 15, 21);
    const Unsharp unsharp{1, 2, 13};
    for (const int fast : {7, -1, kUnset})
        expectSame(scene, M.data(), unsharp, fast, chooseKernel(kPasteKernels));
    const std::pair<const char*, int> shrinks[] = {{"5", 5},  {"13", 13}, {"15", 13}, {"6", 13},
                                                   {"1", 13}, {"-5", 13}, {"x", 13}};
    for (const auto& [text, used] : shrinks) {
        const ScopedEnv env("ZORV_PASTE_KSIZE", text);
        expectSame(scene, M.data(), unsharp, 0, chooseKernel(kPasteKernels), 1, used);
    }
    for (const auto& [text, warns] : {std::pair{"1", true}, {"0", false}, {"", false}}) {
        const ScopedEnv env("ZORV_PASTE_METAL", text);
        testing::internal::CaptureStderr();
        Paste paste(scene.mask, 21, unsharp);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  warns ? "[zorv-paste-metal] ZORV_PASTE_METAL ignored (not Apple)\n" : "");
    }
}

std::string failure(std::size_t maskSize, int side, Unsharp unsharp) {
    return test::failure([&] { Paste paste(std::vector<std::uint8_t>(maskSize), side, unsharp); });
}

TEST(Paste, RefusesWhatItCannotUse) {
    EXPECT_EQ(failure(16, 4, {1, 1, 3}), "no failure");
    for (const int size : {0, 15, 17}) EXPECT_EQ(failure(size, 4, {}), "paste: mask size");
    EXPECT_EQ(failure(16, -4, {}), "paste: mask size");
    EXPECT_EQ(failure(15, 4, {1, 1, 4}), "paste: mask size");
    {
        const ScopedEnv env("ZORV_PASTE_KSIZE", "3");
        for (const int ksize : {4, 0, -3}) {
            EXPECT_EQ(failure(16, 4, {1, 1, ksize}), "paste: ksize must be odd");
        }
    }
    const int widest = (1 << 14) - 3;  // more would hold a paste of this crop up for minutes
    EXPECT_EQ(failure(16, 4, {1, 1, widest}), "no failure");
    for (const int ksize : {widest + 2, 247483, std::numeric_limits<int>::max()}) {
        EXPECT_EQ(failure(16, 4, {1, 1, ksize}), std::bad_alloc().what());
    }
}

TEST(Paste, CropsTooLargeFailOnlyWhenTheyWouldBeDrawn) {
    const std::vector<float> crop(3 * 1025 * 1025);
    Paste paste(std::vector<std::uint8_t>(1025 * 1025, 255), 1025, {});
    std::vector<std::uint8_t> frame(8 * 8 * 3, 9);
    const std::vector<std::uint8_t> before = frame;
    const float singular[6] = {};
    const float outside[6] = {1, 0, -4000, 0, 1, 0};
    composite(paste, crop.data(), 255, singular, frame, 8, 8);
    composite(paste, crop.data(), 255, outside, frame, 8, 8);
    const float identity[6] = {1, 0, 0, 0, 1, 0};
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(test::failure([&] { composite(paste, crop.data(), 255, identity, frame, 8, 8); }),
                  "paste: side > 1024");
    }
    EXPECT_EQ(frame, before);
}

TEST(Paste, DegeneratePlacementsDrawNothing) {
    std::mt19937 rng(19);
    const Scene scene(rng, 16, 20, 20, MaskKind::kFull);
    const float inf = std::numeric_limits<float>::infinity();
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float placements[][6] = {
        {0, 0, 0, 0, 0, 0},         {1, 2, 0, 2, 4, 0},           {nan, 0, 0, 0, 1, 0},
        {1, 0, nan, 0, 1, 0},       {1, 0, 0, 0, 1, inf},         {inf, 0, 0, 0, inf, 0},
        {1e30f, 0, 0, 0, 1e30f, 0}, {3e9f, 0, 0, 0, 1, 0},        {1e-9f, 0, 0, 0, 1, 0},
        {1, 0, 0, 0, 1e-38f, 0},    {1e-30f, 0, 5, 0, 1e-30f, 5}, {1, 0, 500, 0, 1, 0},
        {1, 0, 0, 0, 1, -500}};
    Paste paste(scene.mask, 16, {});
    std::vector<std::uint8_t> frame = scene.frame;
    for (const auto& M : placements) {
        composite(paste, scene.crop.data(), 255, M, frame, 20, 20);
        EXPECT_EQ(frame, scene.frame) << M[0] << ' ' << M[1] << ' ' << M[4];
    }
    // Between two unusable placements a usable one still works.
    const float identity[6] = {1, 0, 0, 0, 1, 0};
    composite(paste, scene.crop.data(), 255, identity, frame, 20, 20);
    EXPECT_NE(frame, scene.frame);
}

}  // namespace
}  // namespace zorv
