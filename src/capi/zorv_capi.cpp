#include <algorithm>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "capi/rgba.h"
#include "capi/zorv_ctx.h"
#include "capi/zorv_image.h"
#include "common/error.h"
#include "common/file.h"
#include "telemetry/telemetry.h"
#include "zorv_core.h"

namespace {

struct ContextFamily;
using Errors = zorv::LastError<ContextFamily>;

constexpr float kCropScale = 255.0f;  // crops are nominally in [0, 1]

std::vector<std::uint8_t> readMask(const zorv::Manifest& manifest) {
    const std::size_t side = static_cast<std::size_t>(manifest.crop);
    const std::size_t bytes = zorv::checkedProduct(side, side);
    std::string content;
    const auto status = zorv::readWholeFile(manifest.dir + "/mask_512.u8", content);
    if (status != zorv::ReadStatus::kOk || content.size() < bytes) {
        throw std::runtime_error("mask read failed");
    }
    return {content.begin(), content.begin() + static_cast<std::ptrdiff_t>(bytes)};
}

bool hasFrame(const zorv_ctx* ctx, int frame) {
    return frame >= 0 && frame < ctx->manifest.NT;
}

/// Copies the clean target frame to `out` and pastes the crop into it.
void pasteInto(zorv_ctx* ctx, int frame, const float* crop, std::uint8_t* out) {
    std::memcpy(out, ctx->target(frame), ctx->frameBytes());
    ctx->paste->composite(crop, kCropScale, ctx->identity.M(frame), out, ctx->manifest.W,
                          ctx->manifest.H);
}

/// The second half of both RGBA functions: pastes the crop just rendered and widens to RGBA.
int pasteLastRgba(zorv_ctx* ctx, int frame, std::uint8_t* out, std::size_t out_size) {
    const std::size_t pixels = ctx->frameBytes() / 3;
    if (!out || out_size < pixels * 4) {
        Errors::set("zorv_render_*_rgba: out buffer too small");
        return 0;
    }
    const std::uint8_t* rgb = zorv_paste_last(ctx, frame);
    if (!rgb) return 0;
    zorv::rgbToRgba(rgb, out, pixels);
    return 1;
}

}  // namespace

zorv_ctx::zorv_ctx(const std::string& bundleDir, const std::string& modelKey, int threadCount,
                   const std::string& provider)
    : manifest(zorv::loadManifest(bundleDir)),
      identity(manifest),
      drive(zorv::loadDrive(manifest)),
      threads(threadCount),
      ep(provider),
      renderer(std::make_unique<zorv::Renderer>(manifest, identity, modelKey, threads, ep)),
      paste(std::make_unique<zorv::Paste>(readMask(manifest), manifest.crop, manifest.unsharp)) {
    const std::size_t frames = static_cast<std::size_t>(manifest.NT);
    const std::size_t pixels = zorv::checkedProduct(static_cast<std::size_t>(manifest.W),
                                                    static_cast<std::size_t>(manifest.H));
    const std::size_t bytes = zorv::checkedProduct(pixels, 3);
    targetCache = zorv::ZeroedArray<std::uint8_t>(zorv::checkedProduct(frames, bytes));
    targetLoaded.resize(frames);
    frameBuf = zorv::ZeroedArray<std::uint8_t>(bytes);
}

std::size_t zorv_ctx::frameBytes() const {
    return frameBuf.size();
}

const std::uint8_t* zorv_ctx::target(int i) {
    const std::size_t index = static_cast<std::size_t>(i);
    std::uint8_t* slot = targetCache.data() + index * frameBytes();
    if (targetLoaded[index]) return slot;
    char path[1024];
    // A longer path is cut, and then fails to decode.
    if (std::snprintf(path, sizeof path, "%s/target_frames/frame_%06d.jpg", manifest.dir.c_str(),
                      i) < 0) {
        throw std::runtime_error("decode failed: " + manifest.dir);
    }
    int width = 0;
    int height = 0;
    const std::vector<std::uint8_t> pixels =
        zorv::loadImageRGB(path, width, height, frameBytes() / 3);
    if (width != manifest.W || height != manifest.H) {
        throw std::runtime_error(std::string("target size mismatch ") + path);
    }
    std::copy(pixels.begin(), pixels.end(), slot);
    targetLoaded[index] = 1;
    return slot;
}

zorv_ctx* zorv_create(const char* bundle_dir, const char* model_key, int threads, const char* ep) {
    Errors::clear();
    if (!bundle_dir || !model_key) {
        Errors::set("zorv_create: NULL bundle_dir/model_key");
        return nullptr;
    }
    return zorv::guarded<Errors, zorv_ctx*>("zorv_create", nullptr, [&] {
        return zorv::telemetry::opening("context", [&] {
            return new zorv_ctx(bundle_dir, model_key, std::max(threads, 1), ep ? ep : "");
        });
    });
}

void zorv_destroy(zorv_ctx* ctx) {
    zorv::telemetry::closing("context", ctx);
    delete ctx;
}

const char* zorv_last_error(void) {
    return Errors::get();
}

int zorv_nt(const zorv_ctx* ctx) {
    return ctx ? ctx->manifest.NT : 0;
}
int zorv_width(const zorv_ctx* ctx) {
    return ctx ? ctx->manifest.W : 0;
}
int zorv_height(const zorv_ctx* ctx) {
    return ctx ? ctx->manifest.H : 0;
}
int zorv_crop(const zorv_ctx* ctx) {
    return ctx ? ctx->manifest.crop : 0;
}
int zorv_drive_frames(const zorv_ctx* ctx) {
    return ctx ? ctx->drive.frames : 0;
}

const float* zorv_render_kp_crop(zorv_ctx* ctx, int frame, const float* kp_a, const float* kp_b) {
    Errors::clear();
    if (!ctx || !kp_a || !kp_b || !hasFrame(ctx, frame)) {
        Errors::set("zorv_render_kp_crop: bad args");
        return nullptr;
    }
    return zorv::guarded<Errors, const float*>("zorv_render_kp_crop", nullptr, [&] {
        return ctx->lastCrop = ctx->renderer->render(&frame, kp_a, kp_b, 1);
    });
}

const float* zorv_render_drive_crop(zorv_ctx* ctx, int k) {
    Errors::clear();
    if (!ctx || k < 0 || k >= ctx->drive.frames) {
        Errors::set("zorv_render_drive_crop: bad frame index");
        return nullptr;
    }
    const std::size_t row = static_cast<std::size_t>(k);
    return zorv_render_kp_crop(ctx, ctx->drive.si[row],
                               ctx->drive.xs.data() + row * zorv::kKeypointFloats,
                               ctx->drive.xd.data() + row * zorv::kKeypointFloats);
}

int zorv_paste_crop(zorv_ctx* ctx, int frame, const float* crop, uint8_t* out, size_t out_size) {
    Errors::clear();
    if (!ctx || !crop || !out || !hasFrame(ctx, frame) || out_size < ctx->frameBytes()) {
        Errors::set("zorv_paste_crop: bad args / out too small");
        return 0;
    }
    return zorv::guarded<Errors>("zorv_paste_crop", 0, [&] {
        pasteInto(ctx, frame, crop, out);
        return 1;
    });
}

const uint8_t* zorv_paste_last(zorv_ctx* ctx, int frame) {
    Errors::clear();
    if (!ctx || !ctx->lastCrop || !hasFrame(ctx, frame)) {
        Errors::set("zorv_paste_last: bad args / no prior render");
        return nullptr;
    }
    return zorv::guarded<Errors, const uint8_t*>("zorv_paste_last", nullptr, [&] {
        pasteInto(ctx, frame, ctx->lastCrop, ctx->frameBuf.data());
        return ctx->frameBuf.data();
    });
}

int zorv_render_kp_rgba(zorv_ctx* ctx, int frame, const float* kp_a, const float* kp_b,
                        uint8_t* out, size_t out_size) {
    Errors::clear();
    if (!ctx || !zorv_render_kp_crop(ctx, frame, kp_a, kp_b)) return 0;
    return pasteLastRgba(ctx, frame, out, out_size);
}

int zorv_render_drive_rgba(zorv_ctx* ctx, int k, uint8_t* out, size_t out_size) {
    Errors::clear();
    if (!ctx || !zorv_render_drive_crop(ctx, k)) return 0;
    return pasteLastRgba(ctx, ctx->drive.si[static_cast<std::size_t>(k)], out, out_size);
}

const uint8_t* zorv_target_frame(zorv_ctx* ctx, int frame) {
    Errors::clear();
    if (!ctx || !hasFrame(ctx, frame)) {
        Errors::set("zorv_target_frame: bad args");
        return nullptr;
    }
    return zorv::guarded<Errors, const uint8_t*>("zorv_target_frame", nullptr,
                                                 [&] { return ctx->target(frame); });
}
