// The quantised input of an int8 convolution, a few rows at a time: what a band of output rows
// reads stays in the second cache between quantising and convolving.
#pragma once

#include <cstdint>
#include <memory>

#include "render/int8conv/geometry.h"
#include "render/int8conv/kernels.h"

namespace zorv {

/// A window of padded rows, in ConvGeometry's layout, that slides down one image after the other.
/// One thread at a time.
class QuantisedRows {
  public:
    /// Has room for what `steps` steps read. Throws std::bad_alloc.
    QuantisedRows(const ConvGeometry& geometry, const Int8ConvKernels& kernels, Quantisation q,
                  std::int64_t steps);

    /// Begins anew with the image [c, h, w] `x`.
    void startImage(const float* x);

    /// Makes the rows ready that `count` steps from `first` on read, `first` being no smaller than
    /// before. Rows that are there already are kept.
    void moveTo(std::int64_t first, std::int64_t count);

    const std::uint8_t* data() const { return rows_.get(); }

  private:
    void quantiseRows(std::int64_t from, std::int64_t to);
    void quantiseColumns(const float* const* channels, std::uint32_t* out);

    const ConvGeometry& g_;
    const Int8ConvKernels& kernels_;
    const Quantisation q_;
    const std::uint8_t padByte_;
    std::unique_ptr<std::uint8_t[]> rows_;
    std::unique_ptr<std::uint32_t[]> quads_;  ///< of one row, before it is spread over its phases
    const float* x_ = nullptr;
    std::int64_t begin_ = 0, end_ = 0;  ///< padded rows in the window
};

}  // namespace zorv
