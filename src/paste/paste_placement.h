// Where a placement puts the crop in a frame, and how much of it the mask lets through.
#pragma once

#include <array>
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

/// Geometry and coverage of one placement, kept until another placement or frame size comes:
/// all of it is the same for the next frame of the same target.
class Placement {
  public:
    /// Sets up for M = (a, b, tx, c, d, ty) in a W x H frame. False: nothing can be drawn, and
    /// no other member may be used. M singular, not finite or too large is such a case.
    bool locate(const float* M, int side, int W, int H);

    /// True when `cover` has run since `locate` last changed anything.
    bool covered() const { return covered_; }

    /// Finds the rows' coverage; `mask` points at element (0, 0) of a plane with an apron.
    /// `split(n, fn)` runs fn over parts of [0, n).
    template <class Split>
    void cover(const PasteKernels& kernels, const PhaseTable& linear, const float* mask,
               std::ptrdiff_t stride, int side, const Split& split) {
        findSpans(side);
        split(static_cast<std::ptrdiff_t>(rows_.size()), [&](std::ptrdiff_t a, std::ptrdiff_t b) {
            coverRows(kernels, linear, mask, stride, a, b);
        });
        covered_ = true;
    }

    int x0() const { return x0_; }
    int y0() const { return y0_; }
    const std::vector<PlacedRow>& rows() const { return rows_; }  ///< from y0 downwards
    const std::uint8_t* levels(const PlacedRow& row) const { return levels_.data() + row.levels; }
    RowPositions positions(const PlacedRow& row) const {
        return {colU_.data() + row.first, colV_.data() + row.first, row.rowU, row.rowV, row.count};
    }

  private:
    bool boundingBox(int side);
    bool tables();
    void findSpans(int side);
    void coverRows(const PasteKernels& kernels, const PhaseTable& linear, const float* mask,
                   std::ptrdiff_t stride, std::ptrdiff_t begin, std::ptrdiff_t end);

    std::array<float, 6> M_{};
    int W_ = 0;
    int H_ = 0;
    bool known_ = false;  ///< the tables below belong to M_, W_ and H_
    bool covered_ = false;
    int x0_ = 0, x1_ = 0, y0_ = 0, y1_ = 0;  ///< inclusive
    std::vector<int> colU_, colV_;           ///< each column's share of the crop position
    std::vector<PlacedRow> rows_;
    std::vector<std::uint8_t> levels_;
};

}  // namespace zorv
