#include "paste/frame_writer.h"

#include <algorithm>
#include <cstring>

#include "paste/rgba.h"

namespace zorv {
namespace {

void interleave(const std::uint8_t* u, const std::uint8_t* v, std::uint8_t* uv, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        uv[2 * i] = u[i];
        uv[2 * i + 1] = v[i];
    }
}

}  // namespace
/// Through a buffer that stays in the nearest cache.
void FrameWriter::interleavedChroma(const std::uint8_t* top, const std::uint8_t* bottom,
                                    std::uint8_t* uv, int count) const {
    constexpr int kBlock = 512;  // pixels
    std::uint8_t u[kBlock / 2], v[kBlock / 2];
    for (int i = 0; i < count; i += kBlock) {
        const std::ptrdiff_t at = std::ptrdiff_t{3} * i;
        const int n = std::min(kBlock, count - i);
        yuv_.chromaRow(top + at, bottom + at, weights_, u, v, n);
        interleave(u, v, uv + i, static_cast<std::size_t>(n + 1) / 2);
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

void FrameWriter::copyRows(int y, const FrameView& i420) const {
    const auto width = static_cast<std::size_t>(width_);
    for (int at = y; at < std::min(y + 2, height_); ++at) {
        std::memcpy(out_.row(0, at), i420.row(0, at), width);
    }
    const std::size_t half = (width + 1) / 2;
    const std::uint8_t* u = i420.row(1, y / 2);
    const std::uint8_t* v = i420.row(2, y / 2);
    if (form_ == PixelForm::kNv12) {
        interleave(u, v, out_.row(1, y / 2), half);
    } else {
        std::memcpy(out_.row(1, y / 2), u, half);
        std::memcpy(out_.row(2, y / 2), v, half);
    }
}

void FrameWriter::rows(int y, const Backdrop& from) const {
    if (isYuv(form_) && from.i420.plane[0]) {
        copyRows(y, from.i420);
    } else {
        rows(0, y, width_, from.pixel(0, y), from.pixel(0, y + 1));
    }
}

void FrameWriter::frame(const Backdrop& from) const {
    for (int y = 0; y < height_; y += 2) rows(y, from);
}

}  // namespace zorv
