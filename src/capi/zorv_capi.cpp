#include <algorithm>

#include "capi/frame_arguments.h"
#include "capi/zorv_ctx.h"
#include "telemetry/telemetry.h"
#include "zorv_core.h"

namespace {

using Errors = zorv::ContextError;

bool hasFrame(const zorv_ctx* ctx, int frame) {
    return frame >= 0 && frame < ctx->manifest.NT;
}

/// Target frame `frame` with the crop pasted in, without gaps at `out`.
void composePacked(zorv_ctx* ctx, int frame, const float* crop, zorv::PixelForm form,
                   std::uint8_t* out) {
    ctx->compose(frame, crop, form, zorv::matrixFor(ctx->manifest.H), ctx->packed(form, out));
}

/// The second half of both RGBA functions: pastes the crop just rendered.
int pasteLastRgba(zorv_ctx* ctx, int frame, std::uint8_t* out, std::size_t out_size) {
    if (!out || out_size < ctx->frameBytes(zorv::PixelForm::kRgba)) {
        Errors::set("zorv_render_*_rgba: out buffer too small");
        return 0;
    }
    return zorv::guarded<Errors>("zorv_paste_last", 0, [&] {
        composePacked(ctx, frame, ctx->lastCrop, zorv::PixelForm::kRgba, out);
        return 1;
    });
}

}  // namespace

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
    if (!ctx || !crop || !out || !hasFrame(ctx, frame) ||
        out_size < ctx->frameBytes(zorv::PixelForm::kRgb)) {
        Errors::set("zorv_paste_crop: bad args / out too small");
        return 0;
    }
    return zorv::guarded<Errors>("zorv_paste_crop", 0, [&] {
        composePacked(ctx, frame, crop, zorv::PixelForm::kRgb, out);
        return 1;
    });
}

int zorv_paste_planes(zorv_ctx* ctx, int frame, const float* crop, int pixels, int matrix,
                      uint8_t* const* plane, const int32_t* stride) {
    Errors::clear();
    if (!ctx || !hasFrame(ctx, frame) || !zorv::isPixelForm(pixels) || !zorv::isMatrix(matrix) ||
        !plane || !stride) {
        Errors::set("zorv_paste_planes: bad args");
        return 0;
    }
    const auto form = static_cast<zorv::PixelForm>(pixels);
    const int H = ctx->manifest.H;
    zorv::FrameView view;
    if (!zorv::readPlanes(form, ctx->manifest.W, H, plane, stride, view)) {
        Errors::set("zorv_paste_planes: missing plane / stride too small");
        return 0;
    }
    return zorv::guarded<Errors>("zorv_paste_planes", 0, [&] {
        ctx->compose(frame, crop, form, zorv::resolvedMatrix(matrix, H), view);
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
        composePacked(ctx, frame, ctx->lastCrop, zorv::PixelForm::kRgb, ctx->frameBuf.data());
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
