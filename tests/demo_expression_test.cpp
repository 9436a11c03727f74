// The demo subject's expression models through the C interface: both forms of the speech encoder
// open the mouth with the voice, and nothing moves in digital silence.
//   demo_expression_test, with ZORV_DEMO_DIR naming the demo subject's directory
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "zorv_core.h"

namespace zorv {
namespace {

constexpr int kFrame = 640, kKeypoints = 63;
constexpr int kUpperLipY = 14 * 3 + 1, kLowerLipY = 17 * 3 + 1;  // inner edges of the lips

using Engine = std::unique_ptr<zorv_a2x, decltype(&zorv_a2x_destroy)>;

struct Motion {
    std::vector<float> opening;  // between the lips, beyond the subject's own
    std::vector<char> moved;     // any keypoint off the subject's own
};

/// 3.5 vowels per second for two seconds, two seconds of zeros, the same 8 dB softer.
std::vector<float> syllables() {
    std::vector<float> audio(6 * 16000);
    for (std::size_t i = 0; i < audio.size(); ++i) {
        const double t = static_cast<double>(i) / 16000;
        if (t >= 2 && t < 4) continue;
        const double gate = std::max(0.0, std::sin(2 * M_PI * 3.5 * t));
        double voice = 0;
        for (int k = 1; k < 20; ++k) {
            voice += std::sin(2 * M_PI * 140 * k * t) / (1 + std::pow((140 * k - 700) / 250., 2));
        }
        audio[i] = static_cast<float>(voice * gate * (t < 2 ? 0.1 : 0.04));
    }
    return audio;
}

std::vector<double> loudness(const std::vector<float>& audio) {
    std::vector<double> frames(audio.size() / kFrame);
    for (std::size_t i = 0; i < frames.size() * kFrame; ++i) {
        frames[i / kFrame] += double{audio[i]} * audio[i];
    }
    for (double& frame : frames) frame = std::sqrt(frame / kFrame);
    return frames;
}

Motion speak(zorv_a2x* engine, const std::vector<float>& audio, int samples_per_push) {
    zorv_a2x_reset(engine, 0, 1, 0);
    Motion motion;
    int index[8];
    float source[8 * kKeypoints], driving[8 * kKeypoints];
    const int all = static_cast<int>(audio.size());
    for (int at = 0; at < all; at += samples_per_push) {
        zorv_a2x_push(engine, audio.data() + at, std::min(samples_per_push, all - at));
        if (at + samples_per_push >= all) zorv_a2x_finish(engine);
        while (zorv_a2x_avail(engine) > 0) {
            const int count = zorv_a2x_pull(engine, index, source, driving, 8);
            for (int i = 0; i < count; ++i) {
                const float *s = source + i * kKeypoints, *d = driving + i * kKeypoints;
                motion.opening.push_back(d[kLowerLipY] - s[kLowerLipY] -
                                         (d[kUpperLipY] - s[kUpperLipY]));
                motion.moved.push_back(std::memcmp(s, d, kKeypoints * sizeof(float)) != 0);
            }
        }
    }
    return motion;
}

double correlation(const std::vector<float>& opening, const std::vector<double>& loud, int lag) {
    double so = 0, sl = 0, soo = 0, sll = 0, sol = 0, n = 0;
    for (int t = 0; t < static_cast<int>(opening.size()); ++t) {
        if (t - lag < 0 || t - lag >= static_cast<int>(loud.size())) continue;
        const double o = opening[static_cast<std::size_t>(t)];
        const double l = loud[static_cast<std::size_t>(t - lag)];
        so += o, sl += l, soo += o * o, sll += l * l, sol += o * l, n += 1;
    }
    return (sol - so * sl / n) / std::sqrt((soo - so * so / n) * (sll - sl * sl / n));
}

class DemoExpression : public testing::Test {
  protected:
    void SetUp() override {
        const char* path = std::getenv("ZORV_DEMO_DIR");
        ASSERT_TRUE(path) << "ZORV_DEMO_DIR is not set";
        dir_ = path;
        setenv("W2V_ONNX", (dir_ + "/speech_encoder.onnx").c_str(), 1);
        setenv("ZORV_A2X_W2V_WIN_ONNX", (dir_ + "/speech_trunk.onnx").c_str(), 1);
        setenv("ZORV_A2X_W2V_HEAD_ONNX", (dir_ + "/speech_head.onnx").c_str(), 1);
    }

    Engine open(bool short_windows) const {
        setenv("ZORV_A2X_W2V_WIN", short_windows ? "1" : "0", 1);
        return Engine(zorv_a2x_create((dir_ + "/expression").c_str(), 2), zorv_a2x_destroy);
    }

    std::string dir_;
};

/// Frames before finish that the engine holds back: what tells the two forms apart.
int heldBack(zorv_a2x* engine) {
    const std::vector<float> second(40 * kFrame);
    zorv_a2x_reset(engine, 0, 1, 0);
    zorv_a2x_push(engine, second.data(), static_cast<int>(second.size()));
    int available = 0;
    for (int last = -1; last != available;) last = available, available = zorv_a2x_avail(engine);
    return 40 - available;
}

TEST_F(DemoExpression, TheMouthFollowsTheVoiceAndRestsInSilence) {
    const std::vector<float> audio = syllables();
    const std::vector<double> loud = loudness(audio);
    std::vector<Motion> motions;
    for (const bool short_windows : {false, true}) {
        SCOPED_TRACE(short_windows ? "short windows" : "windows of 8 s");
        const Engine engine = open(short_windows);
        ASSERT_TRUE(engine) << zorv_a2x_last_error();
        EXPECT_EQ(heldBack(engine.get()), short_windows ? 20 : 12);
        const Motion motion = speak(engine.get(), audio, 8000);
        ASSERT_EQ(motion.opening.size(), loud.size()) << zorv_a2x_last_error();

        int best = -12;
        for (int lag = -11; lag < 12; ++lag) {
            if (correlation(motion.opening, loud, lag) > correlation(motion.opening, loud, best)) {
                best = lag;
            }
        }
        EXPECT_LE(std::abs(best), 1);
        EXPECT_GE(correlation(motion.opening, loud, best), 0.6);
        // The quiet half is spoken as clearly as the loud one. 0.1 is a mouth half open.
        const auto& opening = motion.opening;
        EXPECT_GT(*std::max_element(opening.begin(), opening.begin() + 50), 0.1f);
        EXPECT_GT(*std::max_element(opening.begin() + 110, opening.end()), 0.1f);
        EXPECT_EQ(std::count(motion.moved.begin() + 58, motion.moved.begin() + 92, 1), 0);
        motions.push_back(motion);
    }
    double difference = 0;
    for (std::size_t t = 0; t < loud.size(); ++t) {
        difference += std::abs(motions[0].opening[t] - motions[1].opening[t]);
    }
    EXPECT_LT(difference / static_cast<double>(loud.size()), 0.02);
}

}  // namespace
}  // namespace zorv
