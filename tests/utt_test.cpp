#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/expression_dir.h"
#include "support/failure.h"
#include "support/scoped_env.h"
#include "support/test_motion.h"
#include "support/threads.h"
#include "support/utt_player.h"

namespace zorv {
namespace {

using test::difference;
using test::PulledFrame;
using test::UttPlayer;
using test::UttPlayerOptions;

constexpr int kIdle = 0;
constexpr int kSpeech = 1;
constexpr int kRamp = 2;

/// The kinds of frames, equal neighbours as one: "I3 S3 R2".
std::string runs(const std::vector<PulledFrame>& frames) {
    std::string all, text;
    for (const PulledFrame& frame : frames) all += "ISR"[frame.info.kind];
    for (std::size_t i = 0; i < all.size();) {
        const std::size_t end = std::min(all.find_first_not_of(all[i], i), all.size());
        if (!text.empty()) text += ' ';
        text += all[i];
        text += std::to_string(end - i);
        i = end;
    }
    return text;
}

/// Numbers and bundle frames run on by one, and idle and ramp frames have no speech number.
void expectContinuous(const std::vector<PulledFrame>& frames, int nt) {
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const zorv_utt_frame_info& info = frames[i].info;
        if (info.kind != kSpeech) {
            EXPECT_EQ(info.speech_sequence, -1) << "frame " << i;
        }
        if (i == 0) continue;
        const zorv_utt_frame_info& before = frames[i - 1].info;
        EXPECT_EQ(info.sequence, before.sequence + 1) << "frame " << i;
        EXPECT_EQ(info.frame, (before.frame + 1) % nt) << "frame " << i;
    }
}

std::string failureText(zorv_utt* utt) {
    char text[256];
    zorv_utt_failure(utt, text, sizeof text);
    return text;
}

zorv_utt_stats stats(zorv_utt* utt) {
    zorv_utt_stats all;
    zorv_utt_get_stats(utt, &all);
    return all;
}

/// Says `frames` frames, which come one after the other before the ramp.
void expectSays(UttPlayer& player, int frames, float level) {
    player.say(frames, level);
    const auto shown = player.pullUntil(kRamp, 5000);
    expectContinuous(shown, player.bundle.options().nt);
    EXPECT_NE(runs(shown).find(" S" + std::to_string(frames) + " R1"), std::string::npos)
        << runs(shown);
}

/// A ramp of four frames that closes the mouth from `offset`.
void expectCloses(UttPlayer& player, const std::vector<PulledFrame>& frames, float offset) {
    EXPECT_TRUE(runs(frames).starts_with("R4 I")) << runs(frames);
    for (int k = 0; k < 4; ++k) {
        const auto wanted =
            player.picture(frames[k].info.frame, offset * static_cast<float>(3 - k) / 4);
        EXPECT_LE(difference(frames[k].rgba, wanted), 1) << k;
    }
}

TEST(KeypointWalkTest, ShiftsSpeechAndFadesToRest) {
    std::vector<float> rows;
    for (std::size_t i = 0; i < 3 * kKeypointFloats; ++i)
        rows.push_back(static_cast<float>(i * i % 97));
    const KeypointWalk walk(rows, 3);
    EXPECT_EQ(walk.after(2), 0);
    Keypoints source, driving;
    for (std::size_t i = 0; i < kKeypointFloats; ++i) {
        source[i] = walk.row(2)[i];
        driving[i] = source[i] + static_cast<float>(i);
    }
    std::int32_t index = 2;
    walk.shift(2, index, source.data(), driving.data());
    EXPECT_EQ(index, 1);
    const Keypoints offset = walk.offset(index, driving.data());
    const Keypoints half = walk.displaced(0, 0.5f, offset);
    for (std::size_t i = 0; i < kKeypointFloats; ++i) {
        EXPECT_EQ(source[i], walk.row(1)[i]);
        EXPECT_EQ(offset[i], static_cast<float>(i));
        EXPECT_EQ(half[i], walk.row(0)[i] + 0.5f * static_cast<float>(i));
    }
    const Keypoints before = driving;
    KeypointWalk({}, 3).shift(2, index, source.data(), driving.data());
    EXPECT_EQ(index, 1);
    EXPECT_EQ(driving, before) << "without rows a frame stays";
}

// A time that the clock's own unit cannot hold ended every wait at once.
TEST(SteadyClockTest, ATimeBeyondItNeverComes) {
    SteadyClock clock;
    for (const double due : {1e13, 1e16, 1e300, Clock::kNever}) {
        Mutex mutex;
        CondVar wake;
        bool told = false;
        std::thread teller;
        {
            const MutexLock lock(mutex);
            teller = std::thread([&] {
                const MutexLock turn(mutex);
                told = true;
                wake.notifyAll();
            });
            clock.wait(wake, mutex, due);
            EXPECT_TRUE(told) << due;
        }
        teller.join();
    }
}

// Trying the same frame again and again says nothing about the others.
TEST(FrameCompositorTest, IsBlindWhenEveryFrameHasFailed) {
    test::TestBundle bundle;
    zorv_ctx context(bundle.dir(), "render", 1, "");
    for (int frame = 0; frame < 3; ++frame) {
        bundle.empty("target_frames/frame_00000" + std::to_string(frame) + ".jpg");
    }
    SteadyClock clock;
    EngineState state(clock);
    FrameCompositor compositor(context, state, false);
    for (const int frame : {1, 1, 1, 0, 1, 2}) {
        {
            const MutexLock lock(state.mutex);
            EXPECT_FALSE(state.blind);
        }
        FrameJob job;
        job.info.index = frame;
        compositor.enqueue(nullptr, std::move(job));
    }
    const MutexLock lock(state.mutex);
    EXPECT_TRUE(state.blind);
}

// An engine that was destroyed while it rendered left its context unable to render.
TEST(EngineStateTest, AStoppedRendererRunsForTheNextOne) {
    const test::TestBundle bundle;
    zorv_ctx context(bundle.dir(), "render", 1, "");
    SteadyClock clock;
    EngineState state(clock);
    ASSERT_TRUE(state.beginRender(*context.renderer, 0));
    {
        const MutexLock lock(state.mutex);
        state.stopRender();
    }
    const Drive& drive = context.drive;
    const auto render = [&] {
        context.renderer->render(drive.si.data(), drive.xs.data(), drive.xd.data(), 1);
    };
    EXPECT_ANY_THROW(render());
    state.endRender();
    EXPECT_NO_THROW(render());
}

TEST(UttOptionsTest, DefaultsComeFromContextEnvironmentAndFiles) {
    zorv_utt_opts opts = {};
    EXPECT_EQ(test::failure([&] { resolveOptions(opts, 3); }), "opts.motion_dir required");
    const test::TempDir dir;
    const auto resolved = [&](const zorv_utt_opts& wanted) {
        const UttOptions o = resolveOptions(wanted, 3);
        return std::tuple(o.threads, o.ep, o.steadyModel, o.eager, o.silenceMs, o.rampFrames,
                          o.rampFramesInterrupt, o.expression, o.pipelined);
    };
    opts.motion_dir = dir.path().c_str();
    EXPECT_EQ(resolved(opts), std::tuple(3, "", "b24_fp32", -1, 600, 6, 4, false, false));
    opts = {dir.path().c_str(), 1, "xnnpack", "-", 5, 1.5, 9, 8};
    EXPECT_EQ(resolved(opts), std::tuple(1, "xnnpack", "", 5, 1500, 9, 8, false, false));
    opts.silence_end_s = -3;
    EXPECT_EQ(resolveOptions(opts, 3).silenceMs, -1);
    for (const auto& [value, hybrid, eager] : {std::tuple{-2, "", 3},
                                               {-2, "0", 3},
                                               {0, "0", -1},
                                               {-1, "", -1},
                                               {-5, "yes", 3},
                                               {7, "1", 7}}) {
        const test::ScopedEnv env("ZORV_UTT_HYBRID", hybrid);
        opts.eager = value;
        EXPECT_EQ(resolveOptions(opts, 3).eager, eager) << value << hybrid;
    }
    test::writeFile(dir.path() + "/a2x_enc_stream.onnx", "");
    EXPECT_TRUE(resolveOptions(opts, 3).expression && resolveOptions(opts, 3).pipelined);
    const test::ScopedEnv steady("ZORV_STEADY_MODEL", "other");
    const test::ScopedEnv pipeline("ZORV_UTT_PIPELINE_PASTE", "0");
    EXPECT_EQ(resolveOptions(opts, 3).steadyModel, "other");
    EXPECT_FALSE(resolveOptions(opts, 3).pipelined);
}

/// Everything below holds in both compositing modes, with and without a steady renderer.
class UttTest : public testing::TestWithParam<std::pair<bool, const char*>> {
  protected:
    static UttPlayerOptions options() {
        UttPlayerOptions result;
        result.pipelined = GetParam().first;
        result.steady = GetParam().second;
        return result;
    }
};

INSTANTIATE_TEST_SUITE_P(Modes, UttTest,
                         testing::Values(std::pair(false, "-"), std::pair(false, "b4"),
                                         std::pair(true, "-"), std::pair(true, "b4")),
                         [](const auto& mode) {
                             const std::string first = mode.param.first ? "Pipelined" : "Direct";
                             return first + (*mode.param.second == '-' ? "Single" : "Batched");
                         });

TEST_P(UttTest, SpeaksEveryFrameThenRampsAndIdlesOn) {
    for (const int nt : {1, 5}) {
        UttPlayerOptions wanted = options();
        wanted.nt = nt;
        UttPlayer player(wanted);
        player.clock.advance(7);
        player.push(20, 0.4f);
        const std::int16_t odd = 9000;
        EXPECT_EQ(zorv_utt_push_audio(player.utt(), &odd, 1), 1);
        zorv_utt_end_utterance(player.utt());

        auto frames = player.pullUntil(kRamp, 5000);
        const auto rest = player.pull(12);
        frames.insert(frames.end(), rest.begin(), rest.end());
        expectContinuous(frames, nt);
        const std::string all = runs(frames);
        EXPECT_NE(all.find(" S21 R6 I7"), std::string::npos) << all;
        int left = 6;
        for (const PulledFrame& frame : frames) {
            const zorv_utt_frame_info& info = frame.info;
            if (info.kind == kIdle) continue;
            float offset = info.speech_sequence < 20 ? 0.4f : 9000 / 32768.f;
            if (info.kind == kRamp) offset = 9000 / 32768.f * static_cast<float>(--left) / 6;
            EXPECT_LE(difference(frame.rgba, player.picture(info.frame, offset)), 1)
                << "speech " << info.speech_sequence << ", left " << left;
            // Above the crop the frame is the target frame, bit for bit.
            constexpr std::ptrdiff_t kAbove = 6 * 48 * 4;
            const auto still = player.still(info.frame);
            EXPECT_TRUE(std::equal(still.begin(), still.begin() + kAbove, frame.rgba.begin()));
        }
        EXPECT_EQ(stats(player.utt()).utterances_started, 1u);
        EXPECT_EQ(stats(player.utt()).speech_frames_pulled, 21u);
        EXPECT_EQ(stats(player.utt()).first_frame_latency_ms, 0) << "by a clock that stood still";
        EXPECT_EQ(zorv_utt_failure(player.utt(), nullptr, 0), 0u);
    }
}

TEST_P(UttTest, AnInterruptDropsAllAndClosesTheMouthFromTheLastPulledFrame) {
    UttPlayer player(options());
    player.push(60, 0.5f);
    player.pullUntil(kSpeech, 5000);
    const auto more = player.pull(3);
    player.waitForFrames(8);
    zorv_utt_interrupt(player.utt());
    const auto after = player.pull(10);
    expectCloses(player, after, 0.5f);
    EXPECT_EQ(after[0].info.frame, (more.back().info.frame + 1) % 5);
    EXPECT_GT(after[0].info.sequence, more.back().info.sequence + 8) << "the gap shows the drops";
    expectContinuous(after, 5);
    EXPECT_EQ(zorv_utt_failure(player.utt(), nullptr, 0), 0u);

    // The next utterance is a whole one, and inside its ramp the mouth closes from there.
    expectSays(player, 9, 0.6f);
    player.pull(1);  // two of six: the mouth is open by 4 / 6
    zorv_utt_interrupt(player.utt());
    expectCloses(player, player.pull(6), 0.6f * 4 / 6);
}

TEST_P(UttTest, SilenceEndsAnUtteranceAndAPauseShowsRest) {
    UttPlayerOptions wanted = options();
    wanted.silenceS = 1;
    UttPlayer player(wanted);
    player.push(5, 0.5f);
    auto frames = player.pullUntil(kSpeech, 5000);
    const auto others = player.pull(4);
    EXPECT_EQ(runs(others), "S4");
    frames.insert(frames.end(), others.begin(), others.end());
    player.clock.advance(590);
    player.settle();
    EXPECT_EQ(zorv_utt_frames_available(player.utt()), 0) << "nothing is inserted in speech";

    // After 600 ms without a frame the mouth closes, and the body idles on, frame by frame.
    player.clock.advance(20);
    const auto pause = player.pull(9);
    EXPECT_EQ(runs(pause), "R6 I3");
    player.waitForFrames(1);
    player.settle();
    EXPECT_EQ(zorv_utt_frames_available(player.utt()), 1);
    EXPECT_EQ(stats(player.utt()).state, 1);

    // More of the same utterance: its frames go on at the body's place, with their numbers.
    player.push(5, 0.25f);
    const auto resumed = player.pullUntil(kSpeech, 5000);
    EXPECT_EQ(resumed.back().info.speech_sequence, 5);
    EXPECT_LE(difference(resumed.back().rgba, player.picture(resumed.back().info.frame, 0.25f)), 1);
    frames.insert(frames.end(), pause.begin(), pause.end());
    frames.insert(frames.end(), resumed.begin(), resumed.end());
    player.pull(4);
    expectContinuous(frames, 5);

    player.clock.advance(1001);
    EXPECT_TRUE(test::waitFor([&] { return stats(player.utt()).state != 2; }));
    EXPECT_EQ(runs(player.pull(10)), "R6 I4");
    EXPECT_EQ(player.script.resets, 1);
    player.waitForFrames(8);
}

TEST_P(UttTest, AFailedSourceEndsItsUtteranceOnly) {
    UttPlayer player(options());
    player.push(6, 0.5f);
    player.pullUntil(kSpeech, 5000);
    player.pull(5);
    player.script.failAvail = true;
    player.push(6, 0.5f);
    EXPECT_EQ(runs(player.pull(14)), "R6 I8");
    EXPECT_EQ(failureText(player.utt()), "avail: broken model");
    EXPECT_EQ(zorv_utt_failure(player.utt(), nullptr, 0), 1u);

    player.push(6, 0.5f);  // still of the failed utterance
    zorv_utt_end_utterance(player.utt());
    expectSays(player, 7, 0.25f);
    EXPECT_EQ(stats(player.utt()).utterances_started, 2u);
}

TEST_P(UttTest, ATargetFrameThatCannotBeDecodedEndsTheUtterance) {
    UttPlayerOptions large = options();
    large.nt = 12;
    UttPlayer damaged(large);
    damaged.waitForFrames(8);
    const std::string file = damaged.bundle.path("target_frames/frame_000009.jpg");
    const std::string picture = test::readFile(file);
    test::writeFile(file, "");
    damaged.say(8, 0.5f);
    damaged.advance(0);  // speech is there: no idle frame comes before it
    EXPECT_TRUE(test::waitFor([&] {
        damaged.pull(1);
        return zorv_utt_failure(damaged.utt(), nullptr, 0) > 0;
    }));
    EXPECT_NE(failureText(damaged.utt()).find("decode failed: "), std::string::npos);
    test::writeFile(file, picture);
    damaged.pull(30);
    expectSays(damaged, 2, 0.5f);
}

/// A source of 12 frames' look-ahead and one of a single frame's, with their own engines.
class UttSourceTest : public testing::TestWithParam<bool> {
  protected:
    UttPlayerOptions options() const {
        UttPlayerOptions result;
        result.engineDir = GetParam() ? expression.path() : motion.dir();
        return result;
    }

    const test::ScopedEnv encoder{"W2V_ONNX", test::modelFile("a2x_w2v")};
    const test::TestMotion motion{{.nt = 5}};
    const test::ExpressionDir expression{{.window = 0, .nt = 5}};
};

INSTANTIATE_TEST_SUITE_P(Sources, UttSourceTest, testing::Bool(),
                         [](const auto& source) { return source.param ? "Expression" : "Motion"; });

// Sound in pieces of 20 ms that just stops: the limit that ends it and the one for pauses met.
TEST_P(UttSourceTest, ALineThatEndsBySilenceClosesTheMouthOnce) {
    UttPlayerOptions wanted = options();
    wanted.silenceS = 0;
    UttPlayer player(wanted);
    std::vector<std::uint8_t> rgba(player.frameBytes());
    zorv_utt_frame_info info;
    for (int samples = 8000; samples <= 8000 + 640; samples += 160) {
        std::vector<std::int16_t> pcm(static_cast<std::size_t>(samples), 6000);
        std::string shown;
        const std::string speech(static_cast<std::size_t>((samples + 639) / 640), 'S');
        int pushed = 0;
        for (int tick = 0; tick < 150; ++tick) {
            const int n = std::min(320, samples - pushed);
            if (n > 0) zorv_utt_push_audio(player.utt(), pcm.data() + pushed, n);
            pushed += n;
            player.advance(20);
            if (tick % 2 == 0 &&
                zorv_utt_pull_frame(player.utt(), rgba.data(), rgba.size(), &info)) {
                shown += "ISR"[info.kind];
            }
        }
        const std::string line = shown.substr(shown.find_first_not_of('I'));
        EXPECT_EQ(line.substr(0, line.find_last_not_of('I') + 1), speech + "RRRRRR") << samples;
    }
}

/// What telemetry has counted as failures since it was last asked.
std::uint64_t countedFailures() {
    std::string batch(zorv_telemetry_pending() + 1, ' ');
    zorv_telemetry_take(batch.data(), batch.size());
    std::uint64_t count = 0;
    const auto content = nlohmann::json::parse(batch.c_str(), nullptr, false);
    for (const auto& counter : content.value("counters", nlohmann::json::array())) {
        if (counter["name"] == "zorv.failures") count += counter["value"].get<std::uint64_t>();
    }
    return count;
}

TEST(UttFailureTest, AFailureCountsOnce) {
    const test::ScopedEnv encoder("W2V_ONNX", test::modelFile("a2x_w2v"));
    const test::ExpressionDir failing({.window = 0, .nt = 5, .decoder = "a2x_dec_fails"});
    const test::TempDir nothing;
    UttPlayerOptions options;
    options.engineDir = failing.path();
    zorv_telemetry_clear();
    zorv_telemetry_enable(1);
    UttPlayer player(options);
    player.say(60, 0.1f);
    EXPECT_TRUE(test::waitFor(
        [&] { return player.pull(1).empty() || zorv_utt_failure(player.utt(), nullptr, 0) == 1; }));
    EXPECT_EQ(countedFailures(), 1u) << "the source's";

    options.engineDir = nothing.path();
    options.waitUntilReady = false;
    UttPlayer other(options);
    EXPECT_TRUE(test::waitFor([&] { return zorv_utt_ready(other.utt()) == -1; }));
    for (int poll = 0; poll < 100; ++poll) EXPECT_EQ(zorv_utt_ready(other.utt()), -1);
    EXPECT_EQ(countedFailures(), 1u) << "the warm-up's";
    zorv_telemetry_enable(0);
    zorv_telemetry_clear();
}

// Longer than the positional table: spoken up to there, told, and over without an end call.
TEST(UttFailureTest, AnUtteranceBeyondTheSourcesTableEndsThere) {
    const test::ScopedEnv encoder("W2V_ONNX", test::modelFile("a2x_w2v"));
    const test::ExpressionDir shortTable({.window = 0, .rows = 30, .nt = 5});
    UttPlayerOptions options;
    options.engineDir = shortTable.path();
    UttPlayer player(options);
    // The models may need longer than many an idle frame.
    std::vector<test::PulledFrame> frames;
    const auto pullUntil = [&](int kind) {
        EXPECT_TRUE(test::waitFor([&] {
            frames.push_back(std::move(player.pull(1).at(0)));
            return frames.back().info.kind == kind;
        }));
    };
    player.push(80, 0.1f);
    pullUntil(1);
    pullUntil(2);
    ASSERT_GE(frames.size(), 31u) << runs(frames);
    frames.erase(frames.begin(), frames.end() - 31);
    EXPECT_EQ(runs(frames), "S30 R1");
    EXPECT_EQ(zorv_utt_failure(player.utt(), nullptr, 0), 1u);
    EXPECT_TRUE(failureText(player.utt()).starts_with("zorv_a2x: end of a2x_pos.f32: 30 frames"));
    player.say(7, 0.1f);  // what is pushed later is the next utterance
    pullUntil(1);
    EXPECT_EQ(runs(player.pull(7)), "S6 R1");
    EXPECT_EQ(zorv_utt_failure(player.utt(), nullptr, 0), 1u);
}

TEST(UttFailureTest, WarmUpFailuresAreTold) {
    UttPlayerOptions options;
    options.sourceNt = 4;
    options.waitUntilReady = false;
    UttPlayer other(options);
    EXPECT_TRUE(test::waitFor([&] { return zorv_utt_ready(other.utt()) == -1; }));
    EXPECT_STREQ(zorv_utt_last_error(), "motion source has 4 frames, the bundle 5");
    other.say(5, 0.5f);
    EXPECT_EQ(runs(other.pull(30)), "I30") << "audio is discarded, idle frames go on";
    UttPlayer(options).destroy();  // as it warms up

    options.sourceNt = 0;
    options.steady = nullptr;  // b24_fp32, which the bundle lacks
    UttPlayer lacking(options);
    EXPECT_TRUE(test::waitFor([&] { return zorv_utt_ready(lacking.utt()) == -1; }));
    EXPECT_NE(std::string(zorv_utt_last_error()).find("model_b24_fp32.onnx"), std::string::npos);
}

TEST(UttFailureTest, AFailedFrameIsLeftOut) {
    UttPlayerOptions options;
    options.render = "render_fails";
    UttPlayer player(options);
    player.waitForFrames(8);
    player.script.gain = 400;  // the model refuses keypoints beyond 100
    player.push(2, 0.1f);
    player.push(1, 0.5f);
    player.push(2, 0.1f);
    zorv_utt_end_utterance(player.utt());
    const auto frames = player.pullUntil(kRamp, 5000);
    EXPECT_NE(runs(frames).find(" S4 R1"), std::string::npos) << runs(frames);
    EXPECT_EQ(frames[frames.size() - 2].info.speech_sequence, 3);
    EXPECT_EQ(zorv_utt_failure(player.utt(), nullptr, 0), 1u);
}

TEST(UttFailureTest, WithoutRowsThereAreNoRamps) {
    UttPlayerOptions options;
    options.withRows = false;
    UttPlayer player(options);
    player.say(6, 0.5f);
    player.pullUntil(kSpeech, 5000);
    EXPECT_EQ(runs(player.pull(7)), "S5 I2");
}

TEST(UttFailureTest, NothingToIdleWithIsFatal) {
    UttPlayerOptions options;
    options.withFrames = false;
    options.waitUntilReady = false;
    for (const bool pipelined : {false, true}) {
        options.pipelined = pipelined;
        UttPlayer player(options);
        EXPECT_TRUE(test::waitFor([&] { return zorv_utt_ready(player.utt()) == -1; }));
        EXPECT_NE(std::string(zorv_utt_last_error()).find("decode failed"), std::string::npos);
        EXPECT_EQ(zorv_utt_frames_available(player.utt()), 0);
    }
}

}  // namespace
}  // namespace zorv
