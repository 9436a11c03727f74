// Rows of floats at fixed addresses, kept in memory from their first use until they are let go.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/memory.h"

namespace zorv::a2x {

/// `rows` rows of `width` floats, all zero at first and addressed by their absolute number. The
/// whole range is reserved, memory is used only between the first row kept and the last row
/// written: a stream writes ahead, lets go behind, and no row ever moves.
class PagedRows {
  public:
    PagedRows(std::int64_t rows, std::size_t width)
        : floats_(checkedProduct(static_cast<std::size_t>(rows), width)),
          rows_(rows),
          width_(width) {}

    std::int64_t rows() const { return rows_; }
    float* row(std::int64_t i) { return floats_.data() + static_cast<std::size_t>(i) * width_; }
    const float* row(std::int64_t i) const {
        return floats_.data() + static_cast<std::size_t>(i) * width_;
    }

    /// Rows below `first` will not be read until the next clear().
    void releaseBefore(std::int64_t first) {
        const std::size_t end = static_cast<std::size_t>(first < rows_ ? first : rows_) * width_;
        if (end < kept_ + kLeastFloats && end < floats_.size()) return;  // not worth a call yet
        floats_.release(kept_, end);
        kept_ = end;
    }

    /// All rows are zero again and use no memory.
    void clear() {
        floats_.release(0, floats_.size());
        kept_ = 0;
    }

  private:
    static constexpr std::size_t kLeastFloats = 65536;  ///< 256 KiB

    ZeroedArray<float> floats_;
    std::int64_t rows_;
    std::size_t width_;
    std::size_t kept_ = 0;  ///< floats below are gone
};

}  // namespace zorv::a2x
