// The rendering context through the C interface: results, texts, and bundles that are damaged.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/test_bundle.h"
#include "zorv_core.hpp"

namespace zorv {
namespace {

using test::TestBundle;

ContextPtr open(const TestBundle& bundle) {
    return ContextPtr(zorv_create(bundle.dir().c_str(), "render", 0, nullptr));
}

class ContextTest : public testing::Test {
  protected:
    ContextTest() { bundle.useModel("render", "render"); }

    std::size_t bytes() const {
        return static_cast<std::size_t>(bundle.options().width) *
               static_cast<std::size_t>(bundle.options().height) * 3;
    }

    TestBundle bundle;
};

TEST_F(ContextTest, PasteAndRgbaAgree) {
    const ContextPtr owner = open(bundle);
    ASSERT_TRUE(owner) << zorv_last_error();
    zorv_ctx* ctx = owner.get();
    const std::vector<float> source(63, 0.1f), driving(63, 0.3f);
    std::vector<std::uint8_t> rgba(bytes() / 3 * 4), rgb(bytes());

    ASSERT_EQ(zorv_render_kp_rgba(ctx, 1, source.data(), driving.data(), rgba.data(), rgba.size()),
              1);
    const float* crop = zorv_render_kp_crop(ctx, 1, source.data(), driving.data());
    ASSERT_EQ(zorv_paste_crop(ctx, 1, crop, rgb.data(), rgb.size()), 1);
    const std::uint8_t* last = zorv_paste_last(ctx, 1);
    ASSERT_TRUE(last);
    EXPECT_TRUE(std::equal(rgb.begin(), rgb.end(), last));
    for (std::size_t i = 0; i < bytes() / 3; ++i) {
        ASSERT_EQ(rgba[4 * i + 3], 255);
        for (std::size_t c = 0; c < 3; ++c) ASSERT_EQ(rgba[4 * i + c], rgb[3 * i + c]) << i;
    }
    EXPECT_FALSE(std::equal(rgb.begin(), rgb.end(), zorv_target_frame(ctx, 1)));

    // In planes: the same picture.
    const std::int32_t stride[] = {zorv_width(ctx) * 4, 0, 0};
    std::vector<std::uint8_t> same(rgba.size());
    std::uint8_t* const plane[] = {same.data(), nullptr, nullptr};
    ASSERT_EQ(zorv_paste_planes(ctx, 1, crop, ZORV_PIXELS_RGBA, ZORV_MATRIX_AUTO, plane, stride),
              1);
    EXPECT_EQ(same, rgba);
    const std::int32_t narrow[] = {zorv_width(ctx) * 4 - 1};
    EXPECT_EQ(zorv_paste_planes(ctx, 1, crop, ZORV_PIXELS_RGBA, ZORV_MATRIX_AUTO, plane, narrow),
              0);
    EXPECT_EQ(zorv_paste_planes(ctx, 1, crop, ZORV_PIXELS_I420, ZORV_MATRIX_AUTO, plane, stride),
              0);
    EXPECT_STREQ(zorv_last_error(), "zorv_paste_planes: missing plane / stride too small");
    EXPECT_EQ(zorv_paste_planes(ctx, 1, crop, 4, ZORV_MATRIX_AUTO, plane, stride), 0);
    EXPECT_STREQ(zorv_last_error(), "zorv_paste_planes: bad args");

    // A buffer that is too small fails after the render: what was rendered can be pasted.
    EXPECT_EQ(zorv_render_kp_rgba(ctx, 2, driving.data(), source.data(), rgba.data(), 10), 0);
    EXPECT_STREQ(zorv_last_error(), "zorv_render_*_rgba: out buffer too small");
    const std::vector<std::uint8_t> rendered(zorv_paste_last(ctx, 2),
                                             zorv_paste_last(ctx, 2) + bytes());
    crop = zorv_render_kp_crop(ctx, 2, driving.data(), source.data());
    ASSERT_EQ(zorv_paste_crop(ctx, 2, crop, rgb.data(), rgb.size()), 1);
    EXPECT_EQ(rendered, rgb);
    EXPECT_EQ(zorv_render_drive_rgba(ctx, 0, rgba.data(), rgba.size()), 1);
}

TEST_F(ContextTest, FailedRenderAndTargetLeaveTheContextUsable) {
    bundle.useModel("render", "render_fails");
    bundle.remove("target_frames/frame_000001.jpg");
    bundle.noise("target_frames/frame_000002.jpg");
    const ContextPtr owner = open(bundle);
    ASSERT_TRUE(owner) << zorv_last_error();
    zorv_ctx* ctx = owner.get();
    const std::vector<float> good(63, 0.0f), bad(63, 1000.0f);
    ASSERT_TRUE(zorv_render_kp_crop(ctx, 0, good.data(), good.data()));
    EXPECT_EQ(zorv_render_kp_crop(ctx, 0, good.data(), bad.data()), nullptr);
    EXPECT_EQ(std::string(zorv_last_error()).rfind("zorv_render_kp_crop: ", 0), 0u);
    EXPECT_TRUE(zorv_paste_last(ctx, 0));  // the crop before the failure is still there
    for (const int frame : {1, 2}) {
        const std::string path =
            bundle.path("target_frames/frame_00000" + std::to_string(frame) + ".jpg");
        EXPECT_EQ(zorv_target_frame(ctx, frame), nullptr);
        EXPECT_EQ(zorv_last_error(), "zorv_target_frame: decode failed: " + path);
        EXPECT_EQ(zorv_paste_last(ctx, frame), nullptr);
        EXPECT_EQ(zorv_last_error(), "zorv_paste_last: decode failed: " + path);
    }
    bundle.write();  // put back: decoded at the next request
    EXPECT_TRUE(zorv_target_frame(ctx, 1));
}

}  // namespace
}  // namespace zorv
