// What zorvface costs beyond the C interface: processor time per frame of both, by turns, on the
// demo subject in I420, and the ratio of their medians.
//
//     gstreamer_bench PLUGIN_DIR [ROUNDS]
#include <gst/check/gstharness.h>
#include <zorv_core.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "demo_subject.h"
#include "stopwatch.h"

namespace zorv::bench {
namespace {

constexpr int kFrames = 200;
constexpr int kPiece = 320;  // samples of a buffer, 20 ms

std::vector<float> speechLike() {
    std::vector<float> samples(static_cast<std::size_t>(kFrames) * 640);
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double t = static_cast<double>(i) / 16000;
        samples[i] = static_cast<float>(0.3 * std::sin(900 * t) * std::sin(25 * t));
    }
    return samples;
}

double processSeconds() {
    return secondsNow(CLOCK_PROCESS_CPUTIME_ID);
}

[[noreturn]] void fail(const std::string& text) {
    throw std::runtime_error(text);
}

/// A host of the C interface that renders into one buffer.
class Direct {
  public:
    Direct()
        : ctx_(zorv_create(demoBundle().c_str(), "render", 1, nullptr)),
          motion_(zorv_motion_create(demoMotion().c_str(), 1, nullptr)) {
        if (!ctx_) fail(zorv_last_error());
        if (!motion_) fail(zorv_motion_last_error());
        zorv_motion_set_eager(motion_, 1);
        const auto W = static_cast<std::size_t>(zorv_width(ctx_));
        const auto H = static_cast<std::size_t>(zorv_height(ctx_));
        frame_.resize(W * H + 2 * ((W + 1) / 2) * ((H + 1) / 2));
        const std::size_t chroma = ((W + 1) / 2) * ((H + 1) / 2);
        plane_[0] = frame_.data();
        plane_[1] = plane_[0] + W * H;
        plane_[2] = plane_[1] + chroma;
        stride_[0] = static_cast<std::int32_t>(W);
        stride_[1] = stride_[2] = static_cast<std::int32_t>((W + 1) / 2);
    }
    ~Direct() {
        zorv_motion_destroy(motion_);
        zorv_destroy(ctx_);
    }
    Direct(const Direct&) = delete;

    /// Processor seconds per frame.
    double run(const std::vector<float>& sound) {
        zorv_motion_reset(motion_, 0, 1, 0);
        int shown = 0;
        const double begin = processSeconds();
        for (std::size_t at = 0; at < sound.size(); at += kPiece) {
            zorv_motion_push(motion_, sound.data() + at, kPiece);
            shown += showReady();
        }
        zorv_motion_finish(motion_);
        shown += showReady();
        const double spent = processSeconds() - begin;
        if (shown != kFrames) fail("direct: frames are missing");
        return spent / kFrames;
    }

  private:
    int showReady() {
        int index = 0, shown = 0;
        float source[63], driving[63];
        while (zorv_motion_avail(motion_) > 0 &&
               zorv_motion_pull(motion_, &index, source, driving, 1) == 1) {
            const float* crop = zorv_render_kp_crop(ctx_, index, source, driving);
            if (!crop || !zorv_paste_planes(ctx_, index, crop, ZORV_PIXELS_I420, ZORV_MATRIX_AUTO,
                                            plane_, stride_)) {
                fail(zorv_last_error());
            }
            ++shown;
        }
        return shown;
    }

    zorv_ctx* ctx_;
    zorv_motion* motion_;
    std::vector<std::uint8_t> frame_;
    std::uint8_t* plane_[3];
    std::int32_t stride_[3];
};

/// The same through the element and a sink of GStreamer's harness.
class Element {
  public:
    Element() : h_(gst_harness_new_empty()) {
        const std::string launch =
            "zorvface bundle=" + demoBundle() + " motion-dir=" + demoMotion();
        gst_harness_add_parse(h_, launch.c_str());
        gst_harness_set_drop_buffers(h_, TRUE);
        gst_harness_set_sink_caps_str(h_, "video/x-raw,format=I420");
        gst_harness_set_src_caps_str(
            h_, "audio/x-raw,format=F32LE,rate=16000,channels=1,layout=interleaved");
    }
    ~Element() { gst_harness_teardown(h_); }
    Element(const Element&) = delete;

    double run(const std::vector<float>& sound) {
        gst_harness_push_event(h_, gst_event_new_flush_start());
        gst_harness_push_event(h_, gst_event_new_flush_stop(TRUE));
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        gst_harness_push_event(h_, gst_event_new_segment(&segment));
        const guint before = gst_harness_buffers_received(h_);
        const double begin = processSeconds();
        for (std::size_t at = 0; at < sound.size(); at += kPiece) {
            GstBuffer* buffer = gst_buffer_new_memdup(sound.data() + at, kPiece * sizeof(float));
            GST_BUFFER_PTS(buffer) = gst_util_uint64_scale(at, GST_SECOND, 16000);
            if (gst_harness_push(h_, buffer) != GST_FLOW_OK) fail("the element failed");
        }
        gst_harness_push_event(h_, gst_event_new_eos());
        const double spent = processSeconds() - begin;
        if (gst_harness_buffers_received(h_) - before != kFrames)
            fail("element: frames are missing");
        return spent / kFrames;
    }

  private:
    GstHarness* h_;
};

void measure(const char* plugins, int rounds) {
    if (!gst_registry_scan_path(gst_registry_get(), plugins)) fail("no plugin in that folder");
    const std::vector<float> sound = speechLike();
    Direct direct;
    Element element;
    direct.run(sound);
    element.run(sound);
    std::vector<double> a, b;
    for (int i = 0; i < rounds; ++i) {
        a.push_back(direct.run(sound));
        b.push_back(element.run(sound));
    }
    std::printf("C interface %.3f ms per frame, element %.3f ms, ratio %.3f (%d rounds)\n",
                1e3 * median(a), 1e3 * median(b), median(b) / median(a), rounds);
}

}  // namespace
}  // namespace zorv::bench

int main(int argc, char** argv) {
    gst_init(&argc, &argv);
    if (argc < 2) return std::fprintf(stderr, "usage: gstreamer_bench PLUGIN_DIR [ROUNDS]\n"), 2;
    try {
        zorv::bench::measure(argv[1], argc > 2 ? std::atoi(argv[2]) : 5);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "gstreamer_bench: %s\n", error.what());
        return 1;
    }
    return 0;
}
