// The C functions of the batch stream.
#include <algorithm>
#include <string>

#include "common/error.h"
#include "common/file.h"
#include "stream/delta_math.h"
#include "stream/zorv_fca.h"
#include "stream/zorv_stream.h"
#include "telemetry/telemetry.h"

namespace {

using StreamError = zorv::LastError<zorv_stream>;

/// Takes a cancellation back when its run is over, however that ended.
class TakeBack {
  public:
    explicit TakeBack(std::atomic<bool>& cancelled) : cancelled_(cancelled) {}
    ~TakeBack() { cancelled_ = false; }
    TakeBack(const TakeBack&) = delete;
    TakeBack& operator=(const TakeBack&) = delete;

  private:
    std::atomic<bool>& cancelled_;
};

/// Hands on what another family's create function said.
zorv_stream* noStream(const char* function, const char* text) {
    StreamError::repeat(std::string(function) + ": " + text);
    return nullptr;
}

zorv_stream* openStream(const char* bundleDir, const char* encoderPath, int threads) {
    auto stream = std::make_unique<zorv_stream>();
    stream->ctx.reset(zorv_create(bundleDir, "render", threads, ""));
    if (!stream->ctx) return noStream("zorv_create", zorv_last_error());
    stream->NT = zorv_nt(stream->ctx.get());
    stream->W = zorv_width(stream->ctx.get());
    stream->H = zorv_height(stream->ctx.get());
    stream->crop = zorv_crop(stream->ctx.get());

    const std::string dir = bundleDir;
    const std::string streamingPath = dir + "/fca_stream.onnx";
    stream->fca.reset(zorv_fca_create(encoderPath, streamingPath.c_str(), threads));
    if (!stream->fca) return noStream("zorv_fca_create", zorv_fca_last_error());
    stream->fca->stopWhen(stream->cancelled);

    stream->xsTarget.resize(zorv::kKeypointFloats * static_cast<unsigned>(stream->NT));
    const zorv::ReadStatus status = zorv::readExactly(
        dir + "/xs_target.bin", stream->xsTarget.data(), stream->xsTarget.size() * sizeof(float));
    if (status != zorv::ReadStatus::kOk && status != zorv::ReadStatus::kLong) {
        StreamError::set("zorv_stream_create: cannot read xs_target.bin (NT*63 f32)");
        return nullptr;
    }
    return stream.release();
}

int runStream(const zorv_stream& stream, const float* audio, int samples,
              zorv_frame_callback callback, void* user) {
    const int frames = zorv::delta::frameCount(samples);
    std::vector<float> offsets(zorv::kKeypointFloats * static_cast<unsigned>(frames));
    if (zorv_fca_deltas(stream.fca.get(), audio, samples, offsets.data(), frames) != frames) {
        StreamError::repeat(std::string("zorv_fca_deltas: ") + zorv_fca_last_error());
        return -1;
    }
    const int delivered = frames - stream.skipFrames;
    if (delivered < 1) return 0;
    if (!zorv::StreamRun(stream, offsets.data(), frames).deliver(callback, user)) {
        StreamError::repeat("zorv_stream_run: render/paste failed");
        return -1;
    }
    return delivered;
}

}  // namespace

extern "C" {

zorv_stream* zorv_stream_create(const char* bundle_dir, const char* encoder_path, int threads,
                                int skipFrames, float deltaGain) {
    StreamError::clear();
    return zorv::guarded<StreamError>(
        "zorv_stream_create", static_cast<zorv_stream*>(nullptr), [&] {
            zorv_stream* stream = zorv::telemetry::opening(
                "stream", [&] { return openStream(bundle_dir, encoder_path, threads); });
            if (stream) {
                stream->skipFrames = std::max(skipFrames, 0);
                stream->deltaGain = deltaGain;
            }
            return stream;
        });
}

int zorv_stream_run(zorv_stream* stream, const float* audio, int n_samples,
                    zorv_frame_callback callback, void* user) {
    StreamError::clear();
    if (!stream) {
        StreamError::set("zorv_stream_run: NULL stream");
        return -1;
    }
    const TakeBack takeBack(stream->cancelled);
    return zorv::guarded<StreamError>("zorv_stream_run", -1, [&] {
        const int delivered =
            stream->cancelled ? -1 : runStream(*stream, audio, n_samples, callback, user);
        if (stream->cancelled) throw zorv::Cancelled();
        return delivered;
    });
}

void zorv_stream_cancel(zorv_stream* stream) {
    if (stream) stream->cancelled = true;
}

int zorv_stream_width(zorv_stream* stream) {
    return stream ? stream->W : 0;
}

int zorv_stream_height(zorv_stream* stream) {
    return stream ? stream->H : 0;
}

void zorv_stream_destroy(zorv_stream* stream) {
    zorv::telemetry::closing("stream", stream);
    delete stream;
}

const char* zorv_stream_last_error(void) {
    return StreamError::get();
}

}  // extern "C"
