// The way onto a CUDA device, with the runtime's CUDA functions replaced: no device is needed to
// see what is asked of it.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "a2x/a2x_provider.h"
#include "common/ort.h"
#include "support/failure.h"
#include "support/scoped_env.h"
#include "support/test_bundle.h"

namespace zorv::a2x {
namespace {

using test::modelFile;
using test::ScopedEnv;

/// A runtime with a CUDA provider that accepts everything and a session that may refuse.
class FakeCuda {
  public:
    FakeCuda() : real_(Ort::Global<void>::api_), api_(*real_) {
        self = this;
        api_.CreateCUDAProviderOptions =
            [](OrtCUDAProviderOptionsV2** out) noexcept -> OrtStatusPtr {
            *out = reinterpret_cast<OrtCUDAProviderOptionsV2*>(self);
            ++self->alive;
            return nullptr;
        };
        api_.ReleaseCUDAProviderOptions = [](OrtCUDAProviderOptionsV2*) { --self->alive; };
        api_.UpdateCUDAProviderOptions = [](OrtCUDAProviderOptionsV2*, const char* const* keys,
                                            const char* const* values, std::size_t n) noexcept {
            for (std::size_t i = 0; i < n; ++i) self->settings.emplace_back(keys[i], values[i]);
            return static_cast<OrtStatusPtr>(nullptr);
        };
        api_.SessionOptionsAppendExecutionProvider_CUDA_V2 =
            [](OrtSessionOptions* options, const OrtCUDAProviderOptionsV2*) noexcept {
                self->placed = options;
                return static_cast<OrtStatusPtr>(nullptr);
            };
        api_.CreateSession = [](const OrtEnv* env, const char* path,
                                const OrtSessionOptions* options,
                                OrtSession** out) noexcept -> OrtStatusPtr {
            const bool there = options == self->placed;
            ++(there ? self->onDevice : self->onCpu);
            if (there && self->refuses) {
                return self->real_->CreateStatus(ORT_FAIL, "no\ndevice\n");
            }
            return self->real_->CreateSession(env, path, options, out);
        };
        Ort::Global<void>::api_ = &api_;
    }
    ~FakeCuda() { Ort::Global<void>::api_ = real_; }

    std::vector<std::pair<std::string, std::string>> settings;
    const OrtSessionOptions* placed = nullptr;
    bool refuses = false;
    int onDevice = 0, onCpu = 0, alive = 0;

  private:
    static inline FakeCuda* self = nullptr;
    const OrtApi* real_;
    OrtApi api_;
};

std::string standardError(auto&& body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

TEST(A2xProvider, AsksTheDeviceForExactlyFourThings) {
    FakeCuda cuda;
    const ScopedEnv on("ZORV_A2X_CUDA", "1"), limit("ZORV_A2X_CUDA_MEM_MIB", "512");
    Ort::SessionOptions options;
    EXPECT_EQ(standardError([&] { EXPECT_TRUE(zorv_a2x_maybe_cuda(options, "w2v")); }),
              "[zorv_a2x] CUDA EP appended (w2v, V2: no-max-workspace, mem<=512MiB)\n");
    const decltype(cuda.settings) expected = {{"device_id", "0"},
                                              {"arena_extend_strategy", "kSameAsRequested"},
                                              {"gpu_mem_limit", "536870912"},
                                              {"cudnn_conv_use_max_workspace", "0"}};
    EXPECT_EQ(cuda.settings, expected);
    EXPECT_EQ(cuda.placed, static_cast<OrtSessionOptions*>(options));
    EXPECT_EQ(cuda.alive, 0);

    // Only the speech encoder goes there unless all are asked to.
    EXPECT_EQ(standardError([&] { EXPECT_FALSE(zorv_a2x_maybe_cuda(options, "enc/dec")); }), "");
    const ScopedEnv all("ZORV_A2X_CUDA_ALL", "1"), standard("ZORV_A2X_CUDA_MEM_MIB", "0");
    EXPECT_EQ(standardError([&] { EXPECT_TRUE(zorv_a2x_maybe_cuda(options, "enc/dec")); }),
              "[zorv_a2x] CUDA EP appended (enc/dec, V2: no-max-workspace, mem<=3072MiB)\n");
}

TEST(A2xProvider, ADeviceThatRefusesASessionIsGivenUpForTheCpu) {
    FakeCuda cuda;
    const ScopedEnv on("ZORV_A2X_CUDA", "1");
    testing::internal::CaptureStderr();
    ProviderChoice provider(1, "w2v");
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(provider.open(modelFile("a2x_dec")));
    EXPECT_EQ(cuda.onDevice, 1);
    cuda.refuses = true;
    EXPECT_EQ(standardError([&] { EXPECT_TRUE(provider.open(modelFile("a2x_dec"))); }),
              "[zorv_a2x] CUDA EP append failed (w2v): no device -- falling back to CPU\n");
    EXPECT_EQ(standardError([&] { EXPECT_TRUE(provider.open(modelFile("a2x_dec"))); }), "");
    EXPECT_EQ(cuda.onDevice, 2);
    EXPECT_EQ(cuda.onCpu, 2);
    EXPECT_TRUE(test::failure([&] {
                    provider.open("/no such file");
                }).starts_with("Load model from /no such file"));
}

TEST(A2xProvider, MemoryLimitsAreWholeMiBAndHaveADefault) {
    const std::size_t standard = std::size_t{3072} << 20;
    for (const char* none : {"0", "-5", "", "x"}) EXPECT_EQ(cudaMemoryLimit(none), standard);
    EXPECT_EQ(cudaMemoryLimit(nullptr), standard);
    EXPECT_EQ(cudaMemoryLimit("512"), std::size_t{512} << 20);
    EXPECT_EQ(cudaMemoryLimit("99999999999999999"), SIZE_MAX >> 20 << 20) << "saturates";
}

}  // namespace
}  // namespace zorv::a2x
