// The C functions of the expression engine.
#include "a2x/zorv_a2x.h"

#include <algorithm>
#include <limits>

#include "a2x/a2x_settings.h"
#include "telemetry/telemetry.h"

namespace {

using zorv::A2xError;

int fail(const char* text, int result) {
    A2xError::set(text);
    return result;
}

/// Counts beyond int's range saturate.
int toCount(std::int64_t frames) {
    return static_cast<int>(std::min<std::int64_t>(frames, std::numeric_limits<int>::max()));
}

}  // namespace

extern "C" {

zorv_a2x* zorv_a2x_create(const char* dir, int threads) {
    if (!dir) {
        A2xError::set("zorv_a2x_create: NULL dir");
        return nullptr;
    }
    return zorv::guarded<A2xError>("zorv_a2x_create", static_cast<zorv_a2x*>(nullptr), [&] {
        return zorv::telemetry::opening("a2x", [&] { return new zorv_a2x(dir, threads); });
    });
}

void zorv_a2x_destroy(zorv_a2x* a2x) {
    zorv::telemetry::closing("a2x", a2x);
    delete a2x;
}

int zorv_a2x_preload_w2v(const char* path) {
    if (!path || !*path) path = zorv::a2x::encoderPath();
    if (!path) return fail("zorv_a2x_preload_w2v: no path and $W2V_ONNX unset", 0);
    return zorv::guarded<A2xError>("zorv_a2x_preload_w2v", 0, [&] {
        zorv::a2x::get_shared_w2v(path, zorv::a2x::integerSetting("ZORV_A2X_W2V_THREADS", 6));
        return 1;
    });
}

const char* zorv_a2x_last_error(void) {
    return A2xError::get();
}

int zorv_a2x_nt(zorv_a2x* a2x) {
    return a2x ? a2x->nt() : 0;
}

void zorv_a2x_set_eager(zorv_a2x* a2x, int eager) {
    if (!a2x) return;
    zorv::guarded<A2xError>("zorv_a2x_set_eager", [&] { a2x->set_eager(eager); });
}

int zorv_a2x_push(zorv_a2x* a2x, const float* pcm, int n) {
    if (!a2x || (!pcm && n > 0)) return fail("zorv_a2x_push: NULL a2x/pcm", 0);
    return zorv::guarded<A2xError>("zorv_a2x_push", 0, [&] {
        a2x->push(pcm, n);
        return 1;
    });
}

void zorv_a2x_finish(zorv_a2x* a2x) {
    if (!a2x) return;
    zorv::guarded<A2xError>("zorv_a2x_finish", [&] { a2x->finish(); });
}

int zorv_a2x_look_ahead(const zorv_a2x* a2x) {
    return a2x ? toCount(a2x->lookAheadSamples()) : 0;
}

int zorv_a2x_total(zorv_a2x* a2x) {
    if (!a2x) return 0;
    return a2x->finished() ? toCount(a2x->total()) : -1;
}

int zorv_a2x_avail(zorv_a2x* a2x) {
    if (!a2x) return 0;
    return zorv::guarded<A2xError>("zorv_a2x_avail", 0, [&] { return toCount(a2x->avail()); });
}

int zorv_a2x_pull(zorv_a2x* a2x, int* idx, float* src, float* drv, int max) {
    if (!a2x || max < 1) return 0;
    if (!src || !drv) return fail("zorv_a2x_pull: NULL src/drv", 0);
    return zorv::guarded<A2xError>("zorv_a2x_pull", 0,
                                   [&] { return a2x->pull(idx, src, drv, max); });
}

void zorv_a2x_reset(zorv_a2x* a2x, int start, int dir, int loop) {
    if (!a2x) return;
    zorv::guarded<A2xError>("zorv_a2x_reset", [&] { a2x->reset(start, dir, loop != 0); });
}

int zorv_a2x_deltas(zorv_a2x* a2x, const float* pcm, int n, float* out, int max_frames) {
    if (n < 1) return 0;
    const std::int64_t frames = zorv::a2x::frameCount(n);
    if (frames > max_frames) return -2;
    if (!a2x || !pcm || !out) return fail("zorv_a2x_deltas: NULL a2x/pcm/out", -1);
    return zorv::guarded<A2xError>("zorv_a2x_deltas", -1, [&] {
        a2x->deltas(pcm, n, out);
        return toCount(frames);
    });
}

}  // extern "C"
