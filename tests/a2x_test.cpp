// The expression engine's stream and clip against the plain reference, call by call.
#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "a2x/zorv_a2x.h"
#include "a2x_reference.h"
#include "support/audio.h"
#include "support/failure.h"
#include "support/memory.h"

namespace zorv {
namespace {

using test::A2xReference;
using test::ExpressionDir;
using test::ExpressionOptions;
using test::Frames;
using test::openExpression;
using test::speechLike;
using Engine = test::ExpressionEngine;

Frames pulled(Engine& engine, int max) {
    Frames frames;
    engine.pull(frames, max);
    return frames;
}

/// The text of a directory that does not open.
std::string failure(const ExpressionDir& dir) {
    return test::failure([&] { openExpression(dir); });
}

void drainBoth(Engine& engine, A2xReference& reference) {
    ASSERT_EQ(engine.total(), reference.total());
    while (!testing::Test::HasFatalFailure()) {
        const int left = reference.avail();
        ASSERT_EQ(engine.avail(), left);
        if (left == 0) break;
        ASSERT_EQ(pulled(engine, 50), reference.pull(50));
    }
}

/// One stream in random pieces with random polls and pulls; every answer of the engine must be
/// the reference's.
void compareCallByCall(Engine& engine, A2xReference& reference, int samples, unsigned seed) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", samples " + std::to_string(samples));
    std::mt19937 random(seed);
    const std::vector<float> audio = speechLike(samples);
    const int start = static_cast<int>(random() % 11) - 5, dir = random() % 2 ? 1 : -1;
    const bool loop = random() % 2;
    engine.reset(start, dir, loop);
    reference.reset(start, dir, loop);
    for (int at = 0;;) {
        const int n = std::min(static_cast<int>(random() % 40000), samples - at);
        const std::vector<float> piece(audio.begin() + at, audio.begin() + at + n);
        ASSERT_EQ(engine.push(piece), 1);
        reference.push(piece);
        at += n;
        ASSERT_EQ(engine.total(), -1);
        if (at == samples) break;
        if (random() % 3) {
            ASSERT_EQ(engine.avail(), reference.avail());
        }
        if (random() % 3) {
            const int max = static_cast<int>(random() % 30);
            ASSERT_EQ(pulled(engine, max), reference.pull(max));
        }
    }
    engine.finish();
    reference.finish();
    drainBoth(engine, reference);
    // More audio after the end is taken as well.
    const std::vector<float> more = speechLike(static_cast<int>(random() % 200000));
    ASSERT_EQ(engine.push(more), 1);
    reference.push(more);
    drainBoth(engine, reference);
}

TEST(A2x, StreamsEqualTheReferenceCallByCall) {
    struct Case {
        ExpressionOptions options;
        int right;
        bool shortWindow;
        int samples;
    };
    const Case cases[] = {
        {{.window = 1, .left = 3}, 12, false, 640 * 303 + 17},
        {{.window = 0, .left = 3, .nt = 1}, 0, false, 640 * 303 + 17},
        {{.window = 3, .left = 2, .nt = 5}, 2, false, 640 * 303 + 17},  // beyond the features
        {{.left = 4, .rows = 230, .silencePrime = 7}, 12, false, 640 * 303 + 17},
        {{.window = 0, .left = 3}, 12, true, 640 * 320 + 1},
        {{.window = 1, .left = 3, .rows = 201, .silencePrime = 3}, 0, true, 640 * 320 + 1},
        {{.window = 9, .left = 1}, 4, true, 640 * 320 + 1},
    };
    unsigned seed = 1;
    for (const Case& c : cases) {
        const ExpressionDir dir(c.options);
        const auto engine = openExpression(dir, c.right, c.shortWindow);
        A2xReference reference(dir, c.right, c.shortWindow);
        for (const int samples : {c.samples, 640 * 60 - 5}) {
            compareCallByCall(*engine, reference, samples, seed++);
            ASSERT_LE(engine->get()->encoderRuns(), reference.encoderRuns);
            reference.encoderRuns = 0;
        }
    }
}

TEST(A2x, ClipsEqualTheReferenceAndLeaveTheStreamAlone) {
    const ExpressionDir dir({.silencePrime = 5});
    const auto engine = openExpression(dir), undisturbed = openExpression(dir);
    A2xReference reference(dir);
    const std::vector<float> speech = speechLike(640 * 7);
    engine->reset(2, -1, 0);
    undisturbed->reset(2, -1, 0);
    for (const int n : {1, 640, 641, 640 * 24, 640 * 25, 640 * 200 + 1, 640 * 301 - 7, 640 * 400}) {
        engine->push(speech);
        undisturbed->push(speech);
        const std::vector<float> audio = speechLike(n);
        const int frames = (n + 639) / 640;
        std::vector<float> out(static_cast<std::size_t>(frames) * 63 + 1, 99.f);
        ASSERT_EQ(zorv_a2x_deltas(engine->get(), audio.data(), n, out.data(), frames), frames)
            << zorv_a2x_last_error();
        EXPECT_EQ(out.back(), 99.f);
        out.pop_back();
        EXPECT_EQ(out, reference.deltas(audio)) << n;
        EXPECT_EQ(pulled(*engine, 20), pulled(*undisturbed, 20));
    }
    // Whole clips never use short windows and need no reset; the table's end is told.
    const ExpressionDir unprimed;
    const auto shortWindows = openExpression(unprimed, 12, true);
    const std::vector<float> audio = speechLike(640 * 401);
    std::vector<float> out(401 * 63, 7.f);
    EXPECT_EQ(zorv_a2x_deltas(shortWindows->get(), audio.data(), 640 * 401, out.data(), 401), -1);
    EXPECT_STREQ(zorv_a2x_last_error(),
                 "zorv_a2x_deltas: clip of 401 frames, but a2x_pos.f32 has 400 rows");
    EXPECT_EQ(out, std::vector<float>(401 * 63, 7.f));
    EXPECT_EQ(zorv_a2x_deltas(shortWindows->get(), audio.data(), 641, out.data(), 2), 2);
    out.resize(126);
    EXPECT_EQ(out, A2xReference(unprimed).deltas({audio.begin(), audio.begin() + 641}));
}

TEST(A2x, AnEngineThatWasNeverResetDecodesNothing) {
    const ExpressionDir dir;
    const auto engine = openExpression(dir);
    EXPECT_EQ(engine->push(speechLike(640 * 60)), 1);
    engine->finish();
    EXPECT_EQ(engine->total(), 60);
    EXPECT_EQ(engine->avail() + pulled(*engine, 5).size(), 0u);
    engine->reset(0, 1, 1);
    engine->push(speechLike(640 * 60));
    for (const int none : {0, -1, INT32_MIN}) EXPECT_EQ(pulled(*engine, none).size(), 0u);
    EXPECT_EQ(engine->get()->encoderRuns(), 0) << "a pull of nothing decoded";
}

TEST(A2x, TheEncoderRunsOnlyForNewFrames) {
    const ExpressionDir dir({.window = 3});
    const auto engine = openExpression(dir, 2);  // windows always want features not there yet
    const std::vector<float> audio = speechLike(640 * 150);
    std::int64_t runs = 0;
    Frames frames;
    engine->reset(0, 1, 1);
    for (int at = 0; at < 640 * 150; at += 160) {
        engine->push(audio.data() + at, 160);
        for (int poll = 0; poll < 3; ++poll) {
            engine->avail();
            engine->pull(frames, 2);
        }
        ASSERT_LE(engine->get()->encoderRuns() - runs, at % 640 == 0) << "sample " << at;
        runs = engine->get()->encoderRuns();
    }
    EXPECT_EQ(runs, 150 - 6) << "one per frame that became ready";
    engine->finish();
    engine->drain(frames);
    EXPECT_EQ(frames.size(), 150u);
    EXPECT_EQ(engine->get()->encoderRuns(), runs + 1);
}

TEST(A2x, MemoryIsLetGoAsFramesArePulledAndTheTablesEndIsTheEnd) {
    constexpr int kRows = 1500;  // 53 MiB of features
    const ExpressionDir dir({.window = 0, .rows = kRows});
    const std::vector<float> audio = speechLike(16000);
    for (const bool shortWindow : {false, true}) {
        const auto engine = openExpression(dir, 12, shortWindow);
        for (int round = 0; round < 2; ++round) {
            engine->reset(0, 1, 1);
            A2xError::clear();
            testing::internal::CaptureStderr();
            std::size_t early = 0, most = 0;
            Frames frames;
            for (int second = 0; second < kRows / 25 + 40; ++second) {
                engine->push(audio);
                engine->drain(frames, 8);
                const bool over =
                    engine->error().starts_with("zorv_a2x: end of a2x_pos.f32: 1500 frames (60 s)");
                EXPECT_EQ(over, frames.size() == kRows) << engine->error();
                if (second == 20) early = test::statusBytes("VmRSS:");
                if (second > 20) most = std::max(most, test::statusBytes("VmRSS:"));
            }
            EXPECT_EQ(frames.size(), std::size_t{kRows});
            EXPECT_EQ(testing::internal::GetCapturedStderr(),
                      "[zorv_a2x] " + engine->error() + "\n")
                << "once";
            // A thousand frames of features are 35 MiB.
            EXPECT_LT(most, early + (20 << 20));
            const auto runs = engine->get()->encoderRuns();
            engine->finish();
            EXPECT_EQ(engine->total(), kRows + 1000) << "not capped by the table";
            EXPECT_EQ(engine->avail(), 0);
            EXPECT_EQ(engine->get()->encoderRuns(), runs);
        }
        // Nor does the memory of one call grow with the frames that it wants.
        const std::vector<float> all = speechLike(640 * kRows);
        std::vector<float> out(kRows * 63);
        const auto peakOf = [&](int clip) {
            test::forgetPeakMemory();
            engine->reset(0, 1, 1);
            engine->push(all.data(), clip * 640);
            engine->finish();
            Frames frames;
            EXPECT_EQ(engine->pull(frames, kRows), clip);
            EXPECT_EQ(zorv_a2x_deltas(engine->get(), all.data(), clip * 640, out.data(), kRows),
                      clip);
            return test::statusBytes("VmHWM:");
        };
        peakOf(300);
        const std::size_t few = peakOf(300);
        EXPECT_LT(peakOf(kRows), few + (20 << 20));
    }
}

TEST(A2x, AFailedStepIsToldAndTheNextCallDecodesOnFromTheStateReached) {
    const ExpressionDir dir({.decoder = "a2x_dec_fails"});  // at frame 30, the first time
    const auto engine = openExpression(dir);
    A2xReference reference(dir);
    const std::vector<float> audio = speechLike(640 * 90);
    for (int stream = 0; stream < 2; ++stream) {
        A2xError::clear();
        engine->reset(0, 1, 1);
        reference.reset(0, 1, true);
        engine->push(audio);
        reference.push(audio);
        EXPECT_EQ(pulled(*engine, 20), reference.pull(20));
        EXPECT_EQ(engine->error(), "");
        EXPECT_EQ(engine->avail(), reference.avail());
        EXPECT_EQ(engine->error(), reference.lastError);
        EXPECT_TRUE(reference.lastError.starts_with("zorv_a2x extend: ")) << reference.lastError;
        engine->finish();
        reference.finish();
        for (int call = 0; call < 4; ++call) {
            EXPECT_EQ(engine->avail(), reference.avail());
            EXPECT_EQ(pulled(*engine, 40), reference.pull(40)) << call;
        }
        EXPECT_EQ(engine->error(), reference.lastError) << "calls that succeed keep the text";
    }
}

TEST(A2x, CreationSaysWhichFileOrKeyIsWrong) {
    const std::string prefix = "zorv_a2x_create: ";
    const std::string notStreaming = "meta lacks causal window/left (not a streaming a2x)";
    const std::string tables = "pos/norm/xs_target read failed", opened = "no failure";
    const std::pair<std::string, std::string> metas[] = {
        {"", notStreaming},
        {R"({"h": 0, "window": 0, "left": 8})", "a2x_meta.json: h must be at least 1"},
        {R"({"h": 16, "window": 0, "left": 8, "maxlen": -1})",
         "a2x_meta.json: maxlen must be at least 0"},
        // Numbers that only a damaged file holds.
        {R"({"h": 16, "window": 2147483647, "left": 2147483647, "layers": 2147483647, "maxlen": 10})",
         opened},
        {R"({"h": 16, "window": 0, "left": 8})", tables},  // 400 rows of 1200
        {R"({"h": 2147483647, "window": 0, "left": 8, "maxlen": 2147483647})", tables},
    };
    for (const auto& [text, expected] : metas) {
        const ExpressionDir dir;
        dir.writeMeta(text);
        EXPECT_EQ(failure(dir), expected == opened ? opened : prefix + expected) << text;
    }
    for (const auto& [name, few] :
         {std::pair{"a2x_pos.f32", 400 * 16 - 1}, {"a2x_norm.f32", 125}, {"xs_target.bin", 62}}) {
        const ExpressionDir dir;
        dir.writeTable(name, std::vector<float>(static_cast<std::size_t>(few)));
        EXPECT_EQ(failure(dir), prefix + tables) << name;
    }
    const ExpressionDir odd;
    odd.writeTable("xs_target.bin", std::vector<float>(100));
    EXPECT_EQ(openExpression(odd)->nt(), 1) << "floats of a started row do not count";
    EXPECT_EQ(zorv_a2x_create("/no such dir", 1), nullptr);
    EXPECT_STREQ(zorv_a2x_last_error(), "zorv_a2x_create: a2x_meta.json missing in /no such dir");
}

// TSan cannot follow the locks of the model runtime's own threads: not for it.
TEST(A2x, TheModelRuntimeGetsTheThreadsThatWereAskedFor) {
    const ExpressionDir dir;
    const auto first = openExpression(dir);  // the encoder's threads are there
    const test::ScopedEnv encoder("W2V_ONNX", test::modelFile("a2x_w2v"));
    const auto tasks = [] {
        const std::filesystem::directory_iterator all("/proc/self/task");
        return std::distance(begin(all), end(all));
    };
    const auto added = [&](int threads, const char* setting) {
        const test::ScopedEnv env("ZORV_A2X_THREADS", setting);
        const auto before = tasks();
        const Engine engine(zorv_a2x_create(dir.path().c_str(), threads));
        return tasks() - before;  // two sessions, each with the caller's thread and others
    };
    EXPECT_EQ(added(0, nullptr), 0);
    EXPECT_EQ(added(4, nullptr), 6);
    EXPECT_EQ(added(8, nullptr), 6);
    EXPECT_EQ(added(8, "2"), 2);
    EXPECT_EQ(added(8, "-1"), 0);
}

}  // namespace
}  // namespace zorv
