// The expression engine's arithmetic at its edges; the reference covers the rest.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "a2x/a2x_features.h"
#include "a2x/a2x_math.h"
#include "a2x/a2x_model.h"
#include "support/failure.h"

namespace zorv::a2x {
namespace {

TEST(A2xMath, WindowsTakeZerosWhereThereIsNoAudio) {
    std::vector<float> audio(100);
    for (std::size_t i = 0; i < audio.size(); ++i) audio[i] = static_cast<float>(i + 1);
    for (const std::int64_t first : {-500, -60, -10, -1, 0, 1, 40, 60, 99, 100, 5000}) {
        for (const std::int64_t stored : {100, 30, 0}) {
            std::vector<float> window(51, -7.f);
            copyWindow({audio.data(), 100, stored, false}, first, 50, window.data());
            for (std::int64_t i = 0; i < 50; ++i) {
                const bool heard = first + i >= 0 && first + i < stored;
                ASSERT_EQ(window[i], heard ? static_cast<float>(first + i + 1) : 0.f)
                    << first << " " << stored << " " << i;
            }
            ASSERT_EQ(window[50], -7.f);
        }
    }
}

TEST(A2xMath, NormalisationKeepsSilenceAndHasMeanZeroAndVarianceOne) {
    std::vector<float> x(1003);  // an odd tail after the lanes
    normalize(x.data(), x.size());
    EXPECT_EQ(x, std::vector<float>(1003));
    for (std::size_t i = 0; i < x.size(); ++i) x[i] = 3 + std::sin(static_cast<float>(i * i));
    normalize(x.data(), x.size());
    double sum = 0, squares = 0;
    for (const float v : x) {
        sum += v;
        squares += double{v} * v;
    }
    EXPECT_NEAR(sum / 1003, 0, 1e-6);
    EXPECT_NEAR(squares / 1003, 1, 1e-5);
}

TEST(A2xMath, LegacyWindowsGiveOnlyWhatIsNew) {
    const auto plan = [](std::int64_t start, std::int64_t ready, std::int64_t frames,
                         bool finished) {
        return planWindow(start, ready, {nullptr, frames * 640, 0, finished}, 12);
    };
    WindowPlan p = plan(0, 0, 12, false);
    EXPECT_GE(p.begin, p.end);
    EXPECT_FALSE(p.complete);
    p = plan(0, 0, 100, false);
    EXPECT_EQ(p.begin, 0);
    EXPECT_EQ(p.end, 88);
    EXPECT_EQ(p.ready, 88);
    EXPECT_FALSE(p.complete);
    p = plan(0, 88, 100, false);
    EXPECT_GE(p.begin, p.end) << "the same audio again";
    EXPECT_EQ(p.ready, 88);
    EXPECT_FALSE(plan(0, 88, 211, false).complete) << "one frame is missing";
    EXPECT_TRUE(plan(0, 88, 212, false).complete);
    EXPECT_EQ(plan(0, 88, 5000, false).end, 200);
    p = plan(100, 200, 213, false);
    EXPECT_EQ(p.begin, 200);
    EXPECT_EQ(p.end, 201);
    EXPECT_EQ(plan(100, 120, 400, false).begin, 150) << "a later window's first frames only listen";
    p = plan(100, 200, 30, true);
    EXPECT_EQ(p.end, 300) << "all of a window once the audio is complete";
    EXPECT_TRUE(p.complete);
}

TEST(A2xMath, TrunkPositionsFollowTheLegacyWindows) {
    EXPECT_EQ(trunkPosition(0, -19200), 240);
    EXPECT_NEAR(trunkPosition(199, 0), 1598, 1e-9);
    EXPECT_NEAR(trunkPosition(200, 0), 800 + 803.0150753768844, 1e-9);  // window at frame 100
    EXPECT_NEAR(trunkPosition(299, 64000), 1598, 1e-9);
    EXPECT_NEAR(trunkPosition(300, 128000), 803.0150753768844, 1e-9);
    EXPECT_EQ(shortWindowStart(0, 12), -19200);

    std::vector<std::uint16_t> trunk(640 * 3, 0x3c00);  // 1
    trunk[0 * 3 + 2] = 0x4000;                          // 2
    trunk[639 * 3 + 1] = 0x4200;                        // 3
    std::vector<float> channels(640);
    sampleTrunk(trunk.data(), 3, 1.25, channels.data());
    EXPECT_EQ(channels[0], 1.25f);
    EXPECT_EQ(channels[1], 1.f);
    EXPECT_EQ(channels[639], 2.5f);
    sampleTrunk(trunk.data(), 3, 2.75, channels.data());
    EXPECT_EQ(channels[0], 2.f) << "behind the last step it is repeated";
    for (const double outside : {-0.001, 3.0, 1e300, static_cast<double>(NAN)}) {
        EXPECT_EQ(test::failure([&] { sampleTrunk(trunk.data(), 3, outside, channels.data()); }),
                  "w2v_win: trunk pos out of range");
    }
}

TEST(A2xMath, ReplayWrapsOrBouncesFromAnyStart) {
    const auto walk = [](std::int32_t start, std::int32_t step, bool loop) {
        std::vector<std::int32_t> k;
        for (std::int64_t p = 0; p < 7; ++p) k.push_back(replayIndex(p, start, step, loop, 3));
        return k;
    };
    using Walk = std::vector<std::int32_t>;
    EXPECT_EQ(walk(0, 1, false), (Walk{0, 1, 2, 1, 0, 1, 2}));
    EXPECT_EQ(walk(0, -1, false), (Walk{0, 1, 2, 1, 0, 1, 2}));
    EXPECT_EQ(walk(0, -1, true), (Walk{0, 2, 1, 0, 2, 1, 0}));
    EXPECT_EQ(walk(-7, 1, true), (Walk{2, 0, 1, 2, 0, 1, 2}));
    EXPECT_EQ(walk(7, -1, false), (Walk{1, 2, 1, 0, 1, 2, 1}));
    using Limits = std::numeric_limits<std::int32_t>;
    EXPECT_EQ(replayIndex(std::int64_t{1} << 40, Limits::min(), -1, true, 1), 0);
    EXPECT_EQ(replayIndex(1, Limits::max(), 1, true, Limits::max()), 1);
    EXPECT_EQ(replayIndex(1, Limits::max(), 1, false, Limits::max()), Limits::max() - 3);
}

TEST(A2xMath, SettingsAreReadAsIntegersAndSaturate) {
    EXPECT_EQ(json_int(R"({"hidden": 3, "h" :x: 4 , "h": 5})", "h", 9), 0) << "no number there";
    EXPECT_EQ(json_int(R"({"layers": "h", "h" , "left": -7.9})", "h", 9), -7)
        << "the first ':' after the first quoted key";
    EXPECT_EQ(json_int(R"({"h")", "h", 9), 9);
    EXPECT_EQ(json_int("{}", "h", 9), 9);
    EXPECT_EQ(json_int(R"("h":  99999999999999999999)", "h", 9), 2147483647);
}

}  // namespace
}  // namespace zorv::a2x
