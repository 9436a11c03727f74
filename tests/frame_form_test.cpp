// Frames in every form: against a conversion in double precision, at every size and stride.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "capi/zorv_ctx.h"
#include "paste/frame_writer.h"
#include "support/kernels.h"
#include "support/test_bundle.h"
#include "zorv_core.h"

namespace zorv {
namespace {

constexpr PixelForm kForms[] = {PixelForm::kRgba, PixelForm::kRgb, PixelForm::kI420,
                                PixelForm::kNv12};
constexpr std::uint8_t kUntouched = 0xa5;

using Bytes = std::vector<std::uint8_t>;

/// A frame whose rows have `gap` bytes of their own behind them.
struct Frame {
    Frame(PixelForm frameForm, int width, int height, int gap)
        : form(frameForm), W(width), H(height) {
        for (int p = 0; p < planeCount(form); ++p) {
            const PlaneSize size = planeSize(form, p, W, H);
            view.stride[p] = size.bytes + gap;
            planes[p].assign(static_cast<std::size_t>(view.stride[p] * size.rows), kUntouched);
            view.plane[p] = planes[p].data();
        }
    }
    int at(int plane, int x, int y) const { return view.row(plane, y)[x]; }
    bool gapsUntouched() const {
        for (int p = 0; p < planeCount(form); ++p) {
            const PlaneSize size = planeSize(form, p, W, H);
            for (int y = 0; y < size.rows; ++y) {
                const std::uint8_t* row = view.row(p, y);
                const auto touched = [](std::uint8_t v) { return v != kUntouched; };
                if (std::any_of(row + size.bytes, row + view.stride[p], touched)) return false;
            }
        }
        return true;
    }
    PixelForm form;
    int W, H;
    Bytes planes[kMaxPlanes];
    FrameView view;
};

/// Luma, blue and red difference of a pixel, in limited range.
std::array<double, 3> exactYuv(const std::uint8_t* rgb, YuvMatrix matrix) {
    const double kr = matrix == YuvMatrix::kBt601 ? 0.299 : 0.2126;
    const double kb = matrix == YuvMatrix::kBt601 ? 0.114 : 0.0722;
    const double r = rgb[0] / 255.0, g = rgb[1] / 255.0, b = rgb[2] / 255.0;
    const double y = kr * r + (1 - kr - kb) * g + kb * b;
    return {16 + 219 * y, 128 + 112 * (b - y) / (1 - kb), 128 + 112 * (r - y) / (1 - kr)};
}

std::string place(const Frame& frame, int plane, int x, int y, double got, double wanted) {
    return "form " + std::to_string(static_cast<int>(frame.form)) + " " + std::to_string(frame.W) +
           " x " + std::to_string(frame.H) + " plane " + std::to_string(plane) + " (" +
           std::to_string(x) + ", " + std::to_string(y) + "): " + std::to_string(got) +
           " instead of " + std::to_string(wanted);
}

/// The first value that differs from a conversion of `rgb` by more than `tolerance` (YUV), or at
/// all (RGB); empty when none does.
std::string difference(const Frame& frame, const Bytes& rgb, YuvMatrix matrix, double tolerance) {
    const auto pixel = [&](int x, int y) {
        x = std::min(x, frame.W - 1), y = std::min(y, frame.H - 1);
        return rgb.data() + (std::ptrdiff_t{y} * frame.W + x) * 3;
    };
    for (int y = 0; y < frame.H; ++y) {
        for (int x = 0; x < frame.W; ++x) {
            if (isYuv(frame.form)) {
                const double wanted = exactYuv(pixel(x, y), matrix)[0];
                const int got = frame.at(0, x, y);
                if (std::abs(got - wanted) > tolerance) return place(frame, 0, x, y, got, wanted);
                continue;
            }
            const int bytes = frame.form == PixelForm::kRgba ? 4 : 3;
            for (int c = 0; c < bytes; ++c) {
                const int wanted = c == 3 ? 255 : pixel(x, y)[c];
                const int got = frame.at(0, bytes * x + c, y);
                if (got != wanted) return place(frame, 0, x, y, got, wanted);
            }
        }
    }
    if (!isYuv(frame.form)) return "";
    for (int y = 0; y < (frame.H + 1) / 2; ++y) {
        for (int x = 0; x < (frame.W + 1) / 2; ++x) {
            for (int c = 1; c <= 2; ++c) {
                double wanted = 0;
                for (int i = 0; i < 4; ++i) {
                    wanted += exactYuv(pixel(2 * x + i % 2, 2 * y + i / 2), matrix)[c] / 4;
                }
                const int got = frame.form == PixelForm::kI420 ? frame.at(c, x, y)
                                                               : frame.at(1, 2 * x + c - 1, y);
                if (std::abs(got - wanted) > tolerance) return place(frame, c, x, y, got, wanted);
            }
        }
    }
    return "";
}

/// All extremes and any colour between.
Bytes picture(std::mt19937& rng, int W, int H) {
    Bytes rgb(static_cast<std::size_t>(W) * H * 3);
    for (std::uint8_t& v : rgb) {
        v = static_cast<std::uint8_t>(rng() % 3 ? rng() : (rng() % 2) * 255);
    }
    return rgb;
}

TEST(FrameForm, EveryFormIsAConversionOfTheRgbFrame) {
    std::mt19937 rng(1);
    const int sizes[] = {1, 2, 3, 5, 16, 31, 64, 67};
    for (const PixelForm form : kForms) {
        for (const YuvMatrix matrix : {YuvMatrix::kBt601, YuvMatrix::kBt709}) {
            for (const int W : sizes) {
                const int H = sizes[rng() % std::size(sizes)];
                const Bytes rgb = picture(rng, W, H);
                const Frame frame(form, W, H, static_cast<int>(rng() % 40));
                FrameWriter(form, matrix, frame.view, W, H).frame(rgbBackdrop(rgb.data(), W, H));
                ASSERT_EQ(difference(frame, rgb, matrix, 0.6), "");
                ASSERT_TRUE(frame.gapsUntouched());

                Bytes packed(packedSize(form, W, H) + 1, kUntouched);
                const Frame copy(form, W, H, static_cast<int>(rng() % 3));
                const FrameView between = packedView(form, packed.data(), W, H);
                copyFrame(form, frame.view, between, W, H);
                copyFrame(form, between, copy.view, W, H);
                ASSERT_EQ(packed.back(), kUntouched);
                ASSERT_EQ(difference(copy, rgb, matrix, 0.6), "");
                ASSERT_TRUE(copy.gapsUntouched());
            }
        }
    }
}

/// Frames of a context: a whole bundle, of odd and of even size.
class ContextForms : public testing::TestWithParam<int> {
  protected:
    ContextForms() {
        std::mt19937 rng(2);
        for (float& v : crop) v = static_cast<float>(rng() % 1024) / 1023;
    }

    Bytes rgb(int frame, const float* face) {
        Bytes packed(ctx->frameBytes(PixelForm::kRgb));
        ctx->compose(frame, face, PixelForm::kRgb, YuvMatrix::kBt601,
                     ctx->packed(PixelForm::kRgb, packed.data()));
        return packed;
    }
    /// The frame in YUV equals a conversion of `wanted`.
    void expectYuv(int frame, const float* face, PixelForm form, YuvMatrix matrix,
                   const Bytes& wanted) {
        const Frame yuv(form, options.width, options.height, frame);
        ctx->compose(frame, face, form, matrix, yuv.view);
        EXPECT_EQ(difference(yuv, wanted, matrix, 0.6), "");
        EXPECT_TRUE(yuv.gapsUntouched());
    }

    const test::TestBundleOptions options{.width = 48 - GetParam(), .height = 40 - GetParam()};
    test::TestBundle bundle{options};
    std::vector<float> crop = std::vector<float>(3 * test::kTestCrop * test::kTestCrop);
    const std::unique_ptr<zorv_ctx> ctx =
        (bundle.useModel("render", "render"),
         std::make_unique<zorv_ctx>(bundle.dir(), "render", 1, ""));
};

INSTANTIATE_TEST_SUITE_P(, ContextForms, testing::Values(0, 1));

TEST_P(ContextForms, FacesAndIdleFramesAreConversionsOfTheRgbFrame) {
    for (const bool spoken : {false, true}) {
        const float* face = spoken ? crop.data() : nullptr;
        for (int frame = 0; frame < options.nt; ++frame) {
            for (const YuvMatrix matrix : {YuvMatrix::kBt601, YuvMatrix::kBt709}) {
                for (const PixelForm form : {PixelForm::kI420, PixelForm::kNv12}) {
                    expectYuv(frame, face, form, matrix, rgb(frame, face));
                }
            }
            const Frame rgba(PixelForm::kRgba, options.width, options.height, 5);
            ctx->compose(frame, face, PixelForm::kRgba, YuvMatrix::kBt601, rgba.view);
            EXPECT_EQ(difference(rgba, rgb(frame, face), YuvMatrix::kBt601, 0), "");
        }
        EXPECT_EQ(rgb(0, face) == rgb(0, nullptr), !spoken);
    }
}

TEST_P(ContextForms, YuvFramesKeepNoRgbFrameAndUseOneThatIsThere) {
    const Bytes first = rgb(0, crop.data());
    zorv_ctx other(bundle.dir(), "render", 1, "");
    for (int frame = 0; frame < options.nt; ++frame) {
        const Frame yuv(PixelForm::kI420, options.width, options.height, 0);
        other.compose(frame, nullptr, PixelForm::kI420, YuvMatrix::kBt709, yuv.view);
        bundle.remove("target_frames/frame_00000" + std::to_string(frame) + ".jpg");
        other.compose(frame, crop.data(), PixelForm::kNv12, YuvMatrix::kBt709,
                      Frame(PixelForm::kNv12, options.width, options.height, 0).view);
    }
    EXPECT_EQ(zorv_target_frame(&other, 1), nullptr) << "decoded and kept, but nobody asked";
    expectYuv(0, crop.data(), PixelForm::kI420, YuvMatrix::kBt601, first);
}

TEST(FrameForm, TheMatrixFollowsTheHeight) {
    EXPECT_EQ(matrixFor(719), YuvMatrix::kBt601);
    EXPECT_EQ(matrixFor(720), YuvMatrix::kBt709);
}

TEST(FrameForm, KernelsGiveThePortableBytes) {
    std::mt19937 rng(3);
    for (int count = 1; count <= 140; ++count) {
        const Bytes top = picture(rng, count, 1), bottom = picture(rng, count, 1);
        for (const YuvMatrix matrix : {YuvMatrix::kBt601, YuvMatrix::kBt709}) {
            const auto rows = [&](const YuvKernels& kernels) {
                Bytes yuv(static_cast<std::size_t>(3 * count + 1), kUntouched);
                std::uint8_t* u = yuv.data() + count;
                kernels.lumaRow(top.data(), yuvWeights(matrix), yuv.data(), count);
                kernels.chromaRow(top.data(), bottom.data(), yuvWeights(matrix), u,
                                  u + (count + 1) / 2, count);
                return yuv;
            };
            const Bytes wanted = rows(kYuvKernelsPortable);
            for (const auto& kernel : test::usableKernels(kYuvKernels)) {
                ASSERT_TRUE(test::same(rows(*kernel.entry), wanted))
                    << kernel.name << ", " << count << " pixels";
            }
        }
    }
}

}  // namespace
}  // namespace zorv
