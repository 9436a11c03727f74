// The generated demo subject through the C interface: at rest nobody sees that a crop is pasted,
// and int8 keeps the picture of its stored driving sequence.
//   demo_subject_test, with ZORV_DEMO_BUNDLE naming the bundle
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "support/scoped_env.h"
#include "support/test_bundle.h"
#include "zorv_core.hpp"

namespace zorv {
namespace {

namespace fs = std::filesystem;

template <class T>
std::vector<T> readArray(const std::string& path) {
    const std::string bytes = test::readFile(path);
    std::vector<T> values(bytes.size() / sizeof(T));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(T));
    return values;
}

class DemoSubject : public testing::Test {
  protected:
    void SetUp() override {
        const char* path = std::getenv("ZORV_DEMO_BUNDLE");
        ASSERT_TRUE(path) << "ZORV_DEMO_BUNDLE is not set";
        source_ = path;
        // The same subject without sharpening, which would count as a difference.
        for (const auto& entry : fs::directory_iterator(source_)) {
            fs::create_symlink(entry.path(), dir_.path() + "/" + entry.path().filename().string());
        }
        std::string manifest = test::readFile(source_ + "/manifest.json");
        const std::size_t colon = manifest.find(':', manifest.find("\"amount\""));
        manifest.replace(colon + 1, manifest.find(',', colon) - colon - 1, " 0");
        fs::remove(dir_.path() + "/manifest.json");
        test::writeFile(dir_.path() + "/manifest.json", manifest);

        keypoints_ = readArray<float>(source_ + "/xs_target.bin");
        placements_ = readArray<float>(source_ + "/M.f32");
        mask_ = readArray<std::uint8_t>(source_ + "/mask_512.u8");
    }

    ContextPtr open(const char* key) const {
        return ContextPtr(zorv_create(dir_.path().c_str(), key, 2, nullptr));
    }

    /// Mean absolute difference of `rgb` to target frame i over the pixels under the mask.
    double differenceInsideMask(zorv_ctx* ctx, int i, const std::uint8_t* rgb) const {
        const std::vector<double> m(placements_.begin() + 6 * i, placements_.begin() + 6 * i + 6);
        const double det = m[0] * m[4] - m[1] * m[3];
        const int side = zorv_crop(ctx), width = zorv_width(ctx);
        const std::uint8_t* target = zorv_target_frame(ctx, i);
        double sum = 0, count = 0;
        for (int y = 0; y < zorv_height(ctx); ++y) {
            for (int x = 0; x < width; ++x) {
                const double u = (m[4] * (x - m[2]) - m[1] * (y - m[5])) / det;
                const double v = (-m[3] * (x - m[2]) + m[0] * (y - m[5])) / det;
                const int column = static_cast<int>(std::lround(u));
                const int row = static_cast<int>(std::lround(v));
                if (column < 0 || row < 0 || column >= side || row >= side) continue;
                if (mask_[static_cast<std::size_t>(row * side + column)] == 0) continue;
                for (int c = 0; c < 3; ++c) {
                    const int at = (y * width + x) * 3 + c;
                    sum += std::abs(int{rgb[at]} - int{target[at]});
                }
                count += 3;
            }
        }
        EXPECT_GT(count, 100000);
        return sum / count;
    }

    test::TempDir dir_;
    std::string source_;
    std::vector<float> keypoints_, placements_;
    std::vector<std::uint8_t> mask_;
};

TEST_F(DemoSubject, AtRestTheCropVanishesInItsFrame) {
    for (const char* key : {"render", "b24_fp32", "synth", "refined", "refined_int8"}) {
        const ContextPtr ctx = open(key);
        ASSERT_TRUE(ctx) << zorv_last_error();
        for (const int frame : {0, zorv_nt(ctx.get()) / 2, zorv_nt(ctx.get()) - 1}) {
            const float* rest = keypoints_.data() + 63 * frame;
            ASSERT_TRUE(zorv_render_kp_crop(ctx.get(), frame, rest, rest)) << zorv_last_error();
            const std::uint8_t* rgb = zorv_paste_last(ctx.get(), frame);
            ASSERT_TRUE(rgb) << zorv_last_error();
            const double difference = differenceInsideMask(ctx.get(), frame, rgb);
            EXPECT_LE(difference, 2.0) << key << " frame " << frame;
            RecordProperty(std::string(key) + std::to_string(frame), std::to_string(difference));
        }
    }
}

TEST_F(DemoSubject, TheInt8VariantKeepsThePicture) {
    const ContextPtr exact = open("refined"), int8 = open("refined_int8");
    ASSERT_TRUE(exact && int8) << zorv_last_error();
    const auto pixels = static_cast<std::size_t>(zorv_crop(exact.get()) * zorv_crop(exact.get()));
    for (int k = 0; k < zorv_drive_frames(exact.get()); k += 15) {
        const float* a = zorv_render_drive_crop(exact.get(), k);
        const float* b = zorv_render_drive_crop(int8.get(), k);
        ASSERT_TRUE(a && b) << zorv_last_error();
        double sum = 0, largest = 0;
        for (std::size_t i = 0; i < 3 * pixels; ++i) {
            const double difference = std::abs(double{a[i]} - double{b[i]}) * 255;
            sum += difference;
            largest = std::max(largest, difference);
        }
        const double mean = sum / static_cast<double>(3 * pixels);
        EXPECT_LE(mean, 2.0) << "frame " << k;
        EXPECT_GT(mean, 0.0) << "frame " << k << ": nothing was quantised";
        EXPECT_LE(largest, 8.0) << "frame " << k;
        RecordProperty("int8_" + std::to_string(k), std::to_string(mean));
    }
}

TEST_F(DemoSubject, Int8ModelsNeedTheirOperator) {
    ::setenv("ZORV_INT8", "0", 1);
    EXPECT_FALSE(open("refined_int8"));
    EXPECT_NE(std::string(zorv_last_error()).find("Int8ConvVNNI"), std::string::npos)
        << zorv_last_error();
    EXPECT_TRUE(open("refined")) << zorv_last_error();
    ::unsetenv("ZORV_INT8");
}

}  // namespace
}  // namespace zorv
