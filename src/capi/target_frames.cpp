#include "capi/target_frames.h"

#include <algorithm>
#include <cstring>

namespace zorv {

TargetFrames::TargetFrames(const Manifest& manifest)
    : width_(manifest.W),
      height_(manifest.H),
      frameBytes_(packedSize(PixelForm::kRgb, width_, height_)),
      frames_(toCount(manifest.NT)),
      rgb_(checkedProduct(frames_.size(), frameBytes_)) {}

void TargetFrames::keepRgb(int i, const std::vector<std::uint8_t>& pixels) {
    std::copy(pixels.begin(), pixels.end(), slot(i));
}

void TargetFrames::keepYuv(Yuv& yuv, YuvMatrix matrix, const FrameArea& area,
                           const std::uint8_t* rgb) const {
    const std::size_t planeBytes = packedSize(PixelForm::kI420, width_, height_);
    const std::size_t rowBytes = std::size_t{3} * static_cast<unsigned>(area.right - area.left);
    yuv.pages = ZeroedPages(planeBytes + rowBytes * static_cast<unsigned>(area.bottom - area.top));
    auto* bytes = static_cast<std::uint8_t*>(yuv.pages.data());
    const FrameView view = packedView(PixelForm::kI420, bytes, width_, height_);
    const Backdrop whole = rgbBackdrop(rgb, width_, height_);
    FrameWriter(PixelForm::kI420, matrix, view, width_, height_).frame(whole);
    std::uint8_t* blended = bytes + planeBytes;
    for (int y = area.top; y < area.bottom; ++y) {
        std::memcpy(blended + static_cast<std::size_t>(y - area.top) * rowBytes,
                    whole.pixel(area.left, y), rowBytes);
    }
    yuv.backdrop = {blended, area, view};
}

}  // namespace zorv
