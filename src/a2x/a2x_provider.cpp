#include "a2x/a2x_provider.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "a2x/a2x_settings.h"
#include "common/error.h"
#include "common/log.h"
#include "common/model_registry.h"
#include "common/ort.h"

namespace zorv::a2x {
namespace {

constexpr std::size_t kMiB = 1048576;

Ort::SessionOptions cpuOptions(int threads) {
    Ort::SessionOptions options = makeSessionOptions(std::max(threads, 1));
    options.AddConfigEntry("session.intra_op.allow_spinning", "0");
    return options;
}

void appendCuda(Ort::SessionOptions& options, std::size_t memoryLimit) {
    const OrtApi& api = Ort::GetApi();
    OrtCUDAProviderOptionsV2* created = nullptr;
    Ort::ThrowOnError(api.CreateCUDAProviderOptions(&created));
    const std::unique_ptr<OrtCUDAProviderOptionsV2, decltype(api.ReleaseCUDAProviderOptions)>
        provider(created, api.ReleaseCUDAProviderOptions);

    const std::string limit = std::to_string(memoryLimit);
    const char* keys[] = {"device_id", "arena_extend_strategy", "gpu_mem_limit",
                          "cudnn_conv_use_max_workspace"};
    const char* values[] = {"0", "kSameAsRequested", limit.c_str(), "0"};
    Ort::ThrowOnError(api.UpdateCUDAProviderOptions(provider.get(), keys, values, 4));
    options.AppendExecutionProvider_CUDA_V2(*provider);
}

void sayRefused(const char* tag, const std::exception& error) {
    logLine("[zorv_a2x] CUDA EP append failed (%s): %s -- falling back to CPU", tag,
            oneLine(error.what()).c_str());
}

}  // namespace

std::size_t cudaMemoryLimit(const char* setting) {
    const long long mib = setting ? std::strtoll(setting, nullptr, 10) : 0;
    if (mib < 1) return 3072 * kMiB;
    constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max() / kMiB;
    return std::min(static_cast<std::size_t>(mib), kMost) * kMiB;
}

bool zorv_a2x_maybe_cuda(Ort::SessionOptions& options, const char* tag) {
    if (!isOne("ZORV_A2X_CUDA")) return false;
    if (std::strcmp(tag, "w2v") != 0 && !isOne("ZORV_A2X_CUDA_ALL")) return false;
    const std::size_t limit = cudaMemoryLimit(std::getenv("ZORV_A2X_CUDA_MEM_MIB"));
    try {
        appendCuda(options, limit);
    } catch (const std::exception& error) {
        sayRefused(tag, error);
        return false;
    }
    logLine("[zorv_a2x] CUDA EP appended (%s, V2: no-max-workspace, mem<=%zuMiB)", tag,
            limit / kMiB);
    return true;
}

ProviderChoice::ProviderChoice(int threads, const char* tag)
    : threads_(threads),
      tag_(tag),
      options_(std::make_unique<Ort::SessionOptions>(cpuOptions(threads))),
      onDevice_(zorv_a2x_maybe_cuda(*options_, tag)) {}

ProviderChoice::~ProviderChoice() = default;

std::shared_ptr<const Model> ProviderChoice::open(const std::string& path) {
    if (onDevice_) {
        // A provider can be appended without a device being there; only opening a session shows it.
        try {
            return openShared(path);
        } catch (const std::exception& error) {
            sayRefused(tag_, error);
            *options_ = cpuOptions(threads_);
            onDevice_ = false;
        }
    }
    return openShared(path);
}

std::shared_ptr<const Model> ProviderChoice::openShared(const std::string& path) {
    std::string recipe = "a2x " + std::to_string(std::max(threads_, 1));
    if (onDevice_) {
        recipe += " cuda " + std::to_string(cudaMemoryLimit(std::getenv("ZORV_A2X_CUDA_MEM_MIB")));
    }
    return sharedModel(path, recipe, [&] {
        Ort::Env env = makeOrtEnv("zorv_a2x");
        Ort::Session session(env, path.c_str(), *options_);
        return makeModel(path, std::move(env), std::move(session));
    });
}

}  // namespace zorv::a2x
