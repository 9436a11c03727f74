// What contexts of one process share: the same bundle's frames are decoded once and equal models
// opened once, whichever thread asks, what changes on disk is another one, and the last user frees
// what was shared.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "capi/zorv_ctx.h"
#include "render/renderer_model.h"
#include "support/failure.h"
#include "support/kernels.h"
#include "support/scoped_env.h"
#include "support/test_bundle.h"

namespace zorv {
namespace {

constexpr int kThreads = 8;

void onThreads(const std::function<void(int)>& work) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
    for (std::thread& thread : threads) thread.join();
}

class SharedFrames : public testing::Test {
  protected:
    SharedFrames() { bundle.useModel("render", "render"); }
    std::unique_ptr<zorv_ctx> open() const {
        return std::make_unique<zorv_ctx>(bundle.dir(), "render", 1, "");
    }
    /// Frame i in one form or the other, with and without a face.
    std::vector<std::uint8_t> frame(zorv_ctx& ctx, int i, int kind) const {
        const PixelForm form = kind % 2 ? PixelForm::kI420 : PixelForm::kRgba;
        std::vector<std::uint8_t> bytes(ctx.frameBytes(form));
        ctx.compose(i, kind / 2 ? face.data() : nullptr, form, YuvMatrix::kBt709,
                    ctx.packed(form, bytes.data()));
        return bytes;
    }
    std::vector<float> crop(Renderer& renderer, int i) const {
        const std::vector<float> keypoints = bundle.baseKeypoints(1);
        const float* rgb = renderer.render(&i, keypoints.data(), keypoints.data(), 1);
        return {rgb, rgb + face.size()};
    }
    /// By another file, so that the outcome does not hang on the clock of the file system.
    void replace(const std::string& name, const std::string& content) const {
        test::writeFile(bundle.path("new"), content);
        std::filesystem::rename(bundle.path("new"), bundle.path(name));
    }

    test::TestBundle bundle;
    const std::vector<float> face =
        std::vector<float>(3 * test::kTestCrop * test::kTestCrop, 0.75f);
};

TEST_F(SharedFrames, ABundleThatChangesOnDiskIsAnotherOne) {
    auto first = open(), second = open();
    EXPECT_EQ(first->target(0), second->target(0));
    const auto before = frame(*first, 0, 3);
    for (const char* name : {"target_frames/frame_000000.jpg", "mask_512.u8", "M.f32"}) {
        replace(name, test::readFile(bundle.path(name)));
        const auto third = open();
        EXPECT_NE(third->targets, first->targets) << name;
        EXPECT_EQ(third->targets, open()->targets) << name;
    }
    replace("target_frames/frame_000000.jpg",
            test::readFile(bundle.path("target_frames/frame_000001.jpg")));
    EXPECT_NE(frame(*open(), 0, 3), before);
    EXPECT_EQ(frame(*second, 0, 3), before);

    // What was read while the files changed belongs to neither state.
    const TargetFrames::State state = TargetFrames::stateOf(bundle.dir());
    const auto now = TargetFrames::of(second->manifest, state);
    EXPECT_EQ(TargetFrames::of(second->manifest, state), now);
    replace("manifest.json", test::readFile(bundle.path("manifest.json")));
    EXPECT_NE(TargetFrames::of(second->manifest, state), now);

    const std::weak_ptr<TargetFrames> shared = first->targets;
    first.reset();
    EXPECT_FALSE(shared.expired());
    second.reset();
    EXPECT_TRUE(shared.expired());
}

TEST_F(SharedFrames, ContextsComeAndGoOnEightThreads) {
    std::vector<std::vector<std::uint8_t>> expected;
    std::vector<std::vector<float>> crops;
    const int frames = bundle.options().nt;
    {
        const auto ctx = open();
        for (int i = 0; i < frames; ++i) crops.push_back(crop(*ctx->renderer, i));
        for (int i = 0; i < 4 * frames; ++i)
            expected.push_back(frame(*ctx, i % frames, i / frames));
    }
    std::barrier start(kThreads);
    onThreads([&](int thread) {
        for (int round = 0; round < 4; ++round) {
            start.arrive_and_wait();  // all at once, after the last one of the round before is gone
            const auto ctx = open();
            for (int i = 0; i < 4 * frames; ++i) {
                const int at = (i + thread) % (4 * frames);
                EXPECT_TRUE(test::same(frame(*ctx, at % frames, at / frames),
                                       expected[static_cast<std::size_t>(at)]))
                    << "frame " << at % frames << " kind " << at / frames;
                EXPECT_EQ(crop(*ctx->renderer, at % frames),
                          crops[static_cast<std::size_t>(at % frames)]);
            }
        }
    });
}

TEST_F(SharedFrames, EqualModelsAreOneUntilFileThreadsOrASwitchDiffer) {
    const std::string path = bundle.path("model_render.onnx");
    const auto model = [](const std::string& file, int threads = 1) {
        return openRendererModel(file, "render", threads, {});
    };
    auto first = model(path);
    EXPECT_EQ(model(path), first);
    EXPECT_EQ(model(bundle.dir() + "/drive/../model_render.onnx"), first);
    EXPECT_NE(model(path, 2), first);
    for (const auto& [name, value] : {std::pair{"ZORV_GS_FAST", "0"},
                                      {"ZORV_INT8", "0"},
                                      {"ZORV_INT8_FOLD", "0"},
                                      {"ZORV_RESIZE_FAST", "0"},
                                      {"ZORV_ORT_SPIN", "1"},
                                      {"ZORV_KLEIDIAI", "1"},
                                      {"ZORV_SHARE", "0"}}) {
        const test::ScopedEnv env(name, value);
        EXPECT_NE(model(path), first) << name;
    }
    const std::string good = test::readFile(path);
    replace("model_render.onnx", good.substr(0, good.size() / 2));
    EXPECT_NE(test::failure([&] { model(path); }), "no failure");
    replace("model_render.onnx", good);
    EXPECT_NE(model(path), first);

    const std::weak_ptr<const Model> freed = first;
    first.reset();
    EXPECT_TRUE(freed.expired());
}

TEST_F(SharedFrames, AStopOfOneRendererIsNotSeenByAnotherOfTheSameModel) {
    const auto stopped = open(), other = open();
    const auto expected = crop(*other->renderer, 1);
    std::atomic<bool> done{false};
    std::thread renders([&] {
        while (!done) EXPECT_EQ(crop(*other->renderer, 1), expected);
    });
    for (int i = 0; i < 50; ++i) {
        stopped->renderer->stop();
        EXPECT_NE(test::failure([&] { crop(*stopped->renderer, 1); }), "no failure");
        stopped->renderer->rearm();
        EXPECT_EQ(crop(*stopped->renderer, 1), expected);
    }
    done = true;
    renders.join();
}

}  // namespace
}  // namespace zorv
