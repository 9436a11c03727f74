#include <gtest/gtest.h>
#include <zorv_core.hpp>

#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "stream/target_walk.h"
#include "support/audio.h"
#include "support/test_bundle.h"
#include "support/threads.h"

namespace zorv {
namespace {

using test::modelFile;
using test::speechLike;
using test::TestBundle;
using test::waitUntilOthersSleep;

using Frames = std::vector<std::vector<std::uint8_t>>;

StreamPtr openStream(const TestBundle& bundle, int skip = 0, float gain = 1) {
    return StreamPtr(
        zorv_stream_create(bundle.dir().c_str(), modelFile("encoder").c_str(), 1, skip, gain));
}

/// Collects what a run delivers and checks the callback's contract.
struct Collector {
    int width = 48;
    int height = 40;
    Frames frames{};
    std::function<void(int)> during = [](int) {};

    static int onFrame(void* user, int index, const std::uint8_t* rgb, int W, int H) {
        auto& self = *static_cast<Collector*>(user);
        EXPECT_EQ(std::this_thread::get_id(), self.caller) << "delivered on another thread";
        EXPECT_EQ(index, static_cast<int>(self.frames.size()));
        EXPECT_EQ(W, self.width);
        EXPECT_EQ(H, self.height);
        self.during(index);
        self.frames.emplace_back(rgb, rgb + W * H * 3);
        return 1;  // ignored
    }

    int run(zorv_stream* stream, const std::vector<float>& audio) {
        caller = std::this_thread::get_id();
        frames.clear();
        return zorv_stream_run(stream, audio.data(), static_cast<int>(audio.size()), onFrame, this);
    }

    std::thread::id caller{};
};

/// The same video, one step after the other on one thread.
Frames sequentialFrames(const TestBundle& bundle, const std::vector<float>& audio, int skip,
                        float gain, const std::vector<int>& targets) {
    const ContextPtr ctx(zorv_create(bundle.dir().c_str(), "render", 1, nullptr));
    const DeltaPtr fca(
        zorv_fca_create(modelFile("encoder").c_str(), bundle.path("fca_stream.onnx").c_str(), 1));
    const int count = static_cast<int>(targets.size());
    std::vector<float> offsets(targets.size() * 63);
    EXPECT_EQ(zorv_fca_deltas(fca.get(), audio.data(), static_cast<int>(audio.size()),
                              offsets.data(), count),
              count);
    Frames frames;
    for (int k = skip; k < count; ++k) {
        const std::vector<float> base = bundle.baseKeypoints(targets[k]);
        std::vector<float> driving(63);
        for (int i = 0; i < 63; ++i) driving[i] = gain * offsets[k * 63 + i] + base[i];
        const float* crop = zorv_render_kp_crop(ctx.get(), targets[k], base.data(), driving.data());
        EXPECT_TRUE(crop) << zorv_last_error();
        auto& frame = frames.emplace_back(bundle.options().width * bundle.options().height * 3);
        EXPECT_TRUE(zorv_paste_crop(ctx.get(), targets[k], crop, frame.data(), frame.size()))
            << zorv_last_error();
    }
    return frames;
}

std::vector<int> walk(int nt, int steps) {
    std::vector<int> visited;
    for (TargetWalk at(nt); steps > 0; --steps, at.advance()) visited.push_back(at.current());
    return visited;
}

/// Replaces row `row` of the base keypoints by values that `render_fails` cannot render.
void breakBaseRow(const TestBundle& bundle, int row) {
    std::string rows = test::readFile(bundle.path("xs_target.bin"));
    const float outside = 150;
    std::memcpy(rows.data() + row * 63 * sizeof(float), &outside, sizeof outside);
    test::writeFile(bundle.path("xs_target.bin"), rows);
}

TEST(Stream, FramesEqualThoseOfOneStepAfterTheOther) {
    for (const int nt : {2, 3}) {
        TestBundle bundle({.nt = nt});
        const std::vector<float> audio = speechLike(640 * 13 - 1);
        const Frames expected = sequentialFrames(bundle, audio, 2, 0.7f, walk(nt, 13));
        const StreamPtr stream = openStream(bundle, 2, 0.7f);
        ASSERT_TRUE(stream) << zorv_stream_last_error();
        EXPECT_EQ(zorv_stream_width(stream.get()), 48);
        EXPECT_EQ(zorv_stream_height(stream.get()), 40);
        Collector collector;
        for (int repeat = 0; repeat < 2; ++repeat) {  // runs are independent of each other
            EXPECT_EQ(collector.run(stream.get(), audio), 11) << zorv_stream_last_error();
            EXPECT_EQ(collector.frames, expected);
        }
        EXPECT_NE(expected[0], expected[2 * nt - 2]) << "the audio moves nothing";
        const int n = static_cast<int>(audio.size());
        EXPECT_EQ(zorv_stream_run(stream.get(), audio.data(), n, nullptr, nullptr), 11);
    }
}

TEST(Stream, ClipsThatYieldNoFrame) {
    TestBundle bundle;
    const std::vector<float> audio = speechLike(641);
    for (const auto& [skip, n, frames] : {std::tuple{0, 0, 0},
                                          {0, -5, 0},
                                          {0, INT32_MIN, 0},
                                          {2, 641, 0},
                                          {INT32_MAX, 641, 0},
                                          {1, 641, 1},
                                          {0, 641, 2},
                                          {-3, 641, 2},
                                          {INT32_MIN, 640, 1}}) {
        const StreamPtr stream = openStream(bundle, skip);
        Collector collector;
        EXPECT_EQ(collector.run(stream.get(), {}), 0);
        collector.frames.clear();
        EXPECT_EQ(zorv_stream_run(stream.get(), audio.data(), n, Collector::onFrame, &collector),
                  frames)
            << "skip " << skip << " samples " << n;
        EXPECT_EQ(collector.frames.size(), static_cast<std::size_t>(frames));
    }
}

TEST(Stream, FailureInTheMiddleDeliversWhatCameBefore) {
    TestBundle bundle({.nt = 8});
    bundle.useModel("render", "render_fails");
    breakBaseRow(bundle, 5);
    const StreamPtr stream = openStream(bundle);
    ASSERT_TRUE(stream) << zorv_stream_last_error();
    for (const bool slow : {false, true}) {  // slow: the failure comes while crops wait
        Collector collector;
        collector.during = [&](int) {
            if (slow) waitUntilOthersSleep();
        };
        EXPECT_EQ(collector.run(stream.get(), speechLike(640 * 30)), -1);
        EXPECT_STREQ(zorv_stream_last_error(), "zorv_stream_run: render/paste failed");
        EXPECT_TRUE(std::string(zorv_last_error()).starts_with("zorv_render_kp_crop: Non-zero"))
            << "the worker's text: " << zorv_last_error();
        EXPECT_EQ(collector.frames.size(), 5u);
        EXPECT_EQ(collector.run(stream.get(), speechLike(640 * 5)), 5)
            << "unusable after a failure";
    }
}

TEST(Stream, OneTargetFrameLastsForOneFrame) {
    TestBundle bundle({.nt = 1});
    const StreamPtr stream = openStream(bundle);
    ASSERT_TRUE(stream) << zorv_stream_last_error();
    Collector collector;
    EXPECT_EQ(collector.run(stream.get(), speechLike(640)), 1);
    EXPECT_EQ(collector.run(stream.get(), speechLike(641)), -1);
    EXPECT_STREQ(zorv_stream_last_error(), "zorv_stream_run: render/paste failed");
    EXPECT_EQ(collector.frames.size(), 1u);
}

TEST(Stream, ExceptionsOfTheCallbackTravelOnAfterTheWorkerHasEnded) {
    TestBundle bundle;
    const StreamPtr stream = openStream(bundle);
    ASSERT_TRUE(stream) << zorv_stream_last_error();
    const std::vector<float> audio = speechLike(640 * 30);
    Collector collector;
    collector.during = [](int index) {
        if (index < 3) return;
        waitUntilOthersSleep();  // the worker waits for room
        throw std::runtime_error("disk full");
    };
    EXPECT_EQ(collector.run(stream.get(), audio), -1);
    EXPECT_STREQ(zorv_stream_last_error(), "zorv_stream_run: disk full");
    EXPECT_EQ(collector.frames.size(), 3u);

    collector.during = [](int index) {
        if (index == 3) throw 42;
    };
    EXPECT_THROW(collector.run(stream.get(), audio), int);
    EXPECT_EQ(collector.frames.size(), 3u);

    collector.during = [](int) {};
    EXPECT_EQ(collector.run(stream.get(), audio), 30);
    EXPECT_STREQ(zorv_stream_last_error(), "");
}

TEST(Stream, ACancelledRunEndsWithATextAndTheNextIsWhole) {
    const TestBundle bundle;
    const StreamPtr stream = openStream(bundle);
    ASSERT_TRUE(stream) << zorv_stream_last_error();
    const std::vector<float> audio = speechLike(640 * 400);
    Collector collector;
    const auto isCancelled = [&] {
        return collector.run(stream.get(), audio) == -1 &&
               std::string(zorv_stream_last_error()) == "zorv_stream_run: cancelled";
    };
    for (const int at : {0, 3, 399}) {  // from the callback: no further frame
        collector.during = [&](int k) {
            if (k == at) zorv_stream_cancel(stream.get());
        };
        EXPECT_TRUE(isCancelled());
        EXPECT_EQ(static_cast<int>(collector.frames.size()), at + 1);
    }
    collector.during = [](int) {};
    zorv_stream_cancel(stream.get());  // before the run, and as it goes, its encoder included
    EXPECT_TRUE(isCancelled() && collector.frames.empty());
    EXPECT_EQ(collector.run(stream.get(), audio), 400);
    for (bool ended = false; !ended;) {
        std::thread other([&] {
            std::this_thread::yield();
            zorv_stream_cancel(stream.get());
        });
        ended = isCancelled() && collector.frames.size() < 400;
        other.join();
        if (!ended) collector.run(stream.get(), {});  // too late for that one
    }
    zorv_stream_cancel(nullptr);
}

}  // namespace
}  // namespace zorv
