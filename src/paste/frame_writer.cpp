#include "paste/frame_writer.h"

#include <algorithm>
#include <cstring>

#include "paste/rgba.h"

namespace zorv {
/// Through a buffer that stays in the nearest cache.
void FrameWriter::interleavedChroma(const std::uint8_t* top, const std::uint8_t* bottom,
                                    std::uint8_t* uv, int count) const {
    constexpr int kBlock = 512;  // pixels
    std::uint8_t u[kBlock / 2], v[kBlock / 2];
    for (int i = 0; i < count; i += kBlock) {
        const std::ptrdiff_t at = std::ptrdiff_t{3} * i;
        const int n = std::min(kBlock, count - i);
        yuv_.chromaRow(top + at, bottom + at, weights_, u, v, n);
        yuv_.interleaveRow(u, v, uv + i, (n + 1) / 2);
    }
}

void FrameWriter::row(int x, int y, int count, const std::uint8_t* rgb) const {
    std::uint8_t* to = out_.row(0, y);
    const auto pixels = static_cast<std::size_t>(count);
    switch (form_) {
        case PixelForm::kRgba:
            rgbToRgba(rgb, to + std::ptrdiff_t{4} * x, pixels);
            break;
        case PixelForm::kRgb:
            to += std::ptrdiff_t{3} * x;
            if (to != rgb) std::memcpy(to, rgb, 3 * pixels);
            break;
        case PixelForm::kI420:
        case PixelForm::kNv12:
            yuv_.lumaRow(rgb, weights_, to + x, count);
            break;
    }
}

void FrameWriter::rows(int x, int y, int count, const std::uint8_t* top,
                       const std::uint8_t* bottom) const {
    row(x, y, count, top);
    if (y + 1 < height_) {
        row(x, y + 1, count, bottom);
    } else {
        bottom = top;
    }
    if (form_ == PixelForm::kI420) {
        yuv_.chromaRow(top, bottom, weights_, out_.row(1, y / 2) + x / 2,
                       out_.row(2, y / 2) + x / 2, count);
    } else if (form_ == PixelForm::kNv12) {
        interleavedChroma(top, bottom, out_.row(1, y / 2) + x, count);
    }
}

void FrameWriter::frame(const std::uint8_t* rgb) const {
    const std::ptrdiff_t stride = std::ptrdiff_t{3} * width_;
    for (int y = 0; y < height_; y += 2) {
        const std::uint8_t* top = rgb + y * stride;
        rows(0, y, width_, top, top + stride);
    }
}

}  // namespace zorv
