// Puts a rendered face crop back into its target frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "bundle/zorv_bundle.h"
#include "common/memory.h"
#include "paste/frame_writer.h"
#include "paste/paste_kernels.h"
#include "paste/paste_placement.h"

namespace zorv {

/// Sharpens a crop (unsharp mask, reflect-101 border) and blends it into a frame through the
/// inverse of the frame's affine placement, under a mask that is resampled with it.
///
/// An instance keeps buffers: composites on one instance must not overlap; different instances
/// are independent. Results do not depend on the number of workers or on the instruction set.
///
/// `ZORV_PASTE_FAST` (0 Lanczos-4, 1 bicubic, 2 bilinear) and `ZORV_PASTE_KSIZE` (a smaller odd
/// blur kernel, at least 3) are read by the constructor; `ZORV_PASTE_THREADS` once per process.
class Paste {
  public:
    /// `mask` is side x side, row-major: 0 keeps the frame, 255 takes the crop. Throws
    /// std::runtime_error for a mask of another size or an even kernel size.
    static constexpr int kMaxSide = 1024;

    Paste(const std::vector<std::uint8_t>& mask, int side, Unsharp unsharp);
    /// With given inner loops and number of workers.
    Paste(const std::vector<std::uint8_t>& mask, int side, Unsharp unsharp,
          const PasteKernels& kernels, int workers);
    Paste(const Paste&) = delete;
    Paste& operator=(const Paste&) = delete;

    /// Where M = (a, b, tx, c, d, ty) puts the crop in a W x H frame, and how much of it the mask
    /// lets through: crop pixel (x, y) lands on (a x + b y + tx, c x + d y + ty). Nothing is drawn
    /// for a singular, not finite or far too large M. May run beside composite() and itself.
    Placement place(const float* M, int W, int H) const;

    /// Writes the target frame `from` to `out` with `crop` pasted in. The crop has 3 planes of side
    /// x side, whose values times `scale` are 0..255; plane c goes to byte c of an RGB pixel.
    /// `where` is from this instance, or from one of the same mask and side, and for frames of this
    /// size. `out` may be RGB and the target itself. Throws std::runtime_error "paste: side > 1024"
    /// and std::bad_alloc, nothing written.
    void composite(const float* crop, float scale, const Placement& where, const Backdrop& from,
                   const FrameWriter& out);

  private:
    struct Span {  ///< columns [begin, end)
        int begin = 0;
        int end = 0;
        bool empty() const { return begin >= end; }
        void include(Span other);
    };
    /// What one worker needs for itself.
    struct Scratch {
        AlignedVector<float> pad;        ///< one scaled crop row with its reflected border
        AlignedVector<float> blurred;    ///< the last horizontally blurred rows, a ring
        std::vector<const float*> taps;  ///< the blurred rows under the vertical kernel
        std::vector<std::uint8_t> rows;  ///< two rows of the blended area, RGB
    };

    void chooseKernels(const Unsharp& unsharp);
    void layPlanes(const std::vector<std::uint8_t>& mask);
    void findNeeds(const std::vector<std::uint8_t>& mask);
    Span window(int row) const;
    std::ptrdiff_t origin(int row) const { return (row + kApron) * stride_ + kMargin; }

    float* plane(int c) { return planes_.data() + c * planeSize_; }
    const float* plane(int c) const { return planes_.data() + c * planeSize_; }

    void fillPlanes(const float* crop, float scale);
    void unsharpPlane(const float* source, float scale, float* plane, Scratch& scratch, int begin,
                      int end);
    void blurRow(const float* source, float scale, int row, Scratch& scratch);
    void writeRows(const Placement& where, const Backdrop& from, const FrameWriter& out);
    void blendedRow(const Placement& where, const Backdrop& from, int y,
                    std::uint8_t* pixels) const;

    template <class Fn>
    void split(std::ptrdiff_t n, const Fn& fn) const;

    int side_;
    int ksize_;
    int padded_;  ///< side of the crop with its border: ksize + side - 1
    float amount_;
    const PasteKernels& kernels_;
    int workers_;
    std::vector<float> kernel_;  ///< ksize Gaussian weights
    PhaseTable resampling_;
    PhaseTable linear_;
    std::vector<int> fold_;             ///< padded index -> reflected crop index
    std::vector<std::ptrdiff_t> slot_;  ///< crop row -> its place in Scratch::blurred
    std::ptrdiff_t stride_ = 0;         ///< of the mask and the planes below
    AlignedVector<float> mask_;         ///< with an apron of zeros
    AlignedVector<float> planes_;       ///< three, sharpened; zeros where never resampled
    std::ptrdiff_t planeSize_ = 0;      ///< from one plane to the next
    std::vector<Span> sharpened_;       ///< per crop row: the columns that can be resampled
    std::vector<Span> blurred_;         ///< per crop row: the columns that those blur over
    std::vector<Scratch> scratch_;      ///< one per worker
};

}  // namespace zorv
