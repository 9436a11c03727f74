// What holds for every engine that turns pushed speech into keypoint frames: a reset starts afresh,
// and engines in several threads do not disturb each other. That cuts do not matter is fuzzed.
#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "support/audio.h"
#include "support/engine.h"

namespace zorv {
namespace {

using test::Engine;
using test::EnginePtr;
using test::Frames;
using test::speechLike;

enum class Which { kMotion, kExpression, kShortWindows };

class EnginesTest : public testing::TestWithParam<Which> {
  protected:
    EnginePtr open() const {
        if (GetParam() == Which::kMotion) return test::openMotion(motion_);
        return test::openExpression(expression_, 12, GetParam() == Which::kShortWindows);
    }

    test::TestMotion motion_;
    test::ExpressionDir expression_;
};

TEST_P(EnginesTest, SamplesThatAreNotFiniteCountAsZero) {
    const EnginePtr engine = open();
    std::vector<float> bad = speechLike(640 * 60), zeros = bad;
    const float values[] = {NAN, INFINITY, -INFINITY};
    for (std::size_t i = 640; i < bad.size(); i += 9999) bad[i] = values[i % 3], zeros[i] = 0;
    EXPECT_TRUE(engine->wholeClip(bad) == engine->wholeClip(zeros));
    if (GetParam() == Which::kMotion) return;
    const auto clip = [&](const std::vector<float>& audio) {
        std::vector<float> out(60 * 63);
        auto* a2x = dynamic_cast<test::ExpressionEngine&>(*engine).get();
        EXPECT_EQ(zorv_a2x_deltas(a2x, audio.data(), 640 * 60, out.data(), 60), 60);
        return out;
    };
    EXPECT_EQ(clip(bad), clip(zeros));
}

TEST_P(EnginesTest, AResetFromEveryStateStartsAfresh) {
    const EnginePtr engine = open();
    const std::vector<float> audio = speechLike(120 * 640), other = speechLike(200 * 640);
    const Frames expected = engine->wholeClip(audio);
    ASSERT_EQ(expected.size(), 120u);
    for (int state = 0; state < 5; ++state) {
        SCOPED_TRACE(state);
        engine->reset(1, 1, 1);
        engine->setEager(state == 1 ? 2 : 0);
        engine->push(other.data() + 9000, (state == 0 ? 10 : 100) * 640);
        Frames dropped;
        if (state > 0) engine->pull(dropped, 20);
        if (state > 2) engine->finish();
        if (state > 3) engine->drain(dropped);
        engine->setEager(0);
        EXPECT_TRUE(engine->wholeClip(audio) == expected);
    }
}

TEST_P(EnginesTest, ThreadsGiveTheResultOfOne) {
    const std::vector<float> audio = speechLike(640 * 130);
    const Frames expected = open()->wholeClip(audio);
    std::vector<EnginePtr> engines;  // made here: creation reads the environment
    for (int i = 0; i < 3; ++i) engines.push_back(open());
    std::vector<std::thread> threads;
    for (const EnginePtr& engine : engines) {
        threads.emplace_back([&] {
            for (int i = 0; i < 2; ++i) EXPECT_TRUE(engine->wholeClip(audio) == expected);
            float keypoints[63];
            EXPECT_EQ(engine->pull(nullptr, nullptr, keypoints, 1), 0);
            EXPECT_NE(engine->error(), "");
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(engines[0]->error(), "") << "each thread has its own text";
}

std::string nameOf(const testing::TestParamInfo<Which>& which) {
    constexpr const char* kNames[] = {"Motion", "Expression", "ShortWindows"};
    return kNames[static_cast<int>(which.param)];
}

INSTANTIATE_TEST_SUITE_P(Engines, EnginesTest,
                         testing::Values(Which::kMotion, Which::kExpression, Which::kShortWindows),
                         nameOf);

}  // namespace
}  // namespace zorv
