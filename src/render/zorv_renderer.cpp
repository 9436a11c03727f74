#include "render/zorv_renderer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <vector>

#include "common/half.h"
#include "common/log.h"
#include "common/memory.h"
#include "common/model_run.h"
#include "render/conv_backend.h"
#include "render/renderer_model.h"
#include "telemetry/telemetry.h"

namespace zorv {
namespace {

constexpr std::size_t kPooledElems = 64 * 32 * 32;
constexpr std::size_t kFeatElems = 64 * 64 * 64;

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

}  // namespace

struct Renderer::Impl {
    explicit Impl(const Identity& bundleIdentity, std::int32_t crop)
        : identity(bundleIdentity), side(static_cast<std::size_t>(crop)) {}

    void load(const Manifest& manifest, const std::string& modelKey, int threads, std::string ep);
    void allocate();
    void bind();
    void fillSlot(std::size_t slot, std::int32_t frame, const float* source, const float* driving);
    void repeatSlot(std::size_t from, std::size_t to);
    ZeroedArray<float>& appearance() { return featSynth ? feature : image; }
    std::size_t appearanceElems() const { return featSynth ? kFeatElems : imageElems; }

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

    std::optional<ModelRun> model;  // after the buffers it is bound to: released before them

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
    const auto provider = parseExecutionProvider(ep, threads, manifest.dir);
    const auto opened = openRendererModel(path, modelKey, threads, provider);
    featSynth = isFeatSynth(*opened);
    const auto fixed = fixedBatch(*opened);
    if (!fixed) throw std::runtime_error(pooledName(featSynth) + " input not found / bad shape");
    batch = *fixed;
    model.emplace(opened, rendererContract(featSynth, batch, manifest.crop),
                  switchedOn("ZORV_ARENA_SHRINK") ? GiveBack::kAlways : GiveBack::kAfterFirst);
}

void Renderer::Impl::allocate() {
    if (featSynth && !identity.hasFsRed()) {
        throw std::runtime_error("FeatSynth graph but bundle lacks fs_red.f16");
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
    model->bindInput(0, pooled.data());
    model->bindInput(1, appearance().data());
    model->bindInput(2, kpDriving.data());
    model->bindInput(3, kpSource.data());
    model->bindOutput(0, output.data());
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
    impl_->allocate();
    impl_->bind();
}

Renderer::~Renderer() = default;

void Renderer::stop() {
    impl_->model->stop();
}

void Renderer::rearm() {
    impl_->model->rearm();
}

std::int32_t Renderer::batch() const {
    return impl_->batch;
}

const float* Renderer::render(const std::int32_t* frameIdx, const float* kpSource,
                              const float* kpDriving, std::int32_t n) {
    Impl& impl = *impl_;
    const telemetry::Stopwatch watch;
    if (n < 1 || n > impl.batch) throw std::runtime_error("render: bad n");
    if (!impl.featSynth && !impl.identity.hasP()) {
        throw std::runtime_error("standard graph but bundle lacks P.f16");
    }
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
    impl.model->run();
    watch.record({"zorv.render.duration", "s"});
    telemetry::count({"zorv.frames.rendered", "{frame}"}, items);
    return impl.output.data();
}

}  // namespace zorv
