// The expression engine's stream and clip against the plain reference, call by call.
#include <gtest/gtest.h>
#include <zorv_core.h>

#include <memory>
#include <numeric>
#include <random>
#include <thread>

#include "a2x/zorv_a2x.h"
#include "a2x_reference.h"
#include "support/audio.h"
#include "support/scoped_env.h"

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

}  // namespace
}  // namespace zorv
