// RGB rows become part of a frame of any form.
#pragma once

#include <cstdint>

#include "paste/frame_view.h"
#include "paste/yuv.h"

namespace zorv {

/// Writes a W x H frame, two rows at a time. Rows may be written by several threads at once.
class FrameWriter {
  public:
    /// `matrix` is not used for RGBA and RGB. The frame must outlive the writer.
    FrameWriter(PixelForm form, YuvMatrix matrix, const FrameView& out, int W, int H)
        : form_(form), weights_(yuvWeights(matrix)), out_(out), width_(W), height_(H) {}

    int width() const { return width_; }
    int height() const { return height_; }

    /// Rows y and y + 1 from column x on: `count` RGB pixels of `top` and of `bottom`, which is
    /// not read when y is the last row. In RGB a row may lie where it is written to.
    /// REQUIRES: y and x even; x + count even or the width.
    void rows(int x, int y, int count, const std::uint8_t* top, const std::uint8_t* bottom) const;

    /// The whole frame from W x H x 3 bytes RGB.
    void frame(const std::uint8_t* rgb) const;

  private:
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
