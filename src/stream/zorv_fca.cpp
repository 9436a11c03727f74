#include "stream/zorv_fca.h"

#include <algorithm>

#include "common/error.h"
#include "common/model_registry.h"
#include "common/ort.h"

namespace zorv {
namespace {

constexpr std::size_t kHidden = 384;
constexpr std::size_t kLayerFloats =
    std::size_t{delta::kLastLayer + 1} * delta::kWindowFrames * delta::kEmbeddingFloats;

ModelRun open(const std::string& path, int threads, const ModelContract& contract) {
    auto model = sharedModel(path, "fca " + std::to_string(threads), [&] {
        Ort::Env env = makeOrtEnv("zorv_fca");
        Ort::Session session(env, path.c_str(), makeSessionOptions(threads));
        return makeModel(path, std::move(env), std::move(session));
    });
    return {std::move(model), contract};
}

constexpr std::int64_t kContextFloats =
    std::int64_t{delta::kContextFrames} * delta::kEmbeddingFloats;
constexpr std::int64_t kSet = kKeypointFloats;

}  // namespace

/// Inputs of the recurrent model; its outputs are copied back into prev and hidden.
struct DeltaModel::Recurrence {
    explicit Recurrence(ModelRun& model) {
        model.bindInput(0, context.data());
        model.bindInput(1, prev.data());
        model.bindInput(2, hidden.data());
    }

    std::vector<float> context = std::vector<float>(kContextFloats);
    std::vector<float> prev = std::vector<float>(kKeypointFloats);
    std::vector<float> hidden = std::vector<float>(kHidden);
};

ModelContract deltaContract() {
    return {{{"cond", {1, kContextFloats}}, {"prev", {1, kSet}}, {"h", {1, 1, kHidden}}},
            {{"m", {1, kSet}, Fit::kAtLeast}, {"hn", {1, 1, kHidden}, Fit::kAtLeast}}};
}

DeltaModel::DeltaModel(const std::string& encoderPath, const std::string& streamingPath,
                       int threads)
    : encoder_(open(encoderPath, std::max(threads, 1),
                    {{{"input_values", {1, delta::kWindowSamples}}},
                     {{"audio_emb",
                       {delta::kLastLayer + 1, delta::kWindowFrames, delta::kEmbeddingFloats},
                       Fit::kAtLeast}}})),
      streaming_(open(streamingPath, std::max(threads, 1), deltaContract())) {}

void DeltaModel::checkStop() const {
    if (stop_ && *stop_) throw Cancelled();
}

void DeltaModel::step(Recurrence& state, float* out) {
    checkStop();
    streaming_.run();
    const float* offsets = streaming_.floats(0, kKeypointFloats);
    const float* hidden = streaming_.floats(1, kHidden);
    std::copy_n(offsets, kKeypointFloats, out);
    std::copy_n(offsets, kKeypointFloats, state.prev.begin());
    std::copy_n(hidden, kHidden, state.hidden.begin());
}

void DeltaModel::deltas(const float* audio, int n, float* out) {
    const int frames = delta::frameCount(n);
    std::vector<float> samples(delta::kWindowSamples);
    encoder_.bindInput(0, samples.data());
    delta::CausalCentring centring;
    delta::ContextRing ring;
    Recurrence state(streaming_);

    int next = 0;  // the frame whose offsets are due
    for (int w = 0; w < delta::windowCount(frames); ++w) {
        const delta::Window window = delta::windowAt(w, frames);
        delta::normalizedWindow(audio, n, window.start, samples.data());
        checkStop();
        encoder_.run();
        const float* layers = encoder_.floats(0, kLayerFloats);
        for (int f = window.begin; f < window.end; ++f) {
            float* slot = ring.slot(f);
            delta::averageLayers(layers, f - window.start, slot);
            centring.centre(slot, slot);
            // A frame waits for its context ahead; behind the clip's end there is none to wait for.
            const int ready = f == frames - 1 ? f : f - delta::kContextAhead;
            for (; next <= ready; ++next) {
                ring.gather(next, frames, state.context.data());
                step(state, out + static_cast<std::size_t>(next) * kKeypointFloats);
            }
        }
    }
    encoder_.forgetOutputs();
}

}  // namespace zorv
