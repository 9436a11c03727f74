#include "live_engine.h"

#include <array>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace zorv::driver {

namespace {

struct Plane {
    int stride, rows;  // bytes, without gaps
};

/// The planes of a frame in one of the ZORV_PIXELS_ forms; those that it does not have are empty.
std::array<Plane, 3> planesOf(int pixels, int width, int height) {
    const int across = (width + 1) / 2, down = (height + 1) / 2;
    switch (pixels) {
        case ZORV_PIXELS_RGB:
            return {{{3 * width, height}, {}, {}}};
        case ZORV_PIXELS_I420:
            return {{{width, height}, {across, down}, {across, down}}};
        case ZORV_PIXELS_NV12:
            return {{{width, height}, {2 * across, down}, {}}};
        default:
            return {{{4 * width, height}, {}, {}}};
    }
}

}  // namespace

bool isExpressionDir(const std::string& motionDir) {
    std::error_code error;
    return std::filesystem::exists(motionDir + "/a2x_enc_stream.onnx", error);
}

LiveEngine::LiveEngine(const LiveSetup& setup)
    : check_(setup.check), rate_(setup.rate), pixels_(setup.pixels) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    ctx_.reset(zorv_create(setup.bundle.c_str(), "render", setup.threads, nullptr));
    if (!ctx_) {
        throw std::runtime_error("cannot open '" + setup.bundle + "': " + zorv_last_error() +
                                 "; prepare the subject again");
    }
    zorv_utt_opts opts = {};
    opts.motion_dir = setup.motionDir.c_str();
    opts.eager = setup.eager;
    opts.steady_model = setup.steady.c_str();
    utt_.reset(zorv_utt_create(ctx_.get(), &opts));
    const bool set = utt_ && zorv_utt_set_input(utt_.get(), setup.rate) &&
                     zorv_utt_set_pixels(utt_.get(), setup.pixels) &&
                     zorv_utt_set_idle_ahead(utt_.get(), setup.idleAhead) &&
                     zorv_utt_set_late(utt_.get(), setup.late);
    int ready = set ? 0 : -1;
    while (ready == 0) {
        ready = zorv_utt_ready(utt_.get());
        check_();
        if (ready == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (ready < 0) {
        throw std::runtime_error("cannot speak with '" + setup.bundle + "' and '" +
                                 setup.motionDir + "': " + zorv_utt_last_error() +
                                 "; check both directories");
    }
    readySeconds_ = std::chrono::duration<double>(Clock::now() - start).count();
}

size_t LiveEngine::frameBytes() const {
    size_t bytes = 0;
    for (const auto& [stride, rows] : planesOf(pixels_, width(), height())) {
        bytes += static_cast<size_t>(stride) * static_cast<size_t>(rows);
    }
    return bytes;
}

bool LiveEngine::pull(std::vector<uint8_t>& buffer, std::vector<int16_t>& sound,
                      zorv_utt_frame& frame) const {
    frame = {};
    frame.struct_size = sizeof frame;
    uint8_t* at = buffer.data();
    const auto planes = planesOf(pixels_, width(), height());
    for (size_t i = 0; i < planes.size() && planes[i].rows > 0; ++i) {
        frame.plane[i] = at;
        frame.stride[i] = planes[i].stride;
        at += static_cast<size_t>(planes[i].stride) * static_cast<size_t>(planes[i].rows);
    }
    frame.sound = sound.data();
    frame.sound_capacity = static_cast<int32_t>(sound.size());
    const int got = zorv_utt_pull(utt_.get(), &frame);
    if (got < 0) throw Error(zorv_utt_last_error());
    return got == 1;
}

}  // namespace zorv::driver
