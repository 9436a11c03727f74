#include "stream/zorv_fca.h"

#include <zorv_core.h>

#include <algorithm>
#include <stdexcept>

#include "common/error.h"
#include "telemetry/telemetry.h"

namespace zorv {
namespace {

constexpr std::size_t kHidden = 384;
constexpr std::size_t kLayerFloats =
    std::size_t{delta::kLastLayer + 1} * delta::kWindowFrames * delta::kEmbeddingFloats;

}  // namespace

/// Inputs of the recurrent model; its outputs are copied back into prev and hidden.
struct DeltaModel::Recurrence {
    std::vector<float> context =
        std::vector<float>(std::size_t{delta::kContextFrames} * delta::kEmbeddingFloats);
    std::vector<float> prev = std::vector<float>(delta::kSetFloats);
    std::vector<float> hidden = std::vector<float>(kHidden);
    Ort::Value inputs[3] = {
        tensorOver(context.data(), context.size(), {1, static_cast<std::int64_t>(context.size())}),
        tensorOver(prev.data(), delta::kSetFloats, {1, delta::kSetFloats}),
        tensorOver(hidden.data(), kHidden, {1, 1, kHidden})};
};

DeltaModel::DeltaModel(const std::string& encoderPath, const std::string& streamingPath,
                       int threads)
    : env_(makeOrtEnv("zorv_fca")), options_(makeSessionOptions(std::max(threads, 1))) {
    encoder_ = Ort::Session(env_, encoderPath.c_str(), options_);
    streaming_ = Ort::Session(env_, streamingPath.c_str(), options_);
}

void DeltaModel::checkStop() const {
    if (stop_ && *stop_) throw std::runtime_error("cancelled");
}

Ort::Value DeltaModel::encode(float* window) {
    checkStop();
    const char* input = "input_values";
    const char* output = "audio_emb";
    const Ort::Value samples =
        tensorOver(window, delta::kWindowSamples, {1, delta::kWindowSamples});
    auto outputs = encoder_.Run(Ort::RunOptions{nullptr}, &input, &samples, 1, &output, 1);
    outputFloats(outputs[0], output, kLayerFloats);
    return std::move(outputs[0]);
}

void DeltaModel::step(Recurrence& state, float* out) {
    checkStop();
    const char* inputs[] = {"cond", "prev", "h"};
    const char* outputs[] = {"m", "hn"};
    const auto results =
        streaming_.Run(Ort::RunOptions{nullptr}, inputs, state.inputs, 3, outputs, 2);
    const float* offsets = outputFloats(results[0], "m", delta::kSetFloats);
    const float* hidden = outputFloats(results[1], "hn", kHidden);
    std::copy_n(offsets, delta::kSetFloats, out);
    std::copy_n(offsets, delta::kSetFloats, state.prev.begin());
    std::copy_n(hidden, kHidden, state.hidden.begin());
}

void DeltaModel::deltas(const float* audio, int n, float* out) {
    const int frames = delta::frameCount(n);
    std::vector<float> samples(delta::kWindowSamples);
    delta::CausalCentring centring;
    delta::ContextRing ring;
    Recurrence state;

    int next = 0;  // the frame whose offsets are due
    for (int w = 0; w < delta::windowCount(frames); ++w) {
        const delta::Window window = delta::windowAt(w, frames);
        delta::normalizedWindow(audio, n, window.start, samples.data());
        const Ort::Value layers = encode(samples.data());
        for (int f = window.begin; f < window.end; ++f) {
            float* slot = ring.slot(f);
            delta::averageLayers(layers.GetTensorData<float>(), f - window.start, slot);
            centring.centre(slot, slot);
            // A frame waits for its context ahead; behind the clip's end there is none to wait for.
            const int ready = f == frames - 1 ? f : f - delta::kContextAhead;
            for (; next <= ready; ++next) {
                ring.gather(next, frames, state.context.data());
                step(state, out + static_cast<std::size_t>(next) * delta::kSetFloats);
            }
        }
    }
}

}  // namespace zorv

namespace {

using FcaError = zorv::LastError<zorv_fca>;

int fail(const char* text) {
    FcaError::set(text);
    return -1;
}

}  // namespace

extern "C" {

zorv_fca* zorv_fca_create(const char* encoder_path, const char* streaming_path, int threads) {
    FcaError::clear();
    if (!encoder_path || !streaming_path) {
        fail("zorv_fca_create: NULL encoder_path/streaming_path");
        return nullptr;
    }
    return zorv::guarded<FcaError>("zorv_fca_create", static_cast<zorv_fca*>(nullptr), [&] {
        return zorv::telemetry::opening(
            "fca", [&] { return new zorv_fca(encoder_path, streaming_path, threads); });
    });
}

int zorv_fca_deltas(zorv_fca* fca, const float* audio, int n, float* out, int max_frames) {
    FcaError::clear();
    if (n < 1) return 0;
    const int frames = zorv::delta::frameCount(n);
    if (frames > max_frames) return -1;
    if (!fca || !audio || !out) return fail("zorv_fca_deltas: NULL fca/audio/out");
    return zorv::guarded<FcaError>("zorv_fca_deltas", -1, [&] {
        fca->deltas(audio, n, out);
        return frames;
    });
}

void zorv_fca_destroy(zorv_fca* fca) {
    zorv::telemetry::closing("fca", fca);
    delete fca;
}

const char* zorv_fca_last_error(void) {
    return FcaError::get();
}

}  // extern "C"
