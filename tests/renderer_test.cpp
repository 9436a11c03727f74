// The renderer session: input layouts, batches, providers, the native backend's gate.
#include "render/zorv_renderer.h"

#include <gtest/gtest.h>

#include "render/conv_backend.h"
#include "render/renderer_model.h"
#include "support/failure.h"
#include "support/scoped_env.h"
#include "support/test_bundle.h"

namespace zorv {
namespace {

using test::failure;
using test::ScopedEnv;
using test::TestBundle;

constexpr int kFloats = static_cast<int>(kKeypointFloats);

/// A bundle with all inputs that a renderer may want, and the formula of the test models.
class RendererTest : public testing::Test {
  protected:
    RendererTest() : bundle(options()), manifest(loadManifest(bundle.dir())), identity(manifest) {
        for (int i = 0; i < 4 * kFloats; ++i) {
            source.push_back(0.01f * static_cast<float>(i % 17));
            driving.push_back(0.02f * static_cast<float>(i % 23));
        }
    }

    static TestBundle::Options options() {
        TestBundle::Options o;
        o.withFsRed = true;
        return o;
    }

    std::string openFailure(const std::string& model, const std::string& ep = "") {
        bundle.useModel("x", model);
        return failure([&] { Renderer(manifest, identity, "x", 1, ep); });
    }

    static float widen(std::uint16_t half) {
        float value = 0;
        kernels::halfToFloatPortable(&half, &value, 1);
        return value;
    }

    /// rgb[channel][y][x] of one item by the models' formula.
    double expected(bool featSynth, int frame, std::size_t item, int channel, int y, int x) const {
        double mean = 0;
        for (int i = 0; i < 65536; ++i) mean += widen(identity.pooled64(frame)[i]);
        mean /= 65536;
        double motion = 0;
        for (int i = 0; i < kFloats; ++i) {
            const std::size_t at = item * kKeypointFloats + static_cast<std::size_t>(i);
            motion += double{driving[at]} * (1 + i) / 10000 - double{source[at]} * (64 - i) / 20000;
        }
        const int side = test::kTestCrop;
        const float image = featSynth ? widen(identity.fsRed(frame)[(channel * 64 + y) * 64 + x])
                                      : widen(identity.P(frame)[(channel * side + y) * side + x]);
        return image / 2.0 + mean / 4 + motion;
    }

    TestBundle bundle;
    Manifest manifest;
    Identity identity;
    std::vector<float> source, driving;
};

TEST_F(RendererTest, BothGraphsTakeEveryInputFromItsPlace) {
    for (const bool featSynth : {false, true}) {
        bundle.useModel("x", featSynth ? "feat_synth" : "render");
        Renderer renderer(manifest, identity, "x", 1, "");
        ASSERT_EQ(renderer.batch(), 1);
        const std::int32_t frame = 2;
        const float* rgb = renderer.render(&frame, source.data(), driving.data(), 1);
        const int side = test::kTestCrop;
        for (const int channel : {0, 1, 2}) {
            EXPECT_NEAR(rgb[(channel * side + 3) * side + 5],
                        expected(featSynth, frame, 0, channel, 3, 5), 1e-5);
        }
    }
}

TEST_F(RendererTest, FreeSlotsRepeatTheLastItem) {
    const std::size_t item = 3 * std::size_t{test::kTestCrop} * test::kTestCrop;
    for (const bool featSynth : {false, true}) {
        bundle.useModel("x", featSynth ? "feat_synth_b4" : "render_b4");
        Renderer renderer(manifest, identity, "x", 2, "");
        ASSERT_EQ(renderer.batch(), 4);
        const std::int32_t frames[] = {2, 0, 1, 2};
        for (std::int32_t n = 4; n >= 1; --n) {  // fewer each time: stale slots would show
            const float* rgb = renderer.render(frames, source.data(), driving.data(), n);
            for (std::size_t slot = 0; slot < 4; ++slot) {
                const std::size_t real = std::min(slot, static_cast<std::size_t>(n - 1));
                EXPECT_NEAR(rgb[slot * item], expected(featSynth, frames[real], real, 0, 0, 0),
                            1e-5)
                    << "n " << n << " slot " << slot;
            }
        }
        EXPECT_EQ(failure([&] { renderer.render(frames, source.data(), driving.data(), 0); }),
                  "render: bad n");
        EXPECT_EQ(failure([&] { renderer.render(frames, source.data(), driving.data(), 5); }),
                  "render: bad n");
    }
}

TEST_F(RendererTest, ModelsThatDoNotFitAreRefused) {
    for (const char* model : {"render_symbolic_batch", "render_pooled_3d", "encoder"}) {
        EXPECT_EQ(openFailure(model), "pooled64 input not found / bad shape") << model;
    }
    EXPECT_EQ(openFailure("render", "cuda"), "Renderer: unknown ep 'cuda'");
    EXPECT_NE(openFailure("render", "xnnpack"), "no failure");  // not in this runtime's build
    for (const auto& [model, text] :
         {std::pair{
              "render_pooled_small",
              "input pooled64: wanted float32 [1, 64, 32, 32], found float32 [1, 64, 16, 32]"},
          {"render_flat_keypoints",
           "input kp_driving: wanted float32 [1, 21, 3], found float32 [1, 63]"},
          {"render_half_image",
           "input P_rgb: wanted float32 [1, 3, 16, 16], found float16 [1, 3, 16, 16]"},
          {"render_extra_input", "input gain: wanted no such input, found float32 [1]"},
          {"render_other_output",
           "output rgb: wanted float32 [1, 3, 16, 16], found none; the model has picture"}}) {
        EXPECT_EQ(openFailure(model), bundle.path("model_x.onnx") + ": " + text);
    }
    bundle.useModel("x", "render_open");
    const std::int32_t frame = 2;
    EXPECT_NEAR(Renderer(manifest, identity, "x", 1, "")
                    .render(&frame, source.data(), driving.data(), 1)[0],
                expected(false, frame, 0, 0, 0, 0), 1e-5);

    bundle.remove("fs_red.f16");
    bundle.useModel("x", "feat_synth");
    const Identity without(manifest);
    EXPECT_EQ(failure([&] { Renderer(manifest, without, "x", 1, ""); }),
              "FeatSynth graph but bundle lacks fs_red.f16");
    bundle.remove("P.f16");
    bundle.useModel("x", "render");
    const Identity withoutBoth(manifest);
    Renderer open(manifest, withoutBoth, "x", 1, "");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(failure([&] { open.render(&frame, source.data(), driving.data(), 1); }),
                  "standard graph but bundle lacks P.f16");
    }
}

TEST_F(RendererTest, NativeBackendIsRefusedOrThrows) {
    testing::internal::CaptureStderr();
    {
        const ScopedEnv env("ZORV_CONV_BACKEND", "neon");
        EXPECT_EQ(openFailure("render"), "no failure");
    }
    EXPECT_EQ(openFailure("render", "neon"), "no failure");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[zorv] ZORV_CONV_BACKEND=neon but fp16 NEON unavailable; using ORT\n"
              "[zorv] NEON backend refused: x is not the fused m4b graph (golden/unified "
              "director?); using ORT\n");

    // ModelProto.graph { initializer { name: "onnx::Conv_313" } }, by hand.
    const std::string fused = std::string("\x3a\x12\x2a\x10\x42\x0e") + "onnx::Conv_313";
    test::writeFile(bundle.path("model_x.onnx"), fused);
    EXPECT_TRUE(ConvBackend::graphSupported(bundle.path("model_x.onnx")));
    EXPECT_EQ(failure([&] { Renderer(manifest, identity, "x", 1, "neon"); }),
              "zorv_conv: only crop=512 m4b bundles");
    manifest.crop = 512;
    EXPECT_EQ(failure([&] { Renderer(manifest, identity, "x", 1, "neon"); }),
              "zorv_conv: built without NEON fp16 support");
    test::writeFile(bundle.path("model_x.onnx"), fused + "\x0b");
    EXPECT_FALSE(ConvBackend::graphSupported(bundle.path("model_x.onnx")));
}

TEST(ExecutionProvider, StringsAndTheirOptions) {
    const auto option = [](const char* ep, int threads, const char* name) {
        return parseExecutionProvider(ep, threads, "d").options.at(name);
    };
    for (const auto& [ep, given, threads] : {std::tuple{"xnnpack", 3, "3"},
                                             {"xnnpack", 0, "4"},
                                             {"xnnpack:0", 3, "4"},
                                             {"xnnpack:12", 3, "12"}}) {
        EXPECT_EQ(option(ep, given, "intra_op_num_threads"), threads) << ep;
    }
    for (const auto& [ep, units] : {std::pair{"coreml", "ALL"},
                                    {"coreml:cpu", "CPUOnly"},
                                    {"coreml:gpu", "CPUAndGPU"},
                                    {"coreml:ane", "CPUAndNeuralEngine"},
                                    {"coreml:ANE", "ALL"}}) {
        EXPECT_EQ(option(ep, 1, "MLComputeUnits"), units) << ep;
    }
    EXPECT_EQ(option("coreml", 1, "ModelCacheDirectory"), "d/.coreml_cache");
    EXPECT_EQ(parseExecutionProvider("", 1, "").name, "");
}

}  // namespace
}  // namespace zorv
