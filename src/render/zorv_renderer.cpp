#include "render/zorv_renderer.h"

#include <onnxruntime_session_options_config_keys.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "common/file.h"
#include "common/log.h"
#include "common/memory.h"
#include "common/ort.h"
#include "render/conv_backend.h"
#include "render/custom_operators.h"
#include "render/execution_provider.h"
#include "render/gridsample/op.h"
#include "render/gridsample/rewrite.h"
#include "render/int8conv/fold.h"
#include "render/int8conv/int8conv_vnni.h"
#include "telemetry/telemetry.h"

namespace zorv {
namespace {

constexpr std::size_t kPooledElems = 64 * 32 * 32;
constexpr std::size_t kFeatElems = 64 * 64 * 64;

/// An optional feature is on when its variable starts with '1'.
bool switchedOn(const char* variable) {
    const char* value = std::getenv(variable);
    return value && value[0] == '1';
}

/// A default-on feature is off when its variable starts with '0'.
bool switchedOff(const char* variable) {
    const char* value = std::getenv(variable);
    return value && value[0] == '0';
}

/// Decides whether the native backend is to be built for this model. Clears `ep` when an
/// explicit wish for it is refused, so that the CPU provider is used.
bool wantsNativeBackend(std::string& ep, const std::string& modelPath, const std::string& key) {
    if (ep.empty()) {
        const char* backend = std::getenv("ZORV_CONV_BACKEND");
        if (!backend || std::strcmp(backend, "neon") != 0) return false;
        if (!ConvBackend::available()) {
            logLine("[zorv] ZORV_CONV_BACKEND=neon but fp16 NEON unavailable; using ORT");
            return false;
        }
    } else if (ep != "neon") {
        return false;
    }
    if (ConvBackend::graphSupported(modelPath)) return true;
    logLine(
        "[zorv] NEON backend refused: %s is not the fused m4b graph (golden/unified "
        "director?); using ORT",
        key.c_str());
    ep.clear();
    return false;
}

Ort::SessionOptions rendererOptions(int threads, const ExecutionProvider& provider) {
    Ort::SessionOptions options = makeSessionOptions(threads);
    // Threads that spin between frames would take the processor from other sessions.
    if (!switchedOn("ZORV_ORT_SPIN")) {
        options.AddConfigEntry("session.intra_op.allow_spinning", "0");
    }
    if (!switchedOn("ZORV_KLEIDIAI")) options.AddConfigEntry("mlas.disable_kleidiai", "1");
    if (!provider.name.empty()) {
        options.AppendExecutionProvider(provider.name, provider.options);
    }
    return options;
}

std::string readModel(const std::string& path) {
    std::string bytes;
    switch (readWholeFile(path, bytes)) {
        case ReadStatus::kCannotOpen:
            throw std::runtime_error("Renderer: cannot open " + path);
        case ReadStatus::kOk:
            return bytes;
        default:
            throw std::runtime_error("Renderer: short read on " + path);
    }
}

/// What is done to a model while it is loaded.
struct Rewrites {
    bool fastSampling = !switchedOff("ZORV_GS_FAST");
    bool int8Operator = !switchedOff("ZORV_INT8");
    bool int8Folds = int8Operator && !switchedOff("ZORV_INT8_FOLD");

    /// Changes the model and says how; false when all of it stays.
    bool apply(std::string& bytes, const std::string& key) const;
};

bool Rewrites::apply(std::string& bytes, const std::string& key) const {
    const std::size_t samplers = fastSampling ? rewriteGridSampleToFast(bytes) : 0;
    if (samplers > 0) {
        logLine(
            "[zorv] std GridSample -> com.velmarin::GridSampleFast load-time rewrite: %zu "
            "node(s) (%s)",
            samplers, key.c_str());
    }
    std::string folded;
    const auto folds = int8Folds ? foldIntoInt8Conv(bytes, folded) : std::vector<Int8Fold>();
    if (!folds.empty()) {
        bytes.swap(folded);
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
    return samplers > 0 || !folds.empty();
}

/// A session from the rewritten model; from the file as it is when nothing changes.
Ort::Session createRewrittenSession(const Ort::Env& env, const std::string& path,
                                    const std::string& key, const Rewrites& rewrites,
                                    Ort::SessionOptions& options) {
    std::string bytes = readModel(path);
    if (!rewrites.apply(bytes, key)) {
        std::string().swap(bytes);
        return createOperatorSession(env, path, options);
    }
    // A model in memory has no folder of its own in which to look for external tensor files.
    const std::string folder = std::filesystem::path(path).parent_path().string();
    options.AddConfigEntry(kOrtSessionOptionsModelExternalInitializersFileFolderPath,
                           folder.c_str());
    return createOperatorSession(env, bytes.data(), bytes.size(), options);
}

}  // namespace

struct Renderer::Impl {
    explicit Impl(const Identity& bundleIdentity, std::int32_t crop)
        : identity(bundleIdentity), side(static_cast<std::size_t>(crop)) {}

    void load(const Manifest& manifest, const std::string& modelKey, int threads, std::string ep);
    void discoverInputs();
    void allocate();
    void bind();
    void fillSlot(std::size_t slot, std::int32_t frame, const float* kpSource,
                  const float* kpDriving);
    void repeatSlot(std::size_t from, std::size_t to);
    const char* pooledName() const { return featSynth ? "pooled" : "pooled64"; }
    ZeroedArray<float>& appearance() { return featSynth ? feature : image; }
    std::size_t appearanceElems() const { return featSynth ? kFeatElems : imageElems; }

    Ort::Env env = makeOrtEnv("zorv");
    Ort::RunOptions runOptions;
    const Identity& identity;
    const std::size_t side;  ///< crop side S
    std::size_t imageElems = 0;
    std::int32_t batch = 0;
    bool featSynth = false;

    ZeroedArray<float> pooled;     ///< B x 64 x 32 x 32
    ZeroedArray<float> image;      ///< B x 3 x S x S, standard graph only
    ZeroedArray<float> feature;    ///< B x 64 x 64 x 64, FeatSynth graph only
    ZeroedArray<float> kpDriving;  ///< B x 63
    ZeroedArray<float> kpSource;   ///< B x 63
    ZeroedArray<float> output;     ///< B x 3 x S x S

    BoundSession model;  // after the buffers it is bound to: released before them

    std::unique_ptr<ConvBackend> native;
    std::vector<const std::uint16_t*> nativePooled;
    std::vector<const std::uint16_t*> nativeImage;
};

void Renderer::Impl::load(const Manifest& manifest, const std::string& modelKey, int threads,
                          std::string ep) {
    const std::string path = manifest.modelPath(modelKey);
    if (wantsNativeBackend(ep, path, modelKey)) {
        if (side != 512) throw std::runtime_error("zorv_conv: only crop=512 m4b bundles");
        native = ConvBackend::create(path, threads);
    }
    if (switchedOn("ZORV_ARENA_SHRINK")) {
        runOptions.AddConfigEntry("memory.enable_memory_arena_shrinkage", "cpu:0");
    }
    const auto provider = parseExecutionProvider(ep, threads, manifest.dir);
    Ort::SessionOptions options = rendererOptions(threads, provider);
    const Rewrites rewrites;
    if (rewrites.fastSampling) registerGridSampleFast(options);
    if (rewrites.int8Operator) registerInt8ConvVNNI(options);
    const bool any = rewrites.fastSampling || rewrites.int8Folds;
    model = BoundSession(any ? createRewrittenSession(env, path, modelKey, rewrites, options)
                             : createOperatorSession(env, path, options));
}

void Renderer::Impl::discoverInputs() {
    featSynth = hasInput(model.session(), "fs_red");
    // The batch is fixed by the model file: a symbolic one is refused on purpose.
    const auto shape = inputShape(model.session(), pooledName());
    if (shape.size() != 4 || shape[0] < 1 || shape[0] > INT32_MAX) {
        throw std::runtime_error(std::string(pooledName()) + " input not found / bad shape");
    }
    batch = static_cast<std::int32_t>(shape[0]);
}

void Renderer::Impl::allocate() {
    if (featSynth && !identity.hasFsRed()) {
        throw std::runtime_error("FeatSynth graph but bundle lacks fs_red.f16");
    }
    if (!featSynth && !identity.hasP()) {
        throw std::runtime_error("standard graph but bundle lacks P.f16");
    }
    imageElems = checkedProduct(checkedProduct(side, side), 3);
    const auto slots = static_cast<std::size_t>(batch);
    pooled = ZeroedArray<float>(checkedProduct(slots, kPooledElems));
    appearance() = ZeroedArray<float>(checkedProduct(slots, appearanceElems()));
    kpDriving = ZeroedArray<float>(checkedProduct(slots, kKeypointFloats));
    kpSource = ZeroedArray<float>(checkedProduct(slots, kKeypointFloats));
    output = ZeroedArray<float>(checkedProduct(slots, imageElems));
    if (native) {
        nativePooled.resize(slots);
        nativeImage.resize(slots);
    }
}

void Renderer::Impl::bind() {
    const std::int64_t B = batch;
    const auto S = static_cast<std::int64_t>(side);
    if (featSynth) {
        model.bindInput("fs_red", feature.data(), feature.size(), {B, 64, 64, 64});
        model.bindInput("pooled", pooled.data(), pooled.size(), {B, 64, 32, 32});
        model.bindInput("kd", kpDriving.data(), kpDriving.size(), {B, 21, 3});
        model.bindInput("ks", kpSource.data(), kpSource.size(), {B, 21, 3});
    } else {
        model.bindInput("pooled64", pooled.data(), pooled.size(), {B, 64, 32, 32});
        model.bindInput("P_rgb", image.data(), image.size(), {B, 3, S, S});
        model.bindInput("kp_driving", kpDriving.data(), kpDriving.size(), {B, 21, 3});
        model.bindInput("kp_source", kpSource.data(), kpSource.size(), {B, 21, 3});
    }
    model.bindOutput("rgb", output.data(), output.size(), {B, 3, S, S});
}

void Renderer::Impl::fillSlot(std::size_t slot, std::int32_t frame, const float* source,
                              const float* driving) {
    halfToFloat(identity.pooled64(frame), pooled.data() + slot * kPooledElems, kPooledElems);
    halfToFloat(featSynth ? identity.fsRed(frame) : identity.P(frame),
                appearance().data() + slot * appearanceElems(), appearanceElems());
    std::copy_n(driving, kKeypointFloats, kpDriving.data() + slot * kKeypointFloats);
    std::copy_n(source, kKeypointFloats, kpSource.data() + slot * kKeypointFloats);
}

void Renderer::Impl::repeatSlot(std::size_t from, std::size_t to) {
    const auto repeat = [=](ZeroedArray<float>& array, std::size_t elems) {
        std::copy_n(array.data() + from * elems, elems, array.data() + to * elems);
    };
    repeat(pooled, kPooledElems);
    repeat(appearance(), appearanceElems());
    repeat(kpDriving, kKeypointFloats);
    repeat(kpSource, kKeypointFloats);
}

Renderer::Renderer(const Manifest& manifest, const Identity& identity, const std::string& modelKey,
                   int threads, const std::string& ep)
    : impl_(std::make_unique<Impl>(identity, manifest.crop)) {
    impl_->load(manifest, modelKey, threads, ep);
    impl_->discoverInputs();
    impl_->allocate();
    impl_->bind();
}

Renderer::~Renderer() = default;

void Renderer::stop() {
    impl_->runOptions.SetTerminate();
}

void Renderer::rearm() {
    impl_->runOptions.UnsetTerminate();
}

std::int32_t Renderer::batch() const {
    return impl_->batch;
}

const float* Renderer::render(const std::int32_t* frameIdx, const float* kpSource,
                              const float* kpDriving, std::int32_t n) {
    Impl& impl = *impl_;
    const telemetry::Stopwatch watch;
    if (n < 1 || n > impl.batch) throw std::runtime_error("render: bad n");
    const auto items = static_cast<std::size_t>(n);
    if (impl.native) {
        for (std::size_t i = 0; i < items; ++i) {
            impl.nativePooled[i] = impl.identity.pooled64(frameIdx[i]);
            impl.nativeImage[i] = impl.identity.P(frameIdx[i]);
        }
        impl.native->render(impl.nativePooled.data(), impl.nativeImage.data(), kpDriving, kpSource,
                            n, impl.output.data());
        return impl.output.data();
    }
    for (std::size_t i = 0; i < items; ++i) {
        impl.fillSlot(i, frameIdx[i], kpSource + i * kKeypointFloats,
                      kpDriving + i * kKeypointFloats);
    }
    // The fixed-batch model always sees valid data: free slots repeat the last item.
    for (std::size_t i = items; i < static_cast<std::size_t>(impl.batch); ++i) {
        impl.repeatSlot(items - 1, i);
    }
    impl.model.run(impl.runOptions);
    watch.record({"zorv.render.duration", "s"});
    telemetry::count({"zorv.frames.rendered", "{frame}"}, items);
    return impl.output.data();
}

}  // namespace zorv
