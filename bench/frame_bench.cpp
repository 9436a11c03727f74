// What a live frame costs beyond the models, on the demo subject: composited into a buffer of the
// ring and copied to the host, or (idle) the target frame alone. Walks over the targets as speech
// does, with a render before each frame, so that nothing is in the caches that would not be.
// Processor time; the ways take turns. Prints JSON: medians in microseconds, and each one's share
// of RGBA as it was done before: target copied, coverage found again, blended, packed, copied. The
// last two are the same without sharpening and blending: what copies, packing and conversion cost.
#include <cstdio>
#include <cstring>
#include <functional>
#include <vector>

#include "capi/zorv_ctx.h"
#include "demo_subject.h"
#include "paste/rgba.h"
#include "stopwatch.h"

namespace {

using namespace zorv;

constexpr int kRounds = 150;
constexpr std::size_t kRing = 8;

class Bench {
  public:
    Bench() : ctx_(bench::demoBundle(), "render", 1, "") {
        for (auto& buffer : ring_) buffer.resize(ctx_.frameBytes(PixelForm::kRgba));
    }

    /// Frame number `round` in `form`, with or without a face.
    void frame(int round, PixelForm form, const float* crop) {
        const Manifest& manifest = ctx_.manifest;
        const FrameView between = ctx_.packed(form, ring(round));
        ctx_.compose(round % manifest.NT, crop, form, YuvMatrix::kBt709, between);
        copyFrame(form, between, ctx_.packed(form, host_.data()), manifest.W, manifest.H);
    }

    void formerFrame(int round, const float* crop) {
        const Manifest& manifest = ctx_.manifest;
        const int target = round % manifest.NT;
        std::memcpy(rgb_.data(), ctx_.target(target), rgb_.size());
        if (crop) {
            const FrameView rgb = ctx_.packed(PixelForm::kRgb, rgb_.data());
            ctx_.paste->composite(
                crop, 255, ctx_.paste->place(ctx_.identity.M(target), manifest.W, manifest.H),
                rgbBackdrop(rgb_.data(), manifest.W, manifest.H),
                {PixelForm::kRgb, YuvMatrix::kBt709, rgb, manifest.W, manifest.H});
        }
        rgbToRgba(rgb_.data(), ring(round), rgb_.size() / 3);
        std::memcpy(host_.data(), ring(round), host_.size());
    }

    /// All of a frame with a face in I420 but for sharpening and blending it.
    void conversions(int round) {
        const Manifest& manifest = ctx_.manifest;
        const int target = round % manifest.NT;
        const FrameView between = ctx_.packed(PixelForm::kI420, ring(round));
        const FrameWriter writer(PixelForm::kI420, YuvMatrix::kBt709, between, manifest.W,
                                 manifest.H);
        // It has been made by the frames of the first round.
        const Backdrop from = ctx_.targets->yuv(
            target, YuvMatrix::kBt709, [](int) { return FrameArea{}; },
            [](int) { return std::vector<std::uint8_t>(); });
        writer.frame(from);
        const FrameArea& area = from.area;
        for (int y = area.top; y < area.bottom; y += 2) {
            writer.rows(area.left, y, area.right - area.left, from.pixel(area.left, y),
                        from.pixel(area.left, y + 1));
        }
        copyFrame(PixelForm::kI420, between, ctx_.packed(PixelForm::kI420, host_.data()),
                  manifest.W, manifest.H);
    }

    const float* render(int round) {
        const Drive& drive = ctx_.drive;
        const int k = round % drive.frames;
        return ctx_.renderer->render(drive.si.data() + k,
                                     drive.xs.data() + std::size_t{kKeypointFloats} * k,
                                     drive.xd.data() + std::size_t{kKeypointFloats} * k, 1);
    }

  private:
    std::uint8_t* ring(int round) { return ring_[static_cast<std::size_t>(round) % kRing].data(); }

    zorv_ctx ctx_;
    std::vector<std::uint8_t> ring_[kRing];
    std::vector<std::uint8_t> host_ = std::vector<std::uint8_t>(ctx_.frameBytes(PixelForm::kRgba));
    std::vector<std::uint8_t> rgb_ = std::vector<std::uint8_t>(ctx_.frameBytes(PixelForm::kRgb));
};

}  // namespace

int main() {
    Bench bench;
    struct Way {
        const char* name;
        std::function<void(int round, const float* crop)> frame;
        std::vector<double> seconds;
    };
    const auto speech = [&](PixelForm form) {
        return [&bench, form](int round, const float* crop) { bench.frame(round, form, crop); };
    };
    const auto idle = [&](PixelForm form) {
        return [&bench, form](int round, const float*) { bench.frame(round, form, nullptr); };
    };
    Way ways[] = {
        {"rgba_former", [&](int round, const float* crop) { bench.formerFrame(round, crop); }, {}},
        {"rgba", speech(PixelForm::kRgba), {}},
        {"i420", speech(PixelForm::kI420), {}},
        {"nv12", speech(PixelForm::kNv12), {}},
        {"rgba_idle", idle(PixelForm::kRgba), {}},
        {"i420_idle", idle(PixelForm::kI420), {}},
        {"nv12_idle", idle(PixelForm::kNv12), {}},
        {"rgba_former_copies",
         [&](int round, const float*) { bench.formerFrame(round, nullptr); },
         {}},
        {"i420_copies", [&](int round, const float*) { bench.conversions(round); }, {}},
    };
    for (int round = 0; round < 2 * kRounds; ++round) {
        for (Way& way : ways) {
            const float* crop = bench.render(round);
            const double took = zorv::bench::cpuSeconds([&] { way.frame(round % kRounds, crop); });
            // The first time round decodes.
            if (round >= kRounds) way.seconds.push_back(took);
        }
    }
    const double former = zorv::bench::median(ways[0].seconds);
    std::printf("{\n");
    for (const Way& way : ways) {
        const double median = zorv::bench::median(way.seconds);
        std::printf("  \"%s\": {\"us\": %.0f, \"ratio\": %.3f}%s\n", way.name, 1e6 * median,
                    median / former, &way == std::end(ways) - 1 ? "" : ",");
    }
    std::printf("}\n");
    return 0;
}
