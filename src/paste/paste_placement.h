// Where a placement puts the crop in a frame, and how much of it the mask lets through.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "paste/paste_kernels.h"

namespace zorv {

/// The part of one frame row that has coverage. Pixel i of it is column x0 + first + i.
struct PlacedRow {
    int rowU = 0;
    int rowV = 0;
    int first = 0;
    int count = 0;
    std::size_t levels = 0;  ///< offset of the row's coverage
};

/// Columns [left, right) of the rows [top, bottom) of a frame.
struct FrameArea {
    int left = 0;
    int top = 0;
    int right = 0;
    int bottom = 0;
};

/// Geometry and coverage of one placement: the same for every crop that is pasted through it.
/// Any number of threads may read one.
class Placement {
  public:
    Placement() = default;  ///< draws nothing

    /// Sets up for M = (a, b, tx, c, d, ty) in a W x H frame. False when nothing can be drawn, for
    /// example because M is singular, not finite or too large.
    bool locate(const float* M, int side, int W, int H);

    /// Finds the rows' coverage; `mask` points at element (0, 0) of a plane with an apron.
    /// `split(n, fn)` runs fn over parts of [0, n). REQUIRES: locate() gave true.
    template <class Split>
    void cover(const PasteKernels& kernels, const PhaseTable& linear, const float* mask,
               std::ptrdiff_t stride, int side, const Split& split) {
        findSpans(side);
        split(static_cast<std::ptrdiff_t>(rows_.size()), [&](std::ptrdiff_t a, std::ptrdiff_t b) {
            coverRows(kernels, linear, mask, stride, a, b);
        });
        finish();
    }

    bool located() const { return located_; }
    /// All that has coverage, grown to even columns and rows as far as the frame goes: the blocks
    /// of four pixels that share their colour in YUV are inside or outside. Empty before cover().
    const FrameArea& area() const { return area_; }
    /// What is covered of frame row y; null when nothing is.
    const PlacedRow* row(int y) const {
        if (y < area_.top || y >= area_.bottom || y < y0_ || y > y1_) return nullptr;
        const PlacedRow& placed = rows_[static_cast<std::size_t>(y - y0_)];
        return placed.count > 0 ? &placed : nullptr;
    }
    int x0() const { return x0_; }
    const std::uint8_t* levels(const PlacedRow& row) const { return levels_.data() + row.levels; }
    RowPositions positions(const PlacedRow& row) const {
        return {colU_.data() + row.first, colV_.data() + row.first, row.rowU, row.rowV, row.count};
    }
    /// Memory that the tables take.
    std::size_t bytes() const;

  private:
    bool boundingBox(const float* M, int side, int W, int H);
    bool tables(const float* M);
    void findSpans(int side);
    void coverRows(const PasteKernels& kernels, const PhaseTable& linear, const float* mask,
                   std::ptrdiff_t stride, std::ptrdiff_t begin, std::ptrdiff_t end);
    void finish();

    bool located_ = false;
    int W_ = 0;
    int H_ = 0;
    int x0_ = 0, x1_ = 0, y0_ = 0, y1_ = 0;  ///< of the crop with the widest kernel, inclusive
    FrameArea area_;
    std::vector<int> colU_, colV_;  ///< each column's share of the crop position
    std::vector<PlacedRow> rows_;   ///< from y0 downwards
    std::vector<std::uint8_t> levels_;
};

}  // namespace zorv
