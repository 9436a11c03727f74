#include "stream/zorv_stream.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <thread>

#include "capi/zorv_ctx.h"
#include "common/error.h"
#include "common/file.h"
#include "common/thread.h"
#include "stream/delta_math.h"
#include "stream/target_walk.h"
#include "telemetry/telemetry.h"

namespace zorv {
namespace {

/// The walk at the first frame that is delivered.
TargetWalk walkFrom(const zorv_stream& stream) {
    TargetWalk walk(stream.NT);
    for (int k = 0; k < stream.skipFrames; ++k) walk.advance();
    return walk;
}

/// Ends and joins the worker on every way out, an exception of the host's callback included.
class WorkerGuard {
  public:
    WorkerGuard(std::thread worker, CropRing& ring) : worker_(std::move(worker)), ring_(ring) {}
    ~WorkerGuard() {
        ring_.cancel();
        worker_.join();
    }
    WorkerGuard(const WorkerGuard&) = delete;
    WorkerGuard& operator=(const WorkerGuard&) = delete;

  private:
    std::thread worker_;
    CropRing& ring_;
};

}  // namespace

StreamRun::StreamRun(const zorv_stream& stream, const float* offsets, int frames)
    : stream_(stream), offsets_(offsets), frames_(frames), ring_(cropFloats(stream.crop)) {}

bool StreamRun::deliver(zorv_frame_callback callback, void* user) {
    preload();
    {
        const WorkerGuard worker(startThread([this] { render(); }), ring_);
        pasteFrames(callback, user);
    }
    if (*renderError_.get()) ContextError::repeat(renderError_.get());
    return !failed_;
}

void StreamRun::preload() const {
    // The walk repeats after 2 NT - 2 frames.
    const std::int64_t distinct =
        std::min<std::int64_t>(frames_ - stream_.skipFrames, std::int64_t{2} * stream_.NT);
    TargetWalk walk = walkFrom(stream_);
    for (std::int64_t i = 0; i < distinct && !stream_.cancelled; ++i, walk.advance()) {
        try {
            if (walk.current() < stream_.NT) stream_.ctx->target(walk.current());
        } catch (const std::exception&) {  // told by its paste
        }
    }
}

void StreamRun::render() noexcept {
    try {
        renderFrames();
    } catch (const std::exception& error) {
        ContextError::set("zorv_stream_run", error);
        failed_ = true;
    }
    renderError_.set({zorv_last_error()});
    ring_.finish();
}

void StreamRun::renderFrames() {
    const std::vector<float> noBase(kKeypointFloats);
    std::vector<float> driving(kKeypointFloats);
    TargetWalk walk = walkFrom(stream_);
    for (int k = stream_.skipFrames; k < frames_ && !stream_.cancelled; ++k, walk.advance()) {
        const int frame = walk.current();
        // Index 1 of a bundle of one frame has no base row; the context rejects it.
        const float* base = frame < stream_.NT ? stream_.xsTarget.data() +
                                                     kKeypointFloats * static_cast<unsigned>(frame)
                                               : noBase.data();
        driveKeypoints(base, offsets_ + kKeypointFloats * static_cast<unsigned>(k),
                       stream_.deltaGain, kKeypointFloats, driving.data());
        const float* crop = zorv_render_kp_crop(stream_.ctx.get(), frame, base, driving.data());
        if (!crop) {
            failed_ = true;
            return;
        }
        // The renderer's buffer is overwritten by its next render, hence the copy.
        float* slot = ring_.acquire();
        if (!slot) return;
        std::copy_n(crop, cropFloats(stream_.crop), slot);
        ring_.publish();
    }
}

void StreamRun::pasteFrames(zorv_frame_callback callback, void* user) {
    std::vector<std::uint8_t> frame(std::size_t{3} * static_cast<unsigned>(stream_.W) *
                                    static_cast<unsigned>(stream_.H));
    TargetWalk walk = walkFrom(stream_);
    int index = 0;
    while (const float* crop = ring_.front()) {
        if (stream_.cancelled) return;
        if (!zorv_paste_crop(stream_.ctx.get(), walk.current(), crop, frame.data(), frame.size())) {
            failed_ = true;
            return;
        }
        ring_.release();
        if (callback) callback(user, index, frame.data(), stream_.W, stream_.H);
        walk.advance();
        ++index;
    }
}

}  // namespace zorv

namespace {

using StreamError = zorv::LastError<zorv_stream>;

/// A cancellation ends one run, however that ends.
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
    const TakeBack takeBack(stream->cancelled);
    return zorv::guarded<StreamError>("zorv_stream_run", -1, [&] {
        const int delivered =
            stream->cancelled ? -1 : runStream(*stream, audio, n_samples, callback, user);
        if (!stream->cancelled) return delivered;
        StreamError::set("zorv_stream_run: cancelled");
        return -1;
    });
}

void zorv_stream_cancel(zorv_stream* stream) {
    if (stream) stream->cancelled = true;
}

int zorv_stream_width(zorv_stream* stream) {
    return stream->W;
}

int zorv_stream_height(zorv_stream* stream) {
    return stream->H;
}

void zorv_stream_destroy(zorv_stream* stream) {
    zorv::telemetry::closing("stream", stream);
    delete stream;
}

const char* zorv_stream_last_error(void) {
    return StreamError::get();
}

}  // extern "C"
