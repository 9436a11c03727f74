// The expression engine's stream and clip against the plain reference, call by call.
#include <gtest/gtest.h>
#include <zorv_core.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <thread>

#include "a2x/zorv_a2x.h"
#include "a2x_reference.h"
#include "support/audio.h"
#include "support/scoped_env.h"

/// ASan asks here for its settings: freed memory that it keeps for long would look like memory that
/// the engine does not let go.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "quarantine_size_mb=1";
}

namespace zorv {
namespace {

using test::A2xReference;
using test::ExpressionDir;
using test::ExpressionOptions;
using test::modelFile;
using test::ScopedEnv;
using test::speechLike;
using Frame = A2xReference::Frame;

using A2xPtr = std::unique_ptr<zorv_a2x, decltype(&zorv_a2x_destroy)>;

/// All tests of the process use the same encoder, trunk and head: the first load wins.
class A2xTest : public testing::Test {
  protected:
    static A2xPtr open(const ExpressionDir& dir, int right = 12, bool shortWindow = false) {
        const ScopedEnv look("ZORV_A2X_W2V_RIGHT", std::to_string(right));
        const ScopedEnv win("ZORV_A2X_W2V_WIN", shortWindow ? "1" : nullptr);
        A2xPtr engine(zorv_a2x_create(dir.path().c_str(), 1), &zorv_a2x_destroy);
        if (!engine) ADD_FAILURE() << zorv_a2x_last_error();
        return engine;
    }

    static std::vector<Frame> pull(zorv_a2x* engine, int max) {
        const auto room = static_cast<std::size_t>(std::max(max, 0));
        std::vector<int> idx(room);
        std::vector<float> src(room * 63), drv(room * 63);
        const int n = zorv_a2x_pull(engine, idx.data(), src.data(), drv.data(), max);
        std::vector<Frame> frames;
        for (int i = 0; i < n; ++i) {
            frames.push_back({idx[i],
                              {src.begin() + i * 63, src.begin() + (i + 1) * 63},
                              {drv.begin() + i * 63, drv.begin() + (i + 1) * 63}});
        }
        return frames;
    }

    /// Everything from `engine` until nothing comes, appended to `frames`.
    static void drain(zorv_a2x* engine, std::vector<Frame>& frames) {
        while (zorv_a2x_avail(engine) > 0) {
            for (Frame& frame : pull(engine, 100)) frames.push_back(std::move(frame));
        }
    }

    static std::vector<Frame> wholeStream(zorv_a2x* engine, const std::vector<float>& audio) {
        zorv_a2x_reset(engine, 0, 1, 1);
        zorv_a2x_push(engine, audio.data(), static_cast<int>(audio.size()));
        zorv_a2x_finish(engine);
        std::vector<Frame> frames;
        drain(engine, frames);
        return frames;
    }

    /// One stream in random pieces with random polls and pulls; every answer of the engine must be
    /// the reference's.
    static void compareCallByCall(zorv_a2x* engine, A2xReference& reference, int samples,
                                  unsigned seed) {
        SCOPED_TRACE("seed " + std::to_string(seed) + ", samples " + std::to_string(samples));
        std::mt19937 random(seed);
        const std::vector<float> audio = speechLike(samples);
        const int start = static_cast<int>(random() % 11) - 5, dir = random() % 2 ? 1 : -1;
        const bool loop = random() % 2;
        zorv_a2x_reset(engine, start, dir, loop);
        reference.reset(start, dir, loop);
        for (int at = 0;;) {
            const int n = std::min(static_cast<int>(random() % 40000), samples - at);
            const std::vector<float> piece(audio.begin() + at, audio.begin() + at + n);
            ASSERT_EQ(zorv_a2x_push(engine, piece.data(), n), 1);
            reference.push(piece);
            at += n;
            ASSERT_EQ(zorv_a2x_total(engine), -1);
            if (at == samples) break;
            askBoth(engine, reference, random);
        }
        zorv_a2x_finish(engine);
        reference.finish();
        drainBoth(engine, reference);
        // More audio after the end is taken as well.
        const std::vector<float> more = speechLike(static_cast<int>(random() % 200000));
        ASSERT_EQ(zorv_a2x_push(engine, more.data(), static_cast<int>(more.size())), 1);
        reference.push(more);
        drainBoth(engine, reference);
    }

    static void drainBoth(zorv_a2x* engine, A2xReference& reference) {
        ASSERT_EQ(zorv_a2x_total(engine), reference.total());
        while (!testing::Test::HasFatalFailure()) {
            const int left = reference.avail();
            ASSERT_EQ(zorv_a2x_avail(engine), left);
            if (left == 0) break;
            ASSERT_EQ(pull(engine, 50), reference.pull(50));
        }
    }

    static void askBoth(zorv_a2x* engine, A2xReference& reference, std::mt19937& random) {
        if (random() % 3) {
            ASSERT_EQ(zorv_a2x_avail(engine), reference.avail());
        }
        if (random() % 3) {
            const int max = static_cast<int>(random() % 30);
            ASSERT_EQ(pull(engine, max), reference.pull(max));
        }
    }

    ScopedEnv encoder_{"W2V_ONNX", modelFile("a2x_w2v")};
    ScopedEnv trunk_{"ZORV_A2X_W2V_WIN_ONNX", modelFile("a2x_trunk")};
    ScopedEnv head_{"ZORV_A2X_W2V_HEAD_ONNX", modelFile("a2x_head")};
};

TEST_F(A2xTest, LegacyStreamEqualsTheReferenceCallByCall) {
    struct Case {
        ExpressionOptions options;
        int right;
    };
    const Case cases[] = {
        {{.window = 1, .left = 3}, 12},
        {{.window = 0, .left = 3, .nt = 1}, 0},
        {{.window = 3, .left = 2, .nt = 5}, 2},  // windows reach into frames without features
        {{.left = 4, .rows = 230, .silencePrime = 7}, 12},  // ends at the positional limit
    };
    unsigned seed = 1;
    for (const Case& c : cases) {
        const ExpressionDir dir(c.options);
        const A2xPtr engine = open(dir, c.right);
        ASSERT_TRUE(engine);
        A2xReference reference(dir, c.right);
        for (const int samples : {640 * 303 + 17, 640 * 60}) {
            compareCallByCall(engine.get(), reference, samples, seed++);
            ASSERT_LE(engine->encoderRuns(), reference.encoderRuns);
            reference.encoderRuns = 0;
        }
    }
}

TEST_F(A2xTest, ShortWindowStreamEqualsTheReferenceCallByCall) {
    struct Case {
        ExpressionOptions options;
        int right;
    };
    const Case cases[] = {
        {{.window = 0, .left = 3}, 12},
        {{.window = 1, .left = 3, .rows = 201, .silencePrime = 3}, 0},
        {{.window = 9, .left = 1}, 4},
    };
    unsigned seed = 100;
    for (const Case& c : cases) {
        const ExpressionDir dir(c.options);
        const A2xPtr engine = open(dir, c.right, true);
        ASSERT_TRUE(engine);
        A2xReference reference(dir, c.right, true);
        for (const int samples : {640 * 320 + 1, 640 * 30 - 5}) {
            compareCallByCall(engine.get(), reference, samples, seed++);
        }
    }
}

/// The largest difference between two streams' driving keypoints; infinite when they differ in
/// anything else.
float distance(const std::vector<Frame>& a, const std::vector<Frame>& b) {
    if (a.size() != b.size()) return INFINITY;
    float most = 0;
    for (std::size_t f = 0; f < a.size(); ++f) {
        if (a[f].index != b[f].index || a[f].src != b[f].src) return INFINITY;
        for (std::size_t i = 0; i < 63; ++i) {
            most = std::max(most, std::abs(a[f].drv[i] - b[f].drv[i]));
        }
    }
    return most;
}

TEST_F(A2xTest, FramesDependOnTheSamplesAtEachPollAndNotOnTheCuts) {
    const ExpressionDir dir;
    for (const bool shortWindow : {false, true}) {
        const A2xPtr engine = open(dir, 12, shortWindow);
        const std::vector<float> audio = speechLike(640 * 240 + 100);
        const auto stream = [&](std::size_t most, bool poll) {
            std::mt19937 random(7);
            std::vector<Frame> frames;
            zorv_a2x_reset(engine.get(), 1, 1, 1);
            for (std::size_t at = 0; at < audio.size();) {
                const std::size_t stop = std::min((at / 50000 + 1) * 50000, audio.size());
                const std::size_t n = std::min(stop - at, 1 + random() % most);
                zorv_a2x_push(engine.get(), audio.data() + at, static_cast<int>(n));
                at += n;
                if (poll && at % 50000 == 0) drain(engine.get(), frames);
            }
            zorv_a2x_finish(engine.get());
            drain(engine.get(), frames);
            EXPECT_EQ(frames.size(), 241u);
            return frames;
        };
        EXPECT_EQ(stream(300, true), stream(1 << 20, true));
        // Without a poll before the end the audio may as well have come at once.
        EXPECT_EQ(stream(300, false), stream(1 << 20, false));
    }
}

TEST_F(A2xTest, ShortWindowsWithoutLookAheadForgetTheRhythmAltogether) {
    const ExpressionDir dir({.window = 0});
    const A2xPtr engine = open(dir, 12, true);
    const std::vector<float> audio = speechLike(640 * 230 + 1);
    const std::vector<Frame> whole = wholeStream(engine.get(), audio);
    ASSERT_EQ(whole.size(), 231u);
    for (const int most : {640, 9000, 60000}) {
        std::mt19937 random(static_cast<unsigned>(most));
        std::vector<Frame> frames;
        zorv_a2x_reset(engine.get(), 0, 1, 1);
        for (int at = 0; at < static_cast<int>(audio.size());) {
            const int n =
                std::min(static_cast<int>(random()) % most, static_cast<int>(audio.size()) - at);
            zorv_a2x_push(engine.get(), audio.data() + at, n);
            at += std::max(n, 0);
            if (random() % 2) {
                for (Frame& f : pull(engine.get(), 1 + static_cast<int>(random() % 20))) {
                    frames.push_back(std::move(f));
                }
            }
        }
        zorv_a2x_finish(engine.get());
        drain(engine.get(), frames);
        // Other chunks add up in another order.
        EXPECT_LT(distance(frames, whole), 2e-5f) << most;
    }
}

TEST_F(A2xTest, ChunksEqualARunOverTheWholeSequence) {
    for (const int window : {0, 2}) {
        const ExpressionDir dir({.window = window, .left = 5});
        const A2xPtr engine = open(dir);
        const std::vector<float> audio = speechLike(640 * 333);
        const std::vector<Frame> frames = wholeStream(engine.get(), audio);
        ASSERT_EQ(frames.size(), 333u);
        A2xReference reference(dir);
        reference.push(audio);
        reference.finish();
        while (reference.avail() > 0) reference.pull(500);
        const std::vector<float> whole = reference.wholeSequence();
        for (std::size_t i = 0; i < whole.size(); ++i) {
            const Frame& frame = frames[i / 63];
            ASSERT_NEAR(frame.drv[i % 63] - frame.src[i % 63], whole[i], 2e-5)
                << "window " << window << " frame " << i / 63;
        }
    }
}

TEST_F(A2xTest, DeltasEqualTheReferenceAndLeaveTheStreamAlone) {
    const ExpressionDir dir({.silencePrime = 5});
    const A2xPtr engine = open(dir), undisturbed = open(dir);
    A2xReference reference(dir);
    const std::vector<float> speech = speechLike(640 * 60);
    zorv_a2x_reset(engine.get(), 2, -1, 0);
    zorv_a2x_reset(undisturbed.get(), 2, -1, 0);
    for (const int n : {1, 640, 641, 640 * 24, 640 * 25, 640 * 200 + 1, 640 * 301 - 7, 640 * 400}) {
        for (zorv_a2x* e : {engine.get(), undisturbed.get()}) {
            zorv_a2x_push(e, speech.data(), 640 * 7);
        }
        const std::vector<float> audio = speechLike(n);
        const int frames = (n + 639) / 640;
        std::vector<float> out(static_cast<std::size_t>(frames) * 63 + 1, 99.f);
        ASSERT_EQ(zorv_a2x_deltas(engine.get(), audio.data(), n, out.data(), frames), frames)
            << zorv_a2x_last_error();
        EXPECT_EQ(out.back(), 99.f);
        out.pop_back();
        EXPECT_EQ(out, reference.deltas(audio)) << n;
        EXPECT_EQ(pull(engine.get(), 20), pull(undisturbed.get(), 20));
    }
}

TEST_F(A2xTest, DeltasChecksItsArgumentsAndTheLengthOfTheClip) {
    const ExpressionDir dir;
    for (const bool shortWindow : {false, true}) {         // whole clips never use short windows
        const A2xPtr engine = open(dir, 12, shortWindow);  // and need no reset
        const std::vector<float> audio = speechLike(640 * 401);
        std::vector<float> out(402 * 63, 7.f);
        EXPECT_EQ(zorv_a2x_deltas(engine.get(), audio.data(), 641, out.data(), 2), 2);
        EXPECT_EQ(out[126], 7.f);
        A2xReference reference(dir);
        EXPECT_EQ(std::vector<float>(out.begin(), out.begin() + 126),
                  reference.deltas({audio.begin(), audio.begin() + 641}));
        std::fill(out.begin(), out.end(), 7.f);
        EXPECT_EQ(zorv_a2x_deltas(engine.get(), audio.data(), 641, out.data(), 1), -2);
        EXPECT_EQ(zorv_a2x_deltas(engine.get(), audio.data(), INT32_MAX, out.data(), 402), -2);
        EXPECT_EQ(zorv_a2x_deltas(engine.get(), audio.data(), 0, out.data(), 2), 0);
        EXPECT_EQ(zorv_a2x_deltas(engine.get(), nullptr, INT32_MIN, nullptr, 0), 0);
        EXPECT_EQ(zorv_a2x_deltas(engine.get(), audio.data(), 640 * 401, out.data(), 402), -1);
        EXPECT_STREQ(zorv_a2x_last_error(),
                     "zorv_a2x_deltas: clip of 401 frames, but a2x_pos.f32 has 400 rows");
        EXPECT_EQ(zorv_a2x_deltas(engine.get(), nullptr, 641, out.data(), 2), -1);
        EXPECT_STREQ(zorv_a2x_last_error(), "zorv_a2x_deltas: NULL a2x/pcm/out");
        EXPECT_EQ(out, std::vector<float>(402 * 63, 7.f)) << "a refused call wrote";
    }
}

TEST_F(A2xTest, StreamCallsAtTheirEdges) {
    const ExpressionDir dir;
    const A2xPtr engine = open(dir);
    zorv_a2x* a2x = engine.get();
    const std::vector<float> audio = speechLike(640 * 60);
    EXPECT_EQ(zorv_a2x_nt(a2x), 3);

    // Never reset: nothing is decoded.
    EXPECT_EQ(zorv_a2x_push(a2x, audio.data(), 640 * 60), 1);
    zorv_a2x_finish(a2x);
    EXPECT_EQ(zorv_a2x_total(a2x), 60);
    EXPECT_EQ(zorv_a2x_avail(a2x), 0);
    EXPECT_TRUE(pull(a2x, 5).empty());

    zorv_a2x_reset(a2x, 0, 1, 1);
    zorv_a2x_set_eager(a2x, 3);
    EXPECT_EQ(zorv_a2x_push(a2x, audio.data(), 640 * 30), 1);
    EXPECT_EQ(zorv_a2x_push(a2x, audio.data(), -3), 1);
    EXPECT_EQ(zorv_a2x_push(a2x, nullptr, 0), 1);
    EXPECT_EQ(zorv_a2x_push(a2x, nullptr, 1), 0);
    EXPECT_STREQ(zorv_a2x_last_error(), "zorv_a2x_push: NULL a2x/pcm");
    EXPECT_EQ(zorv_a2x_total(a2x), -1);
    for (const int none : {0, -1, INT32_MIN}) EXPECT_TRUE(pull(a2x, none).empty());
    EXPECT_EQ(a2x->encoderRuns(), 0) << "a pull of nothing decoded";
    EXPECT_EQ(zorv_a2x_pull(a2x, nullptr, nullptr, nullptr, 3), 0);
    EXPECT_STREQ(zorv_a2x_last_error(), "zorv_a2x_pull: NULL src/drv");

    EXPECT_EQ(zorv_a2x_avail(a2x), 18);
    EXPECT_EQ(pull(a2x, INT16_MAX).size(), 18u);
    zorv_a2x_finish(a2x);
    EXPECT_EQ(zorv_a2x_total(a2x), 30);
    EXPECT_EQ(zorv_a2x_push(a2x, audio.data(), 1), 1);
    EXPECT_EQ(zorv_a2x_total(a2x), 31) << "audio after finish counts";
    EXPECT_EQ(pull(a2x, INT16_MAX).size(), 13u);
    EXPECT_EQ(zorv_a2x_avail(a2x), 0);
    zorv_a2x_reset(a2x, 0, 1, 1);
    EXPECT_EQ(zorv_a2x_total(a2x), -1);

    EXPECT_EQ(zorv_a2x_nt(nullptr), 0);
    EXPECT_EQ(zorv_a2x_total(nullptr), 0);
    EXPECT_EQ(zorv_a2x_avail(nullptr), 0);
    EXPECT_EQ(zorv_a2x_pull(nullptr, nullptr, nullptr, nullptr, 1), 0);
    EXPECT_EQ(zorv_a2x_push(nullptr, audio.data(), 1), 0);
    zorv_a2x_finish(nullptr);
    zorv_a2x_set_eager(nullptr, 1);
    zorv_a2x_reset(nullptr, 0, 1, 1);
    zorv_a2x_destroy(nullptr);
}

TEST_F(A2xTest, LookAheadIsHeldBackUntilFinish) {
    const ExpressionDir dir({.window = 0, .left = 8, .layers = 6});
    const std::vector<float> audio = speechLike(640 * 100);
    for (const auto& [shortWindow, held] : {std::pair{false, 12}, {true, 20}}) {
        const A2xPtr engine = open(dir, 12, shortWindow);
        std::vector<Frame> frames;
        zorv_a2x_reset(engine.get(), 0, 1, 1);
        zorv_a2x_push(engine.get(), audio.data(), 640 * 100);
        EXPECT_EQ(zorv_a2x_avail(engine.get()), shortWindow ? 8 : 64) << "one block per call";
        drain(engine.get(), frames);
        EXPECT_EQ(frames.size(), 100u - held);
        zorv_a2x_finish(engine.get());
        drain(engine.get(), frames);
        EXPECT_EQ(frames.size(), 100u);
    }
    // A receptive field that looks further ahead than the features do.
    const ExpressionDir wide({.window = 10, .left = 1});
    const A2xPtr engine = open(wide, -5);
    std::vector<Frame> frames;
    zorv_a2x_reset(engine.get(), 0, 1, 1);
    zorv_a2x_push(engine.get(), audio.data(), 640 * 100);
    drain(engine.get(), frames);
    EXPECT_EQ(frames.size(), 80u);
}

TEST_F(A2xTest, TheEncoderRunsOnlyForNewFrames) {
    const ExpressionDir dir({.window = 3});
    const A2xPtr engine = open(dir, 2);  // windows always want features that cannot be had yet
    const std::vector<float> audio = speechLike(640 * 150);
    std::int64_t runs = 0;
    std::vector<Frame> frames;
    zorv_a2x_reset(engine.get(), 0, 1, 1);
    for (int at = 0; at < 640 * 150; at += 160) {
        zorv_a2x_push(engine.get(), audio.data() + at, 160);
        for (int poll = 0; poll < 3; ++poll) {
            zorv_a2x_avail(engine.get());
            for (Frame& frame : pull(engine.get(), 2)) frames.push_back(std::move(frame));
        }
        ASSERT_LE(engine->encoderRuns() - runs, at % 640 == 0) << "sample " << at;
        runs = engine->encoderRuns();
    }
    EXPECT_EQ(runs, 150 - 6) << "one per frame that became ready";
    zorv_a2x_finish(engine.get());
    drain(engine.get(), frames);
    EXPECT_EQ(frames.size(), 150u);
    EXPECT_EQ(engine->encoderRuns(), runs + 1);

    // Pulled one by one, the last frames want features that the audio cannot give.
    zorv_a2x_reset(engine.get(), 0, 1, 1);
    zorv_a2x_push(engine.get(), audio.data(), 640 * 100);
    for (int frame = 0; frame < 94; ++frame) ASSERT_EQ(pull(engine.get(), 1).size(), 1u);
    EXPECT_EQ(engine->encoderRuns(), 1);
}

/// Memory of the process that is in use now. Under TSan that holds a shadow of every byte that was
/// ever touched, and tells nothing.
std::size_t residentBytes() {
    FILE* file = std::fopen("/proc/self/statm", "r");
    unsigned long pages = 0, resident = 0;
    EXPECT_EQ(std::fscanf(file, "%lu %lu", &pages, &resident), 2);
    std::fclose(file);
    return resident * 4096;
}

TEST_F(A2xTest, MemoryIsLetGoAsFramesArePulledAndTheTablesEndIsTheEnd) {
    constexpr int kRows = 1500;  // 53 MiB of features
    const ExpressionDir dir({.window = 0, .rows = kRows});
    const std::vector<float> audio = speechLike(16000);
    for (const bool shortWindow : {false, true}) {
        const A2xPtr engine = open(dir, 12, shortWindow);
        std::vector<float> src(8 * 63), drv(8 * 63);
        for (int round = 0; round < 2; ++round) {
            zorv_a2x_reset(engine.get(), 0, 1, 1);
            std::size_t early = 0, most = 0;
            int pulled = 0;
            for (int second = 0; second < kRows / 25 + 40; ++second) {
                zorv_a2x_push(engine.get(), audio.data(), 16000);
                while (zorv_a2x_avail(engine.get()) > 0) {
                    pulled += zorv_a2x_pull(engine.get(), nullptr, src.data(), drv.data(), 8);
                }
                if (second == 20) early = residentBytes();
                if (second > 20) most = std::max(most, residentBytes());
            }
            EXPECT_EQ(pulled, kRows);
            // A thousand frames of features are 35 MiB.
            EXPECT_LT(most, early + (20 << 20));
            const auto runs = engine->encoderRuns();
            zorv_a2x_finish(engine.get());
            EXPECT_EQ(zorv_a2x_total(engine.get()), kRows + 1000) << "not capped by the table";
            EXPECT_EQ(zorv_a2x_avail(engine.get()), 0);
            EXPECT_EQ(engine->encoderRuns(), runs);
        }
    }
}

/// The most memory that was in use at once while `body` ran.
std::size_t peakBytes(auto&& body) {
    std::ofstream("/proc/self/clear_refs") << "5";  // forgets the peak so far
    body();
    std::ifstream status("/proc/self/status");
    std::string word;
    std::size_t kibibytes = 0;
    while (status >> word && word != "VmHWM:") continue;
    status >> kibibytes;
    return kibibytes * 1024;
}

TEST_F(A2xTest, MemoryOfOneCallDoesNotGrowWithTheFramesThatItWants) {
    const ExpressionDir dir({.window = 0, .rows = 1500});
    const std::vector<float> audio = speechLike(640 * 1500);
    std::vector<float> src(1500 * 63), drv(1500 * 63), out(1500 * 63);
    for (const bool shortWindow : {false, true}) {
        const A2xPtr engine = open(dir, 12, shortWindow);
        const auto pullAll = [&](int frames) {
            zorv_a2x_reset(engine.get(), 0, 1, 1);
            zorv_a2x_push(engine.get(), audio.data(), frames * 640);
            zorv_a2x_finish(engine.get());
            EXPECT_EQ(zorv_a2x_pull(engine.get(), nullptr, src.data(), drv.data(), 1500), frames);
        };
        const auto convertAll = [&](int frames) {
            EXPECT_EQ(zorv_a2x_deltas(engine.get(), audio.data(), frames * 640, out.data(), 1500),
                      frames);
        };
        pullAll(300);
        convertAll(300);
        const std::size_t few = peakBytes([&] { pullAll(300), convertAll(300); });
        EXPECT_LT(peakBytes([&] { pullAll(1500); }), few + (20 << 20));
        EXPECT_LT(peakBytes([&] { convertAll(1500); }), few + (20 << 20));
    }
}

TEST_F(A2xTest, AFailedStepIsToldAndTheNextCallDecodesOnFromTheStateReached) {
    const ExpressionDir dir({.decoder = "a2x_dec_fails"});  // at frame 30, the first time
    const A2xPtr engine = open(dir);
    A2xReference reference(dir);
    const std::vector<float> audio = speechLike(640 * 90);
    for (int stream = 0; stream < 2; ++stream) {
        A2xError::clear();
        zorv_a2x_reset(engine.get(), 0, 1, 1);
        reference.reset(0, 1, true);
        zorv_a2x_push(engine.get(), audio.data(), 640 * 90);
        reference.push(audio);
        EXPECT_EQ(pull(engine.get(), 20), reference.pull(20));
        EXPECT_STREQ(zorv_a2x_last_error(), "");
        EXPECT_EQ(zorv_a2x_avail(engine.get()), reference.avail());
        EXPECT_EQ(zorv_a2x_last_error(), reference.lastError);
        EXPECT_TRUE(reference.lastError.starts_with("zorv_a2x extend: ")) << reference.lastError;
        zorv_a2x_finish(engine.get());
        reference.finish();
        for (int call = 0; call < 4; ++call) {
            EXPECT_EQ(zorv_a2x_avail(engine.get()), reference.avail());
            EXPECT_EQ(pull(engine.get(), 40), reference.pull(40)) << call;
        }
        EXPECT_EQ(zorv_a2x_last_error(), reference.lastError) << "calls that succeed keep the text";
    }

    const ExpressionDir other({.decoder = "a2x_dec_short_m"});
    const A2xPtr broken = open(other);
    EXPECT_TRUE(wholeStream(broken.get(), audio).empty());
    EXPECT_STREQ(zorv_a2x_last_error(),
                 "zorv_a2x extend: output m: expected at least 63 float32 values, found 62");
}

TEST_F(A2xTest, CreationSaysWhichFileOrKeyIsWrong) {
    const auto failure = [](auto&& damage) -> std::string {
        const ExpressionDir dir;
        damage(dir);
        const A2xPtr engine(zorv_a2x_create(dir.path().c_str(), 1), &zorv_a2x_destroy);
        return engine ? "opened" : zorv_a2x_last_error();
    };
    const auto meta = [&](const std::string& text) {
        return failure([&](const ExpressionDir& dir) { dir.writeMeta(text); });
    };
    const auto table = [&](const std::string& name, std::size_t floats) {
        return failure(
            [&](const ExpressionDir& dir) { dir.writeTable(name, std::vector<float>(floats)); });
    };
    const auto missing = [&](const std::string& name) {
        return failure([&](const ExpressionDir& dir) { ::unlink(dir.file(name).c_str()); });
    };
    EXPECT_EQ(zorv_a2x_create(nullptr, 1), nullptr);
    EXPECT_STREQ(zorv_a2x_last_error(), "zorv_a2x_create: NULL dir");
    EXPECT_EQ(zorv_a2x_create("/no such dir", 1), nullptr);
    EXPECT_STREQ(zorv_a2x_last_error(), "zorv_a2x_create: a2x_meta.json missing in /no such dir");

    const std::string notStreaming =
        "zorv_a2x_create: meta lacks causal window/left (not a streaming a2x)";
    EXPECT_EQ(meta(""), notStreaming);
    EXPECT_EQ(meta(R"({"h": 16, "left": 8})"), notStreaming);
    EXPECT_EQ(meta(R"({"h": 0, "window": 0, "left": -1})"), notStreaming);
    EXPECT_EQ(meta(R"({"h": 16, "window": 0, "left": 8, "maxlen": 10})"), "opened");
    EXPECT_EQ(meta(R"({"h": 0, "window": 0, "left": 8})"),
              "zorv_a2x_create: a2x_meta.json: h must be at least 1");
    EXPECT_EQ(meta(R"({"h": 16, "window": 0, "left": 8, "layers": -1})"),
              "zorv_a2x_create: a2x_meta.json: layers must be at least 0");
    EXPECT_EQ(meta(R"({"h": 16, "window": 0, "left": 8, "maxlen": -1})"),
              "zorv_a2x_create: a2x_meta.json: maxlen must be at least 0");
    // Numbers that only a damaged file holds.
    EXPECT_EQ(meta(R"({"h": 16, "window": 2147483647, "left": 2147483647, "layers": 2147483647,
                       "maxlen": 10})"),
              "opened");

    const std::string tables = "zorv_a2x_create: pos/norm/xs_target read failed";
    EXPECT_EQ(meta(R"({"h": 16, "window": 0, "left": 8})"), tables) << "400 rows of 1200";
    EXPECT_EQ(meta(R"({"h": 2147483647, "window": 0, "left": 8, "maxlen": 2147483647})"), tables);
    EXPECT_EQ(table("a2x_pos.f32", 400 * 16 - 1), tables);
    EXPECT_EQ(table("a2x_norm.f32", 125), tables);
    EXPECT_EQ(table("a2x_norm.f32", 126), "opened");
    EXPECT_EQ(table("xs_target.bin", 62), tables);
    EXPECT_EQ(table("xs_target.bin", 100), "opened");
    for (const char* name : {"a2x_pos.f32", "a2x_norm.f32", "xs_target.bin"}) {
        EXPECT_EQ(missing(name), tables);
    }
    for (const char* name : {"a2x_enc_stream.onnx", "a2x_dec.onnx"}) {
        EXPECT_TRUE(missing(name).starts_with("zorv_a2x_create: Load model from ")) << name;
    }
    const ExpressionDir odd;
    odd.writeTable("xs_target.bin", std::vector<float>(100));
    EXPECT_EQ(zorv_a2x_nt(open(odd).get()), 1) << "floats of a started row do not count";
}

// TSan cannot follow the locks of the model runtime's own threads: not for it.
TEST_F(A2xTest, TheModelRuntimeGetsTheThreadsThatWereAskedFor) {
    const ExpressionDir dir;
    const A2xPtr first = open(dir);  // the encoder's threads are there
    const auto tasks = [] {
        const std::filesystem::directory_iterator all("/proc/self/task");
        return std::distance(begin(all), end(all));
    };
    const auto added = [&](int threads, const char* setting) {
        const ScopedEnv env("ZORV_A2X_THREADS", setting);
        const auto before = tasks();
        const A2xPtr engine(zorv_a2x_create(dir.path().c_str(), threads), &zorv_a2x_destroy);
        return tasks() - before;  // two sessions, each with the caller's thread and others
    };
    EXPECT_EQ(added(0, nullptr), 0);
    EXPECT_EQ(added(4, nullptr), 6);
    EXPECT_EQ(added(8, nullptr), 6);
    EXPECT_EQ(added(8, "2"), 2);
    EXPECT_EQ(added(8, "-1"), 0);
}

TEST_F(A2xTest, EnginesOnSeveralThreadsGiveTheSingleThreadResult) {
    const ExpressionDir dir({.silencePrime = 4});
    const std::vector<float> audio = speechLike(640 * 130);
    for (const bool shortWindow : {false, true}) {
        const A2xPtr single = open(dir, 12, shortWindow);
        const std::vector<Frame> expected = wholeStream(single.get(), audio);
        ASSERT_EQ(expected.size(), 130u);
        const ScopedEnv win("ZORV_A2X_W2V_WIN", shortWindow ? "1" : nullptr);
        std::vector<std::vector<Frame>> results(3);
        std::vector<std::thread> threads;
        for (auto& result : results) {
            threads.emplace_back([&] {
                const A2xPtr engine(zorv_a2x_create(dir.path().c_str(), 1), &zorv_a2x_destroy);
                for (int i = 0; i < 2 && engine; ++i) result = wholeStream(engine.get(), audio);
            });
        }
        for (std::thread& thread : threads) thread.join();
        for (const auto& result : results) EXPECT_EQ(result, expected);
    }
}

}  // namespace
}  // namespace zorv
