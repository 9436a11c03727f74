#include "render/renderer_model.h"

#include <onnxruntime_session_options_config_keys.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "bundle/zorv_bundle.h"
#include "common/error.h"
#include "common/log.h"
#include "common/model_registry.h"
#include "common/ort.h"
#include "render/custom_operators.h"
#include "render/gridsample/op.h"
#include "render/gridsample/rewrite.h"
#include "render/int8conv/fold.h"
#include "render/int8conv/int8conv_vnni.h"
#include "render/resize/resize_fast.h"

namespace zorv {
namespace {

int xnnpackThreads(const std::string& ep, int threads) {
    constexpr std::size_t kPrefix = 8;  // "xnnpack:"
    long n = threads;
    if (ep.size() > kPrefix) n = std::strtol(ep.c_str() + kPrefix, nullptr, 10);
    return n < 1 ? 4 : static_cast<int>(std::min<long>(n, INT_MAX));
}

/// A default-on feature is off when its variable starts with '0'.
bool switchedOff(const char* variable) {
    const char* value = std::getenv(variable);
    return value && value[0] == '0';
}

/// All that shapes a session beside its file.
struct Recipe {
    int threads;
    const ExecutionProvider& provider;
    // Threads that spin between frames would take the processor from other sessions.
    bool spinning = switchedOn("ZORV_ORT_SPIN");
    bool kleidiAi = switchedOn("ZORV_KLEIDIAI");
    bool fastSampling = !switchedOff("ZORV_GS_FAST");
    bool fastResize = fastSampling && !switchedOff("ZORV_RESIZE_FAST");
    bool int8Operator = !switchedOff("ZORV_INT8");
    bool int8Folds = int8Operator && !switchedOff("ZORV_INT8_FOLD");

    std::string text() const {
        std::string text = "renderer " + std::to_string(threads) + ' ' + provider.name;
        const std::map<std::string, std::string> sorted(provider.options.begin(),
                                                        provider.options.end());
        for (const auto& [key, value] : sorted) {
            text.append(" ").append(key).append("=").append(value);
        }
        for (const bool on :
             {spinning, kleidiAi, fastSampling, fastResize, int8Operator, int8Folds}) {
            text += on ? " 1" : " 0";
        }
        return text;
    }

    Ort::SessionOptions options() const {
        Ort::SessionOptions options = makeSessionOptions(threads);
        if (!spinning) options.AddConfigEntry("session.intra_op.allow_spinning", "0");
        if (!kleidiAi) options.AddConfigEntry("mlas.disable_kleidiai", "1");
        if (!provider.name.empty()) {
            options.AppendExecutionProvider(provider.name, provider.options);
        }
        if (fastSampling) registerGridSampleFast(options);
        if (int8Operator) registerInt8ConvVNNI(options);
        return options;
    }
};

MappedFile mapModel(const std::string& path) {
    try {
        return mapFile(path);
    } catch (const std::runtime_error& error) {
        throw std::runtime_error(std::string("Renderer: ") + error.what());
    }
}

/// A model changed for the library's own operators. The file is mapped while it is read, so that
/// the changed model is the only copy that is left.
struct RewrittenModel {
    static constexpr unsigned kResizes = 1, kSamplers = 2;

    /// Leaves the nodes of the kinds in `left` as they are.
    RewrittenModel(const std::string& path, const Recipe& recipe, unsigned left) {
        const MappedFile file = mapModel(path);
        std::string_view model(reinterpret_cast<const char*>(file.data()), file.length());
        if (recipe.fastSampling && !(left & kSamplers)) {
            samplers = rewriteGridSampleToFast(model, bytes);
        }
        if (samplers > 0) model = bytes;
        // What `bytes` held before is freed at the end of each block.
        if (recipe.fastResize && !(left & kResizes)) {
            std::string resized;
            resizes = rewriteResizeToFast(model, resized).size();
            if (resizes > 0) bytes.swap(resized);
        }
        if (resizes > 0) model = bytes;
        if (recipe.int8Folds) {
            std::string folded;
            folds = foldIntoInt8Conv(model, folded);
            if (!folds.empty()) bytes.swap(folded);
        }
    }

    bool changed() const { return samplers + resizes > 0 || !folds.empty(); }
    unsigned kinds() const { return (samplers > 0) * kSamplers + (resizes > 0) * kResizes; }

    void log(const std::string& key) const {
        if (samplers > 0) {
            logLine(
                "[zorv] std GridSample -> com.velmarin::GridSampleFast load-time rewrite: %zu "
                "node(s) (%s)",
                samplers, key.c_str());
        }
        if (resizes > 0) {
            logLine("[zorv] bilinear Resize -> com.velmarin::ResizeFast: %zu node(s) (%s)", resizes,
                    key.c_str());
        }
        if (folds.empty()) return;
        const auto count = [&](Int8Fold::Kind kind) {
            return std::count_if(folds.begin(), folds.end(),
                                 [&](const Int8Fold& fold) { return fold.kind == kind; });
        };
        logLine(
            "[zorv] folded into Int8ConvVNNI: %td Resize, %td Pad; DepthToSpace -> "
            "DepthToSpaceFast: %td (%s)",
            count(Int8Fold::Kind::kResize), count(Int8Fold::Kind::kPad),
            count(Int8Fold::Kind::kDepthToSpace), key.c_str());
    }

    std::string bytes;  ///< empty unless changed
    std::size_t samplers = 0, resizes = 0;
    std::vector<Int8Fold> folds;
};

/// A session of the rewritten model; none when there is nothing to rewrite. The runtime refuses
/// what the rewrite cannot see: nodes of half precision, samplers of more than two spatial
/// dimensions. The nodes of that kind then stay as they are.
std::optional<Ort::Session> openRewritten(const Ort::Env& env, const std::string& path,
                                          const std::string& key, const Recipe& recipe) {
    Ort::SessionOptions options = recipe.options();
    // A model in memory has no folder of its own in which to look for external tensor files.
    const std::string folder = std::filesystem::path(path).parent_path().string();
    options.AddConfigEntry(kOrtSessionOptionsModelExternalInitializersFileFolderPath,
                           folder.c_str());
    unsigned present = 0;
    std::string refusal;
    for (unsigned left = 0; left <= present; ++left) {
        if ((left & ~present) != 0) continue;
        const RewrittenModel model(path, recipe, left);
        if (!model.changed()) break;
        if (left == 0) present = model.kinds();
        try {
            auto session =
                createOperatorSession(env, model.bytes.data(), model.bytes.size(), options);
            model.log(key);
            if (left != 0) {
                logLine("[zorv] %s keeps its%s%s nodes, the runtime refuses their rewrite: %s",
                        key.c_str(), left & RewrittenModel::kResizes ? " Resize" : "",
                        left & RewrittenModel::kSamplers ? " GridSample" : "", refusal.c_str());
            }
            return session;
        } catch (const Ort::Exception& error) {
            if (refusal.empty()) refusal = oneLine(error.what());
        }
    }
    if (!refusal.empty()) {
        logLine("[zorv] %s is loaded as it is, the runtime refuses its load-time rewrite: %s",
                key.c_str(), refusal.c_str());
    }
    return std::nullopt;
}

}  // namespace

ExecutionProvider parseExecutionProvider(const std::string& ep, int threads,
                                         const std::string& bundleDir) {
    if (ep.empty()) return {};
    if (ep.starts_with("xnnpack")) {
        return {"XNNPACK", {{"intra_op_num_threads", std::to_string(xnnpackThreads(ep, threads))}}};
    }
    if (ep.starts_with("coreml")) {
        return {"CoreML", coreMlOptions(ep, bundleDir + "/.coreml_cache")};
    }
    throw std::runtime_error("Renderer: unknown ep '" + ep + "'");
}

bool switchedOn(const char* variable) {
    const char* value = std::getenv(variable);
    return value && value[0] == '1';
}

std::shared_ptr<const Model> openRendererModel(const std::string& path, const std::string& key,
                                               int threads, const ExecutionProvider& provider) {
    const Recipe recipe{threads, provider};
    return sharedModel(path, recipe.text(), [&] {
        Ort::Env env = makeOrtEnv("zorv");
        std::optional<Ort::Session> session;
        if (recipe.fastSampling || recipe.int8Folds) {
            session = openRewritten(env, path, key, recipe);
        }
        if (!session) session = createOperatorSession(env, path, recipe.options());
        return makeModel(path, std::move(env), std::move(*session));
    });
}

bool isFeatSynth(const Model& model) {
    return model.input("fs_red") != nullptr;
}

std::string pooledName(bool featSynth) {
    return featSynth ? "pooled" : "pooled64";
}

std::optional<std::int32_t> fixedBatch(const Model& model) {
    const ModelTensor* const input = model.input(pooledName(isFeatSynth(model)));
    if (!input || input->shape.size() != 4 || input->shape[0] < 1 || input->shape[0] > INT32_MAX) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(input->shape[0]);
}

ModelContract rendererContract(bool featSynth, std::int64_t B, std::int64_t S) {
    const TensorContract rgb{"rgb", {B, 3, S, S}};
    if (featSynth) {
        return {{{pooledName(true), {B, 64, 32, 32}},
                 {"fs_red", {B, 64, 64, 64}},
                 {"kd", {B, 21, 3}},
                 {"ks", {B, 21, 3}}},
                {rgb}};
    }
    return {{{pooledName(false), {B, 64, 32, 32}},
             {"P_rgb", {B, 3, S, S}},
             {"kp_driving", {B, 21, 3}},
             {"kp_source", {B, 21, 3}}},
            {rgb}};
}

}  // namespace zorv
