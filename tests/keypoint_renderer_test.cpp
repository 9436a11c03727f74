// From an audio engine's keypoints to the frames of `zorv render`, with an engine of the test's
// own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "failure.h"
#include "keypoint_engine.h"
#include "support/test_bundle.h"
#include "zorv_core.h"

namespace zorv::tools {
namespace {

constexpr int kHeldBack = 3;  // frames that come only after the end, as from a real engine

/// Stands for a handle of the library: frame k shows target frame k % nt.
struct Fake {
    int nt = 3;
    int samples = 0, pulled = 0, calls = 0;
    bool finished = false, started = false;
    int lastFrame = 1 << 20;  ///< frames stop here with an error
    std::string error;

    int ready() const {
        const int frames = finished ? (samples + 639) / 640 : samples / 640 - kHeldBack;
        return std::max(0, std::min(frames, lastFrame) - pulled);
    }
};

int targetOf(int k, int nt) {
    return k % nt;
}
float sourceAt(int k, int j) {
    return 0.01f * static_cast<float>(k) - 0.02f * static_cast<float>(j);
}
float offsetAt(int k, int j) {
    return 0.5f * std::sin(static_cast<float>(k * 63 + j));
}

struct FakeFamily {
    using Handle = Fake;
    static void destroy(Fake*) {}
    static int nt(const Fake* fake) { return fake->nt; }
    static int push(Fake* fake, const float*, int n) {
        fake->samples += n;
        return 1;
    }
    static void finish(Fake* fake) { fake->finished = true; }
    static int avail(Fake* fake) {
        if (fake->finished && fake->pulled == fake->lastFrame) fake->error = "no more ink";
        return fake->ready();
    }
    static int pull(Fake* fake, int* idx, float* xs, float* xd, int max) {
        const int count = std::min(max, fake->ready());
        for (int i = 0; i < count; ++i, ++fake->pulled) {
            idx[i] = targetOf(fake->pulled, fake->nt);
            for (int j = 0; j < 63; ++j, ++xs, ++xd) {
                *xs = sourceAt(fake->pulled, j);
                *xd = *xs + offsetAt(fake->pulled, j);
            }
        }
        fake->calls += count > 0;
        return count;
    }
    static void reset(Fake* fake, int start, int direction, int loop) {
        fake->started = start == 0 && direction == 1 && loop == 0;
    }
    static const char* lastError() { return current->error.c_str(); }

    static inline Fake* current = nullptr;
};

class KeypointRenderer : public testing::Test {
  protected:
    void SetUp() override { FakeFamily::current = &fake_; }

    std::unique_ptr<ClipRenderer> open(int skip = 0, float gain = 1.0f) {
        RenderOptions options;
        options.bundle = bundle_.dir();
        options.motionDir = "their/models";
        options.threads = 1;
        options.skipFrames = skip;
        options.gain = gain;
        return openKeypointRenderer(options, std::make_unique<FamilyEngine<FakeFamily>>(&fake_));
    }

    size_t frameBytes() const {
        return static_cast<size_t>(bundle_.options().width * bundle_.options().height * 3);
    }

    /// Frame k as the library renders it when nobody is in between.
    std::vector<uint8_t> expected(zorv_ctx* ctx, int k, float gain) const {
        float source[63], driving[63];
        for (int j = 0; j < 63; ++j) {
            source[j] = sourceAt(k, j);
            const float moved = source[j] + offsetAt(k, j);
            driving[j] = source[j] + gain * (moved - source[j]);
        }
        const int target = targetOf(k, fake_.nt);
        EXPECT_TRUE(zorv_render_kp_crop(ctx, target, source, driving)) << zorv_last_error();
        const uint8_t* rgb = zorv_paste_last(ctx, target);
        return {rgb, rgb + frameBytes()};
    }

    test::TestBundle bundle_;
    Fake fake_;
};

TEST_F(KeypointRenderer, RendersEveryFrameInOrder) {
    const std::vector<float> samples(70 * 640 + 1);
    for (const auto& [skip, gain] : {std::pair{0, 1.0f}, {2, 0.5f}, {70, -1.0f}}) {
        fake_ = {};
        const auto renderer = open(skip, gain);
        EXPECT_TRUE(fake_.started);
        EXPECT_EQ(renderer->width(), bundle_.options().width);
        EXPECT_EQ(renderer->height(), bundle_.options().height);
        zorv_ctx* plain = zorv_create(bundle_.dir().c_str(), "render", 1, nullptr);
        int k = skip;
        const int made = renderer->run(samples, [&](const uint8_t* rgb) {
            EXPECT_EQ(std::vector<uint8_t>(rgb, rgb + frameBytes()), expected(plain, k, gain)) << k;
            ++k;
        });
        zorv_destroy(plain);
        EXPECT_EQ(made, 71 - skip);
        EXPECT_EQ(k, 71);
        // Half a second at a time, so frames are fetched while speech still comes.
        EXPECT_GE(fake_.calls, 4);
    }
}

TEST_F(KeypointRenderer, SaysWhatStoppedIt) {
    const std::vector<float> samples(40 * 640);
    int frames = 0;
    const auto count = [&](const uint8_t*) { ++frames; };

    fake_.lastFrame = 30;
    auto renderer = open();
    EXPECT_EQ(renderer->run(samples, count), 30);
    EXPECT_EQ(frames, 30);
    EXPECT_EQ(renderer->error(), "no more ink");

    fake_ = {};
    bundle_.remove("target_frames/frame_000002.jpg");
    renderer = open();
    EXPECT_EQ(renderer->run(samples, count), 2);
    EXPECT_NE(renderer->error().find("frame_000002.jpg"), std::string::npos) << renderer->error();

    fake_ = {};
    renderer = open();
    EXPECT_THROW(renderer->run(samples, [](const uint8_t*) { throw Interrupted(); }), Interrupted);

    fake_ = {};
    fake_.nt = 5;
    try {
        open();
        ADD_FAILURE() << "opened";
    } catch (const Failure& failure) {
        EXPECT_NE(std::string(failure.what())
                      .find("'their/models' is for a subject of 5 target "
                            "frames"),
                  std::string::npos)
            << failure.what();
    }
}

}  // namespace
}  // namespace zorv::tools
