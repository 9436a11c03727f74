// The motion engine's arithmetic, piece by piece.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <utility>

#include "motion/motion_math.h"
#include "motion/motion_spectrum.h"
#include "motion_reference.h"
#include "support/audio.h"
#include "support/kernels.h"

namespace zorv::motion {
namespace {

using test::Floats;

Floats noise(std::size_t n, float low, float high, unsigned seed) {
    std::mt19937 random(seed);
    Floats values(n);
    for (float& value : values) {
        value = low + (high - low) * static_cast<float>(random() % 10001) / 10000;
    }
    return values;
}

Floats tone(double samplesPerTurn) {
    Floats samples(kWindowSamples);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        samples[i] =
            static_cast<float>(std::sin(2 * M_PI * static_cast<double>(i) / samplesPerTurn));
    }
    return samples;
}

TEST(MotionSpectrum, EveryKernelEqualsTheDirectSums) {
    Floats impulse(kWindowSamples);
    impulse[3] = impulse[3000] = impulse[kWindowSamples - 2] = 1;
    const std::pair<const char*, Floats> windows[] = {
        {"noise", noise(kWindowSamples, -1, 1, 1)},
        {"impulses", impulse},
        {"tone on a bin", tone(32)},
        {"tone between bins", tone(7.77)},
        {"offset", Floats(kWindowSamples, 0.3f)},
        {"loud", noise(kWindowSamples, -3e4f, 3e4f, 2)},
        {"silence", Floats(kWindowSamples)}};
    // A dense matrix, and one whose groups of bands each see some bins only, or none.
    const Floats dense = noise(kBins * kBands, 0, 1, 3);
    Floats sparse(dense.size());
    for (int bin = 0; bin < kBins; ++bin) {
        for (int band = 0; band < 64; ++band) {
            if (bin / 4 != band) continue;
            sparse[static_cast<std::size_t>(bin * kBands + band)] = 1;
        }
    }
    const Floats analysis = noise(kTransformSamples, 0, 1, 4);
    int tested = 0;
    for (const auto& kernel : test::usableKernels(kSpectrumKernels)) {
        for (const Floats* matrix : {&dense, &std::as_const(sparse)}) {
            const auto tables = std::make_unique<SpectrumTables>(analysis.data(), matrix->data());
            for (const auto& [name, samples] : windows) {
                SCOPED_TRACE(std::string(name) + (matrix == &dense ? ", dense" : ", sparse") +
                             ", kernel " + kernel.name);
                auto scratch = std::make_unique<SpectrumScratch>();
                std::fill_n(reinterpret_cast<float*>(scratch.get()), sizeof *scratch / 4, NAN);
                Floats features(kFeatureFloats + 1, 77.f);
                bandFeatures(*tables, *kernel.entry, samples.data(), *scratch, features.data());
                EXPECT_EQ(features.back(), 77.f);
                const Floats expected = test::referenceFeatures(samples, analysis, *matrix);
                // Rounding of a transform is relative to its largest values.
                float largest = 0;
                for (const float value : expected) largest = std::max(largest, std::exp(value));
                for (std::size_t i = 0; i < expected.size(); ++i) {
                    ASSERT_NEAR(std::exp(features[i]), std::exp(expected[i]), 2e-6f * largest)
                        << "band " << i / 21 << " transform " << i % 21;
                }
                ++tested;
            }
        }
    }
    EXPECT_GE(tested, 14);
}

TEST(MotionMath, EagerStepFollowsTheCostOfAPass) {
    for (const auto& [ms, step] : {std::pair{0.0, 1},
                                   {39.9, 1},
                                   {40.1, 2},
                                   {79.9, 2},
                                   {80.1, 3},
                                   {279.0, 7},
                                   {281.0, 8},
                                   {1e12, 8}}) {
        EXPECT_EQ(adaptiveStep(ms), step) << ms;
    }
}

}  // namespace
}  // namespace zorv::motion
