// Damaged image files: refused, or decoded to the same pixels every time.
#include <gtest/gtest.h>

#include "capi/jpeg_tables.h"
#include "capi/zorv_image.h"
#include "support/failure.h"
#include "support/test_bundle.h"

namespace zorv {
namespace {

const std::string kTables = "\xff\xc4";

class Image : public testing::Test {
  protected:
    Image() { test::writeFile(path_, good_); }

    /// Decodes `bytes`, or says why not.
    std::string decode(const std::string& bytes, std::size_t mostPixels = 48 * 40) {
        test::writeFile(path_, bytes);
        return test::failure([&] { pixels_ = loadImageRGB(path_, width_, height_, mostPixels); });
    }

    /// The good file with one byte more than a table may have in the table at `segment`, behind
    /// the marker, the length and the class.
    std::string overfull(std::size_t segment) const {
        std::string bytes = good_;
        bytes.replace(segment + 5, 2, "\xff\x02");
        return bytes;
    }

    const test::TestBundle bundle_;
    const std::string good_ = test::readFile(bundle_.path("target_frames/frame_000000.jpg"));
    const std::string path_ = bundle_.path("image");
    std::vector<std::uint8_t> pixels_;
    int width_ = 0, height_ = 0;
};

TEST_F(Image, HuffmanTablesOfMoreThan256SymbolsAreRefused) {
    EXPECT_TRUE(jpegTablesFit(good_));
    EXPECT_EQ(decode(good_), "no failure");
    EXPECT_EQ(pixels_.size(), std::size_t{48 * 40 * 3});
    const std::size_t first = good_.find(kTables);
    ASSERT_NE(first, std::string::npos);
    const std::string damaged = overfull(first);
    EXPECT_FALSE(jpegTablesFit(damaged));
    EXPECT_EQ(decode(damaged), "decode failed: " + path_);
    EXPECT_EQ(decode("\xff" + damaged), "decode failed: " + path_) << "fill byte before the start";

    // Behind the image data, where progressive files have further tables; and in a second table
    // that the segment's length does not cover.
    const std::string full = std::string("\x10\xff\x02") + std::string(14, '\0');
    EXPECT_FALSE(jpegTablesFit(good_.substr(0, good_.size() - 2) + kTables +
                               std::string("\0\x03", 2) + full + "\xff\xd9"));
    EXPECT_TRUE(jpegTablesFit(good_ + kTables + std::string("\0\x03", 2) + full))
        << "after its end";
    EXPECT_TRUE(jpegTablesFit("PNG" + damaged)) << "no JPEG file";
    for (std::size_t n = 0; n < good_.size(); n += 7) {
        EXPECT_TRUE(jpegTablesFit(good_.substr(0, n))) << "cut to " << n;
    }
}

TEST_F(Image, TheSizeThatAHeaderClaimsTakesNoMemory) {
    std::string bytes = good_;
    const std::size_t frame = bytes.find("\xff\xc0");
    ASSERT_NE(frame, std::string::npos);
    bytes.replace(frame + 5, 4, "\xff\xdc\xff\xdc");
    EXPECT_EQ(decode(bytes), "no failure");
    EXPECT_TRUE(pixels_.empty());
    EXPECT_EQ(width_, 65500);
    EXPECT_EQ(height_, 65500);
    EXPECT_EQ(decode(good_, 48 * 40 - 1), "no failure");
    EXPECT_TRUE(pixels_.empty());
}

}  // namespace
}  // namespace zorv
