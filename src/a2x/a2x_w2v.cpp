#include "a2x/a2x_w2v.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <stdexcept>

#include "a2x/a2x_placement.h"
#include "a2x/a2x_settings.h"
#include "common/log.h"

namespace zorv::a2x {
namespace {

constexpr const char* kW2vTag = "w2v";

// The process's shared state. Sessions are only ever set from absent to present (a failed pair is
// dropped before anyone can have seen it), so whoever got one runs it without the lock.
std::mutex g_w2v_mtx;
// Guarded by g_w2v_mtx; released in reverse order, the environment last. Absent rather than null:
// at the process's end a null session would still ask the runtime, and crash with one that is too
// old.
std::optional<Ort::Env> g_w2v_env;
std::optional<Ort::Session> g_w2v_session;
std::string g_w2v_path;
bool g_w2vwin_tried = false;
std::optional<Ort::Session> g_w2vwin_trunk;
std::optional<Ort::Session> g_w2vwin_head;
std::string g_w2vwin_trunk_out;
/// Trunk steps per run, 0 until the first run when the model does not declare them. Atomic, not
/// guarded: runs read it, and they must not wait for a model that is being loaded.
std::atomic<std::int64_t> g_w2vwin_LT{0};

std::mutex g_zeroemb_mtx;
std::vector<float> g_zeroemb;  ///< guarded by g_zeroemb_mtx while empty, constant afterwards

Ort::Env& environmentLocked() {
    if (!g_w2v_env) g_w2v_env = makeOrtEnv("zorv_a2x_w2v");
    return *g_w2v_env;
}

/// The third dimension of the trunk's declared output [1, channels, steps], 0 when it is open.
std::int64_t declaredSteps(const Ort::Session& trunk) {
    const Ort::TypeInfo type = trunk.GetOutputTypeInfo(0);
    const auto shape = type.GetTensorTypeAndShapeInfo().GetShape();
    return shape.size() == 3 && shape[2] >= 1 ? shape[2] : 0;
}

void armLocked(const char* trunkPath, const char* headPath, int threads) {
    Ort::Env& env = environmentLocked();
    Placement placement(threads, kW2vTag);
    Ort::Session trunk = placement.open(env, trunkPath);
    Ort::Session head = placement.open(env, headPath);
    Ort::AllocatorWithDefaultOptions allocator;
    g_w2vwin_trunk_out = trunk.GetOutputNameAllocated(0, allocator).get();
    const std::int64_t steps = declaredSteps(trunk);
    g_w2vwin_LT = steps;
    g_w2vwin_trunk = std::move(trunk);
    g_w2vwin_head = std::move(head);
    logLine("[zorv_a2x] short-window w2v ARMED (ZORV_A2X_W2V_WIN=1, LT=%s)",
            steps ? std::to_string(steps).c_str() : "from-first-run");
}

}  // namespace

Ort::Session* get_shared_w2v(const std::string& path, int threads) {
    const std::lock_guard lock(g_w2v_mtx);
    if (!g_w2v_session) {
        Ort::Env& env = environmentLocked();
        g_w2v_session = Placement(threads, kW2vTag).open(env, path);
        g_w2v_path = path;
    }
    return &*g_w2v_session;
}

int get_shared_w2v_win(int threads) {
    const std::lock_guard lock(g_w2v_mtx);
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

LegacyWindow::LegacyWindow(Ort::Session& w2v)
    : samples_(kWindowSamples), model_(w2v, {"input_values"}, {"audio_emb"}) {
    model_.setInput(0, tensorOver(samples_.data(), samples_.size(), {1, kWindowSamples}));
}

const float* LegacyWindow::run() {
    model_.run();
    return model_.floats(0, kEmbeddingFloats);
}

ShortWindow::ShortWindow()
    : samples_(kShortSamples),
      channels_(kBlockFrames * kTrunkChannels),
      trunk_(g_w2vwin_trunk.value(), {"input_values"}, {g_w2vwin_trunk_out}),
      head_(g_w2vwin_head.value(), {"x"}, {"emb"}) {
    trunk_.setInput(0, tensorOver(samples_.data(), samples_.size(), {1, kShortSamples}));
    head_.setInput(0, tensorOver(channels_.data(), channels_.size(),
                                 {kBlockFrames, static_cast<std::int64_t>(kTrunkChannels)}));
}

ShortWindow::Trunk ShortWindow::runTrunk() {
    trunk_.run();
    const Ort::Value& output = trunk_.output(0);
    const auto info = output.GetTensorTypeAndShapeInfo();
    const auto shape = info.GetShape();
    if (info.GetElementType() != ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16 || shape.size() != 3) {
        throw std::runtime_error("w2v_win: trunk output is not half precision of 3 dimensions");
    }
    std::int64_t steps = 0;
    if (g_w2vwin_LT.compare_exchange_strong(steps, shape[2])) steps = shape[2];
    if (info.GetElementCount() != kTrunkChannels * static_cast<std::size_t>(steps)) {
        throw std::runtime_error("w2v_win: trunk output is not 640 x " + std::to_string(steps));
    }
    return {output.GetTensorData<std::uint16_t>(), steps};
}

const float* ShortWindow::runHead() {
    head_.run();
    return head_.floats(0, kBlockFrames * kFeatureFloats);
}

const std::vector<float>& zero_window_emb(Ort::Session& w2v) {
    const std::lock_guard lock(g_zeroemb_mtx);
    if (g_zeroemb.empty()) {
        LegacyWindow silence(w2v);  // its samples are zeros at first
        const float* embedding = silence.run();
        g_zeroemb.assign(embedding, embedding + kEmbeddingFloats);
    }
    return g_zeroemb;
}

}  // namespace zorv::a2x
