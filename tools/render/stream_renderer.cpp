// --engine fca: the library's batch stream does everything.
#include <zorv_core.hpp>

#include <exception>

#include "clip_renderer.h"
#include "failure.h"

namespace zorv::tools {
namespace {

/// Where the frames go while the stream runs, and why it was stopped.
struct Delivery {
    const ClipRenderer::OnFrame& onFrame;
    std::exception_ptr stopped;
};

// The stream ignores the result; only an exception ends the run.
int deliver(void* user, int index, const uint8_t* rgb, int, int) {
    auto& delivery = *static_cast<Delivery*>(user);
    try {
        delivery.onFrame(rgb);
    } catch (...) {
        delivery.stopped = std::current_exception();
        throw;
    }
    return index;
}

class StreamRenderer : public ClipRenderer {
  public:
    explicit StreamRenderer(const RenderOptions& options)
        : stream_(zorv_stream_create(options.bundle.c_str(), options.encoder.c_str(),
                                     modelThreads(options.threads), options.skipFrames,
                                     options.gain)) {
        if (!stream_) {
            fail(
                "cannot open '{}' with encoder '{}': {}; prepare the subject again or check the "
                "encoder",
                options.bundle, options.encoder, zorv_stream_last_error());
        }
    }

    int width() const override { return zorv_stream_width(stream_.get()); }
    int height() const override { return zorv_stream_height(stream_.get()); }
    std::string error() const override { return zorv_stream_last_error(); }

    int run(const std::vector<float>& samples, const OnFrame& onFrame) override {
        Delivery delivery{onFrame, nullptr};
        int made = -1;
        try {
            made = zorv_stream_run(stream_.get(), samples.data(), static_cast<int>(samples.size()),
                                   deliver, &delivery);
        } catch (...) {
            if (!delivery.stopped) throw;
        }
        if (delivery.stopped) std::rethrow_exception(delivery.stopped);
        return made;
    }

  private:
    StreamPtr stream_;
};

}  // namespace

std::unique_ptr<ClipRenderer> openStreamRenderer(const RenderOptions& options) {
    return std::make_unique<StreamRenderer>(options);
}

}  // namespace zorv::tools
