// Finished frames in memory of any owner, and the forms that they come in.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zorv {

enum class PixelForm {
    kRgba,  ///< one plane, 4 bytes per pixel, alpha 255
    kRgb,   ///< one plane, 3 bytes per pixel
    kI420,  ///< Y, and U and V at half the width and height, rounded up
    kNv12,  ///< Y, and one plane of U and V by turns
};

/// Both in limited range: Y in 16..235, U and V in 16..240.
enum class YuvMatrix { kBt601, kBt709 };

/// What a host expects when it does not say: BT.709 from 720 lines on.
constexpr YuvMatrix matrixFor(int H) {
    return H >= 720 ? YuvMatrix::kBt709 : YuvMatrix::kBt601;
}

constexpr int kMaxPlanes = 3;
constexpr bool isYuv(PixelForm form) {
    return form == PixelForm::kI420 || form == PixelForm::kNv12;
}
constexpr int planeCount(PixelForm form) {
    return form == PixelForm::kI420 ? 3 : form == PixelForm::kNv12 ? 2 : 1;
}

/// What a plane of a W x H frame holds.
struct PlaneSize {
    std::ptrdiff_t bytes;  ///< per row
    int rows;
};
PlaneSize planeSize(PixelForm form, int plane, int W, int H);

/// Where a frame's planes begin and how many bytes one row lies behind the other. Owns nothing.
struct FrameView {
    std::uint8_t* plane[kMaxPlanes] = {};
    std::ptrdiff_t stride[kMaxPlanes] = {};

    std::uint8_t* row(int p, int y) const { return plane[p] + y * stride[p]; }
};

/// Bytes of a W x H frame whose planes follow one another without gaps.
std::size_t packedSize(PixelForm form, int W, int H);
/// Such a frame at `buffer`.
FrameView packedView(PixelForm form, std::uint8_t* buffer, int W, int H);

/// Copies a W x H frame; the two must not overlap.
void copyFrame(PixelForm form, const FrameView& from, const FrameView& to, int W, int H);

}  // namespace zorv
