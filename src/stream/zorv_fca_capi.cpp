// The C functions of the delta model.
#include "common/error.h"
#include "stream/zorv_fca.h"
#include "telemetry/telemetry.h"
#include "zorv_core.h"

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
