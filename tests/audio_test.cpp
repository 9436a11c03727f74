#include <gtest/gtest.h>
#include <zorv_core.h>

#include <cmath>
#include <numbers>
#include <random>

#include "audio/speech_resampler.h"

namespace zorv {
namespace {

using Pcm = std::vector<std::int16_t>;

constexpr int kRates[] = {8000, 8025, 11025, 16000, 22050, 24000, 44100, 47975, 48000};

/// Pieces of `cut` samples, random ones when it is 0.
std::vector<float> resample(SpeechResampler& resampler, const Pcm& pcm, std::size_t cut) {
    std::mt19937 random(7);
    std::vector<float> out;
    for (std::size_t at = 0, n = 0; at < pcm.size(); at += n) {
        n = std::min(cut > 0 ? cut : random() % (random() % 4 ? 5 : 3000), pcm.size() - at);
        resampler.push(pcm.data() + at, n, out);
    }
    resampler.finish(out);
    return out;
}

Pcm noise(std::size_t n) {
    std::mt19937 random(1);
    Pcm pcm(n);
    for (auto& sample : pcm) sample = static_cast<std::int16_t>(random());
    return pcm;
}

/// Three tones that rise from silence and fall back to it within a second, at time t in seconds.
double tones(double t, const double (&hz)[3]) {
    if (t <= 0 || t >= 1) return 0;
    double sum = 0;
    for (const double f : hz) sum += std::sin(2 * std::numbers::pi * f * t + f);
    return 0.3 * sum * std::pow(std::sin(std::numbers::pi * t), 4);
}

std::vector<float> resampleTones(int rate, const double (&hz)[3]) {
    Pcm pcm(static_cast<std::size_t>(rate));
    for (std::size_t i = 0; i < pcm.size(); ++i) {
        const double t = static_cast<double>(i) / rate;
        pcm[i] = static_cast<std::int16_t>(std::lround(tones(t, hz) * 32768));
    }
    SpeechResampler resampler(rate);
    return resample(resampler, pcm, 0);
}

TEST(SpeechResampler, KeepsWhatTheModelsHearInItsPlaceAndNothingElse) {
    for (const int rate : kRates) {
        const double half = std::min(rate, kSampleRate) / 2.0;
        const double heard[3] = {0.02 * half, 0.41 * half, 0.9 * half};
        const std::vector<float> out = resampleTones(rate, heard);
        ASSERT_EQ(out.size(), 16000u) << rate;
        double worst = 0;
        for (std::size_t k = 0; k < out.size(); ++k) {
            worst =
                std::max(worst, std::abs(out[k] - tones(static_cast<double>(k) / 16000, heard)));
        }
        EXPECT_LT(worst, 6e-5) << rate;  // the rounding to 16 bits is up to 1.5e-5 of it
        if (rate < 22050) continue;
        const double above[3] = {8450, 9000, 10500};
        for (const float x : resampleTones(rate, above)) ASSERT_LT(std::abs(x), 6e-5) << rate;
    }
}

TEST(SpeechResampler, CutsChangeNoSampleAndEachUtteranceStartsAnew) {
    const Pcm pcm = noise(30000);
    for (const int rate : kRates) {
        SpeechResampler resampler(rate);
        const std::vector<float> whole = resample(resampler, pcm, pcm.size());
        EXPECT_EQ(resample(resampler, pcm, 1), whole) << rate;
        std::vector<float> dropped;
        resampler.push(pcm.data() + 99, 5000, dropped);
        EXPECT_LE(dropped.size(), resampler.speechSamples(5000)) << rate;
        EXPECT_GE(dropped.size(), resampler.speechSamples(5000u - resampler.lookAhead() - 1));
        resampler.reset();
        EXPECT_EQ(resample(resampler, pcm, 0), whole) << rate;
        if (rate != kSampleRate) continue;
        ASSERT_EQ(whole.size(), pcm.size());
        for (std::size_t i = 0; i < pcm.size(); ++i) ASSERT_EQ(whole[i] * 32768, pcm[i]);
    }
}

TEST(SpeechResampler, EveryLengthGivesItsCountAndContinuesWhatIsThere) {
    const Pcm pcm = noise(48000);
    for (int rate = 8000; rate <= 48000; rate += rate % 1000 ? 975 : 25) {
        SpeechResampler resampler(rate);
        const auto perSecond = static_cast<std::size_t>(rate);
        for (std::size_t n = 0; n <= perSecond; n = n < 130 ? n + 1 : n + 7919) {
            std::vector<float> out(3, 0.5f);
            resampler.push(pcm.data(), n, out);
            resampler.finish(out);
            ASSERT_EQ(out.size(), 3 + (n * 16000 + perSecond - 1) / perSecond) << rate << " " << n;
            ASSERT_EQ(out[2], 0.5f);
        }
        EXPECT_EQ(resampler.speechSamples(perSecond << 44), std::uint64_t{16000} << 44);
    }
    EXPECT_FALSE(SpeechResampler::fits(7975) || SpeechResampler::fits(48025) ||
                 SpeechResampler::fits(44110) || SpeechResampler::fits(-16000));
}

TEST(Resample, IsOneUtteranceAndRefusesWhatItCannotDo) {
    const Pcm pcm = noise(4000);
    std::vector<float> audio(pcm.begin(), pcm.end());
    for (float& x : audio) x *= kSampleScale;
    SpeechResampler resampler(44100);
    std::vector<float> expected = resample(resampler, pcm, 0), out(expected.size());
    const int room = static_cast<int>(out.size());
    EXPECT_EQ(zorv_resample(audio.data(), 4000, 44100, out.data(), room), room);
    EXPECT_EQ(out, expected);
    audio[7] = NAN;
    EXPECT_EQ(zorv_resample(audio.data(), 10, 16000, out.data(), 10), 10);
    EXPECT_TRUE(out[7] == 0 && out[8] == audio[8]);
    EXPECT_EQ(zorv_resample(audio.data(), 0, 8000, out.data(), 0), 0);
    EXPECT_STREQ(zorv_resample_last_error(), "");
    const auto text = [&](const float* in, int n, int rate, float* to, int max) {
        return zorv_resample(in, n, rate, to, max) == -1 ? zorv_resample_last_error() : "";
    };
    EXPECT_STREQ(text(audio.data(), 4000, 44100, out.data(), room - 1),
                 "zorv_resample: out is too small");
    EXPECT_STREQ(
        text(audio.data(), 9, 96000, out.data(), room),
        "zorv_resample: a rate of 96000 Hz; it must be 8000 to 48000 and a multiple of 25");
    EXPECT_STREQ(text(nullptr, 9, 8000, out.data(), room), "zorv_resample: bad args");
    EXPECT_STREQ(text(audio.data(), -1, 8000, out.data(), room), "zorv_resample: bad args");
}

}  // namespace
}  // namespace zorv
