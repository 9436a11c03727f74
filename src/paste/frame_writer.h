// RGB rows become part of a frame of any form.
#pragma once

#include <cstdint>

#include "paste/frame_view.h"
#include "paste/paste_placement.h"
#include "paste/yuv.h"

namespace zorv {

/// A target frame as others are made from it. Owns nothing.
struct Backdrop {
    const std::uint8_t* rgb = nullptr;  ///< the pixels of `area`, row by row without gaps
    FrameArea area;                     ///< at least what is blended; all of it without `i420`
    FrameView i420;                     ///< the whole frame once more; null planes for none

    const std::uint8_t* pixel(int x, int y) const {
        return rgb + 3 * (std::ptrdiff_t{y - area.top} * (area.right - area.left) + x - area.left);
    }
};

/// All of a W x H frame in RGB.
inline Backdrop rgbBackdrop(const std::uint8_t* rgb, int W, int H) {
    return {rgb, {0, 0, W, H}, {}};
}

/// Writes a W x H frame, two rows at a time. Rows may be written by several threads at once.
class FrameWriter {
  public:
    /// `matrix` is not used for RGBA and RGB. The frame must outlive the writer.
    FrameWriter(PixelForm form, YuvMatrix matrix, const FrameView& out, int W, int H)
        : form_(form), weights_(yuvWeights(matrix)), out_(out), width_(W), height_(H) {}

    int width() const { return width_; }
    int height() const { return height_; }

    /// Rows y and y + 1 from column x on: `count` RGB pixels of `top` and of `bottom`, which is not
    /// read when y is the last row. In RGB, source and destination of a row may be the same.
    /// REQUIRES: y and x even; x + count even or the width.
    void rows(int x, int y, int count, const std::uint8_t* top, const std::uint8_t* bottom) const;

    /// Rows y and y + 1 of the target frame. REQUIRES: y even.
    void rows(int y, const Backdrop& from) const;
    /// All of it.
    void frame(const Backdrop& from) const;

  private:
    void copyRows(int y, const FrameView& i420) const;
    void row(int x, int y, int count, const std::uint8_t* rgb) const;
    void interleavedChroma(const std::uint8_t* top, const std::uint8_t* bottom, std::uint8_t* uv,
                           int count) const;

    const YuvKernels& yuv_ = *chooseKernel(kYuvKernels).entry;
    PixelForm form_;
    const YuvWeights& weights_;
    FrameView out_;
    int width_;
    int height_;
};

}  // namespace zorv
