#include "paste/paste_placement.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace zorv {
namespace {

/// False for NaN, too.
bool fitsInt(double value) {
    return value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max();
}

/// The columns [first, last) of a monotonic table whose sum with `rowTerm` lies in
/// [-1024, 1024 * side), cut down from the given ones.
void narrow(const std::vector<int>& table, std::int64_t rowTerm, int side, std::ptrdiff_t& first,
            std::ptrdiff_t& last) {
    const std::int64_t low = -1024 - rowTerm;
    const std::int64_t high = std::int64_t{1024} * side - rowTerm;
    const auto begin = table.begin();
    const auto below = [](std::int64_t bound) { return [=](int term) { return term < bound; }; };
    const auto atLeast = [](std::int64_t bound) { return [=](int term) { return term >= bound; }; };
    std::ptrdiff_t from, to;
    if (table.front() <= table.back()) {
        from = std::partition_point(begin, table.end(), below(low)) - begin;
        to = std::partition_point(begin, table.end(), below(high)) - begin;
    } else {
        from = std::partition_point(begin, table.end(), atLeast(high)) - begin;
        to = std::partition_point(begin, table.end(), atLeast(low)) - begin;
    }
    first = std::max(first, from);
    last = std::max(first, std::min(last, to));
}

}  // namespace

bool Placement::locate(const float* M, int side, int W, int H) {
    W_ = W;
    H_ = H;
    area_ = {};
    return located_ = boundingBox(M, side, W, H) && tables(M);
}

// The crop plus a margin for the widest kernel, clipped to the frame.
bool Placement::boundingBox(const float* M, int side, int W, int H) {
    float minX = 0, maxX = 0, minY = 0, maxY = 0;
    for (int corner = 0; corner < 4; ++corner) {
        const float x = corner & 1 ? static_cast<float>(side + 3) : -4.0f;
        const float y = corner & 2 ? static_cast<float>(side + 3) : -4.0f;
        const float px = M[0] * x + M[1] * y + M[2];
        const float py = M[3] * x + M[4] * y + M[5];
        if (!std::isfinite(px) || !std::isfinite(py)) return false;
        minX = corner ? std::min(minX, px) : px;
        maxX = corner ? std::max(maxX, px) : px;
        minY = corner ? std::min(minY, py) : py;
        maxY = corner ? std::max(maxY, py) : py;
    }
    const double left = std::floor(minX), right = std::ceil(maxX);
    const double top = std::floor(minY), bottom = std::ceil(maxY);
    if (!fitsInt(left) || !fitsInt(right) || !fitsInt(top) || !fitsInt(bottom)) return false;
    x0_ = std::max(static_cast<int>(left), 0);
    x1_ = std::min(static_cast<int>(right), W - 1);
    y0_ = std::max(static_cast<int>(top), 0);
    y1_ = std::min(static_cast<int>(bottom), H - 1);
    return x1_ >= x0_ && y1_ >= y0_;
}

// Column and row terms of the inverse map, in 1/1024 crop pixel.
bool Placement::tables(const float* M) {
    const double a = M[0], b = M[1], tx = M[2], c = M[3], d = M[4], ty = M[5];
    const double det = a * d - b * c;
    if (det == 0) return false;
    const double uX = d / det, vX = -c / det, uY = -b / det, vY = a / det;
    const double uc = -(tx * uX + ty * uY);
    const double vc = -(tx * vX + ty * vY);
    const auto column = [](int x, double slope) { return std::rint(x * slope * 1024); };
    // The 16 rounds the position to the nearest 1/32 pixel.
    const auto row = [](int y, double slope, double constant) {
        return std::rint((y * slope + constant) * 1024) + 16;
    };
    // All terms are monotonic: if the outermost ones fit, the others do.
    for (const int x : {x0_, x1_}) {
        if (!fitsInt(column(x, uX)) || !fitsInt(column(x, vX))) return false;
    }
    for (const int y : {y0_, y1_}) {
        if (!fitsInt(row(y, uY, uc)) || !fitsInt(row(y, vY, vc))) return false;
    }
    const auto columns = static_cast<std::size_t>(x1_ - x0_) + 1;
    colU_.resize(columns);
    colV_.resize(columns);
    for (std::size_t i = 0; i < columns; ++i) {
        colU_[i] = static_cast<int>(column(x0_ + static_cast<int>(i), uX));
        colV_[i] = static_cast<int>(column(x0_ + static_cast<int>(i), vX));
    }
    rows_.resize(static_cast<std::size_t>(y1_ - y0_) + 1);
    for (std::size_t i = 0; i < rows_.size(); ++i) {
        rows_[i].rowU = static_cast<int>(row(y0_ + static_cast<int>(i), uY, uc));
        rows_[i].rowV = static_cast<int>(row(y0_ + static_cast<int>(i), vY, vc));
    }
    return true;
}

void Placement::findSpans(int side) {
    std::size_t total = 0;
    for (PlacedRow& row : rows_) {
        std::ptrdiff_t first = 0;
        std::ptrdiff_t last = static_cast<std::ptrdiff_t>(colU_.size());
        narrow(colU_, row.rowU, side, first, last);
        narrow(colV_, row.rowV, side, first, last);
        row.first = static_cast<int>(first);
        row.count = static_cast<int>(last - first);
        row.levels = total;
        total += static_cast<std::size_t>(row.count);
    }
    levels_.resize(total);
}

void Placement::coverRows(const PasteKernels& kernels, const PhaseTable& linear, const float* mask,
                          std::ptrdiff_t stride, std::ptrdiff_t begin, std::ptrdiff_t end) {
    for (std::ptrdiff_t i = begin; i < end; ++i) {
        PlacedRow& row = rows_[static_cast<std::size_t>(i)];
        const std::uint8_t* levels = levels_.data() + row.levels;
        kernels.coverRow(positions(row), linear, mask, stride, levels_.data() + row.levels);
        // Leave the uncovered ends out.
        int first = 0;
        int last = row.count;
        while (first < last && levels[first] == 0) ++first;
        while (first < last && levels[last - 1] == 0) --last;
        row.first += first;
        row.levels += static_cast<std::size_t>(first);
        row.count = last - first;
    }
}

/// Finds the area, and closes the gaps between the rows' coverage: placements are kept for every
/// target frame.
void Placement::finish() {
    FrameArea found{W_, H_, 0, 0};
    std::size_t used = 0;
    for (std::size_t i = 0; i < rows_.size(); ++i) {
        PlacedRow& row = rows_[i];
        if (row.count == 0) continue;
        const auto count = static_cast<std::size_t>(row.count);
        std::memmove(levels_.data() + used, levels_.data() + row.levels, count);
        row.levels = used;
        used += count;
        const int y = y0_ + static_cast<int>(i);
        found.left = std::min(found.left, x0_ + row.first);
        found.right = std::max(found.right, x0_ + row.first + row.count);
        found.top = std::min(found.top, y);
        found.bottom = y + 1;
    }
    levels_.resize(used);
    levels_.shrink_to_fit();
    if (found.bottom == 0) return;
    area_.left = found.left / 2 * 2;
    area_.top = found.top / 2 * 2;
    area_.right = std::min(found.right + found.right % 2, W_);
    area_.bottom = std::min(found.bottom + found.bottom % 2, H_);
}

std::size_t Placement::bytes() const {
    return (colU_.capacity() + colV_.capacity()) * sizeof(int) +
           rows_.capacity() * sizeof(PlacedRow) + levels_.capacity();
}

}  // namespace zorv
