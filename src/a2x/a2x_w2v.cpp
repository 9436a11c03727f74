#include "a2x/a2x_w2v.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "a2x/a2x_provider.h"
#include "a2x/a2x_settings.h"
#include "common/error.h"
#include "common/log.h"
#include "common/mutex.h"

namespace zorv::a2x {
namespace {

constexpr const char* kW2vTag = "w2v";

ModelContract legacyContract() {
    return {{{"input_values", {1, kWindowSamples}}},
            {{"audio_emb", {kLayers, kWindowFrames, kLayerFloats}, Fit::kAtLeast}}};
}

ModelContract trunkContract() {
    return {{{"input_values", {1, kShortSamples}}},
            {{"", {1, kTrunkChannels, -1}, Fit::kShape, "float16"}}};
}

ModelContract headContract() {
    return {{{"x", {kBlockFrames, kTrunkChannels}}},
            {{"emb", {kBlockFrames, kFeatureFloats}, Fit::kAtLeast}}};
}

// The process's shared state. Models are only ever set from absent to present (a failed pair is
// dropped before anyone can have seen it) and stay until the process ends.
Mutex g_w2v_mtx;
std::shared_ptr<const Model> g_w2v_session ZORV_GUARDED_BY(g_w2v_mtx);
bool g_w2vwin_tried ZORV_GUARDED_BY(g_w2v_mtx) = false;
std::shared_ptr<const Model> g_w2vwin_trunk ZORV_GUARDED_BY(g_w2v_mtx);
std::shared_ptr<const Model> g_w2vwin_head ZORV_GUARDED_BY(g_w2v_mtx);
/// Trunk steps per run, 0 until the first run when the model does not declare them. Atomic, not
/// guarded: runs read it, and they must not wait for a model that is being loaded.
std::atomic<std::int64_t> g_w2vwin_LT{0};

Mutex g_zeroemb_mtx;
/// Constant once it is not empty.
std::vector<float> g_zeroemb ZORV_GUARDED_BY(g_zeroemb_mtx);

std::shared_ptr<const Model> openChecked(ProviderChoice& provider, const std::string& path,
                                         const ModelContract& contract) {
    auto model = provider.open(path);
    agreementOf(*model, contract);
    return model;
}

void armLocked(const char* trunkPath, const char* headPath, int threads) ZORV_REQUIRES(g_w2v_mtx) {
    ProviderChoice provider(threads, kW2vTag);
    auto trunk = openChecked(provider, trunkPath, trunkContract());
    auto head = openChecked(provider, headPath, headContract());
    const std::vector<std::int64_t>& shape = trunk->outputs()[0].shape;
    const std::int64_t steps = shape.size() == 3 && shape[2] >= 1 ? shape[2] : 0;
    g_w2vwin_LT = steps;
    g_w2vwin_trunk = std::move(trunk);
    g_w2vwin_head = std::move(head);
    logLine("[zorv_a2x] short-window w2v ARMED (ZORV_A2X_W2V_WIN=1, LT=%s)",
            steps ? std::to_string(steps).c_str() : "from-first-run");
}

std::shared_ptr<const Model> armedTrunk() {
    const MutexLock lock(g_w2v_mtx);
    return g_w2vwin_trunk;
}

std::shared_ptr<const Model> armedHead() {
    const MutexLock lock(g_w2v_mtx);
    return g_w2vwin_head;
}

/// Throws unless every frame's place lies inside the trunk's `steps` (0: not known) when windows
/// hear `right` frames behind a block.
void requireRoom(std::int64_t right, std::int64_t steps, const Model& trunk) {
    double first = 0, last = 0;
    // A frame's place depends on its number within a legacy window; these blocks cover all numbers.
    for (std::int64_t block = 0; block < 2 * kWindowFrames; block += kBlockFrames) {
        const std::int64_t start = shortWindowStart(block, right);
        first = std::min(first, trunkPosition(block, start));
        last = std::max(last, trunkPosition(block + kBlockFrames - 1, start));
    }
    const std::string setting = "ZORV_A2X_W2V_RIGHT=" + std::to_string(right);
    if (first < 0) {
        throw std::runtime_error(setting + ": a short window of " +
                                 std::to_string(kShortSamples / kSamplesPerFrame) +
                                 " frames ends before a block's first frame");
    }
    const auto needed = static_cast<std::int64_t>(last) + 1;
    if (steps != 0 && needed > steps) {
        throw std::runtime_error(trunk.path() + ": output " + trunk.outputs()[0].name +
                                 ": wanted at least " + std::to_string(needed) + " steps for " +
                                 setting + ", found " + std::to_string(steps));
    }
}

}  // namespace

std::shared_ptr<const Model> get_shared_w2v(const std::string& path, int threads) {
    const MutexLock lock(g_w2v_mtx);
    if (!g_w2v_session) {
        ProviderChoice provider(threads, kW2vTag);
        g_w2v_session = openChecked(provider, path, legacyContract());
    }
    return g_w2v_session;
}

int get_shared_w2v_win(int threads) {
    const MutexLock lock(g_w2v_mtx);
    if (g_w2vwin_tried) return g_w2vwin_trunk ? 1 : 0;
    g_w2vwin_tried = true;
    const char* trunkPath = std::getenv("ZORV_A2X_W2V_WIN_ONNX");
    const char* headPath = std::getenv("ZORV_A2X_W2V_HEAD_ONNX");
    if (!trunkPath || !headPath) {
        logLine(
            "[zorv_a2x] ZORV_A2X_W2V_WIN=1 but ZORV_A2X_W2V_WIN_ONNX/ZORV_A2X_W2V_HEAD_ONNX unset "
            "— falling back to the legacy 8s w2v path");
        return 0;
    }
    try {
        armLocked(trunkPath, headPath, threads);
        return 1;
    } catch (const std::exception& error) {
        logLine("[zorv_a2x] short-window w2v load FAILED (%s) — legacy 8s path",
                oneLine(error.what()).c_str());
        return 0;
    }
}

LegacyWindow::LegacyWindow(std::shared_ptr<const Model> w2v)
    : samples_(kWindowSamples), model_(std::move(w2v), legacyContract()) {
    model_.bindInput(0, samples_.data());
}

const float* LegacyWindow::run() {
    model_.run();
    return model_.floats(0, kEmbeddingFloats);
}

ShortWindow::ShortWindow(std::int64_t right)
    : samples_(kShortSamples),
      channels_(kBlockFrames * kTrunkChannels),
      trunk_(armedTrunk(), trunkContract()),
      head_(armedHead(), headContract()) {
    requireRoom(right, g_w2vwin_LT, trunk_.model());
    trunk_.bindInput(0, samples_.data());
    head_.bindInput(0, channels_.data());
}

ShortWindow::Trunk ShortWindow::runTrunk() {
    trunk_.run();
    const ModelRun::Halves output = trunk_.halves(0);
    if (output.shape.size() != 3) {
        throw std::runtime_error("w2v_win: trunk output is not half precision of 3 dimensions");
    }
    std::int64_t steps = 0;
    if (g_w2vwin_LT.compare_exchange_strong(steps, output.shape[2])) steps = output.shape[2];
    if (output.shape != std::vector<std::int64_t>{1, kTrunkChannels, steps}) {
        throw std::runtime_error("w2v_win: trunk output is not 640 x " + std::to_string(steps));
    }
    return {output.values, steps};
}

const float* ShortWindow::runHead() {
    head_.run();
    return head_.floats(0, kBlockFrames * kFeatureFloats);
}

const std::vector<float>& zero_window_emb(const std::shared_ptr<const Model>& w2v) {
    const MutexLock lock(g_zeroemb_mtx);
    if (g_zeroemb.empty()) {
        LegacyWindow silence(w2v);  // its samples are zeros at first
        const float* embedding = silence.run();
        g_zeroemb.assign(embedding, embedding + kEmbeddingFloats);
    }
    return g_zeroemb;
}

}  // namespace zorv::a2x
