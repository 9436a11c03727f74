#include <gtest/gtest.h>
#include <zorv_core.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <random>

#include "stream/delta_math.h"
#include "support/audio.h"
#include "support/kernels.h"
#include "support/session.h"
#include "support/test_bundle.h"

namespace zorv {
namespace {

using test::modelFile;
using test::speechLike;

DeltaPtr openFca(const std::string& encoder = "encoder", const std::string& stream = "fca_stream") {
    return DeltaPtr(zorv_fca_create(modelFile(encoder).c_str(), modelFile(stream).c_str(), 1));
}

/// The algorithm as a whole-clip computation: every array at full length, every threshold from a
/// sorted copy, every window run whether or not it provides a frame.
class Reference {
  public:
    std::vector<float> deltas(const std::vector<float>& audio) {
        const int n = static_cast<int>(audio.size());
        const int F = (n + 639) / 640;
        return recur(context(centre(embeddings(audio, F)), F), F);
    }

  private:
    using Rows = std::vector<std::vector<float>>;

    Rows embeddings(const std::vector<float>& audio, int F) {
        Rows rows(F);
        for (int s = 0; s < F; s += 100) {
            std::vector<float> window(128000);
            for (std::size_t i = 0; i < 128000 && s * 640 + i < audio.size(); ++i) {
                window[i] = std::isfinite(audio[s * 640 + i]) ? audio[s * 640 + i] : 0;
            }
            double mean = 0, var = 0;
            for (const float x : window) mean += x;
            mean /= 128000;
            for (const float x : window) var += (x - mean) * (x - mean);
            var /= 128000;
            const float inv = 1.f / std::sqrt(static_cast<float>(var + 1e-7));
            for (float& x : window) x = static_cast<float>((x - mean) * inv);
            const auto emb = test::floatsOf(
                test::runModel(encoder_, {{"input_values", window, {1, 128000}}}, {"audio_emb"})
                    .front());
            for (int t = s == 0 ? 0 : 50; t < 200 && s + t < F; ++t) {
                if (!rows[s + t].empty()) continue;
                for (int d = 0; d < 768; ++d) {
                    double sum = 0;
                    for (int L = 4; L <= 9; ++L) sum += emb[(L * 200 + t) * 768 + d];
                    rows[s + t].push_back(static_cast<float>(sum / 6.0));
                }
            }
        }
        return rows;
    }

    static double threshold(std::vector<float> energies) {  // by value: sorted
        const int f = static_cast<int>(energies.size()) - 1;
        if (f <= 6) return 0;
        std::sort(energies.begin(), energies.end());
        const double p = 0.2 * f;
        const double lo = std::floor(p), hi = std::ceil(p);
        const double low = energies[static_cast<int>(lo)], high = energies[static_cast<int>(hi)];
        return low + (high - low) * (p - lo);
    }

    Rows centre(Rows rows) {
        std::vector<float> sum(768), energies;
        int count = 0;
        for (auto& row : rows) {
            double squares = 0;
            for (const float v : row) squares += static_cast<double>(v) * v;
            energies.push_back(static_cast<float>(std::sqrt(squares)));
            const bool voiced = energies.back() > threshold(energies);
            count += voiced;
            ++(voiced ? voiced_ : unvoiced_);
            const float scale = 1.f / static_cast<float>(std::max(count, 1));
            for (int d = 0; d < 768; ++d) {
                if (voiced) sum[d] += row[d];
                row[d] -= sum[d] * scale;
            }
        }
        return rows;
    }

    static Rows context(const Rows& centred, int F) {
        Rows conds(F);
        for (int f = 0; f < F; ++f) {
            for (const int o : {-1, 0, 1, 2, 3, 4, 5}) {
                const auto& row = centred[std::clamp(f + o, 0, F - 1)];
                conds[f].insert(conds[f].end(), row.begin(), row.end());
            }
        }
        return conds;
    }

    std::vector<float> recur(const Rows& conds, int F) {
        std::vector<float> prev(63), h(384), all;
        for (int f = 0; f < F; ++f) {
            const auto next = test::runModel(
                stream_,
                {{"cond", conds[f], {1, 5376}}, {"prev", prev, {1, 63}}, {"h", h, {1, 1, 384}}},
                {"m", "hn"});
            prev = test::floatsOf(next[0]), h = test::floatsOf(next[1]);
            all.insert(all.end(), prev.begin(), prev.end());
        }
        return all;
    }

    Ort::SessionOptions options_ = makeSessionOptions(1);
    Ort::Session encoder_{test::testEnv(), modelFile("encoder").c_str(), options_};
    Ort::Session stream_{test::testEnv(), modelFile("fca_stream").c_str(), options_};

  public:
    int voiced_ = 0, unvoiced_ = 0;
};

TEST(FcaDeltas, EqualsTheWholeClipComputationAroundEveryEdge) {
    const DeltaPtr fca = openFca();
    ASSERT_TRUE(fca) << zorv_fca_last_error();
    Reference reference;
    // Around one frame, the warm-up, the context, and the frames at which windows take over.
    std::vector<int> lengths = {1, 639, 640, 641};
    for (const int frames :
         {2, 5, 6, 7, 8, 9, 50, 99, 100, 101, 149, 150, 151, 199, 200, 201, 299, 300, 301, 555}) {
        lengths.push_back(frames * 640 - (frames % 3) * 100);
    }
    for (const int n : lengths) {
        std::vector<float> audio = speechLike(n);
        if (n % 3 == 0) audio[n / 2] = n % 2 ? NAN : INFINITY;
        const int frames = (n + 639) / 640;
        std::vector<float> out(static_cast<std::size_t>(frames) * 63 + 1, 99.f);
        ASSERT_EQ(zorv_fca_deltas(fca.get(), audio.data(), n, out.data(), frames), frames)
            << zorv_fca_last_error();
        EXPECT_EQ(out.back(), 99.f) << "wrote behind the last frame";
        out.pop_back();
        const std::vector<float> expected = reference.deltas(audio);
        ASSERT_TRUE(test::same(out, expected)) << "n " << n;
    }
    // The clips exercised both outcomes, so an inverted or constant threshold would have shown.
    EXPECT_GT(reference.voiced_, 100);
    EXPECT_GT(reference.unvoiced_, 100);
}

TEST(FcaModels, WhatDoesNotFitIsReported) {
    const auto failure = [](const std::string& encoder, const std::string& stream) -> std::string {
        return openFca(encoder, stream) ? "no failure" : zorv_fca_last_error();
    };
    const auto told = [](const std::string& model, const std::string& text) {
        return "zorv_fca_create: " + modelFile(model) + ": " + text;
    };
    EXPECT_EQ(failure("encoder_9_layers", "fca_stream"),
              told("encoder_9_layers",
                   "output audio_emb: wanted at least float32 [10, 200, 768], found float32 "
                   "[9, 200, 768]"));
    EXPECT_EQ(failure("encoder_double", "fca_stream"),
              told("encoder_double",
                   "output audio_emb: wanted at least float32 [10, 200, 768], found float64 "
                   "[10, 200, 768]"));
    EXPECT_EQ(failure("encoder", "encoder"),
              told("encoder",
                   "input cond: wanted float32 [1, 5376], found none; the model has input_values"));
    // The runtime's own text, behind the function's name.
    const std::string missing = failure("encoder", "missing");
    EXPECT_TRUE(missing.starts_with("zorv_fca_create: ") && missing.find('\n') == missing.npos);

    const DeltaPtr fca = openFca("encoder", "fca_stream_short_hn");  // which only a run tells
    const std::vector<float> audio = speechLike(640);
    std::vector<float> out(63);
    for (int i = 0; i < 2; ++i) {  // fails the same way every time
        EXPECT_EQ(zorv_fca_deltas(fca.get(), audio.data(), 640, out.data(), 1), -1);
        EXPECT_STREQ(zorv_fca_last_error(),
                     "zorv_fca_deltas: output hn: expected at least 384 float32 values, found 383");
    }
}

}  // namespace
}  // namespace zorv
