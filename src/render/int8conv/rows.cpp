#include "render/int8conv/rows.h"

#include <algorithm>
#include <cstring>

namespace zorv {

QuantisedRows::QuantisedRows(const ConvGeometry& geometry, const Int8ConvKernels& kernels,
                             Quantisation q, std::int64_t outputRows)
    : g_(geometry),
      kernels_(kernels),
      q_(q),
      rows_(std::make_unique_for_overwrite<std::uint8_t[]>(g_.windowBytes(outputRows))),
      quads_(std::make_unique_for_overwrite<std::uint32_t[]>(static_cast<std::size_t>(g_.w))) {}

void QuantisedRows::startImage(const float* x) {
    x_ = x;
    begin_ = end_ = 0;
}

void QuantisedRows::moveTo(std::int64_t first, std::int64_t count) {
    const std::int64_t begin = first * g_.attributes.strides[0];
    const std::int64_t end = begin + g_.rowsOf(count);
    if (begin < end_) {
        std::memmove(rows_.get(), rows_.get() + (begin - begin_) * g_.rowBytes,
                     static_cast<std::size_t>((end_ - begin) * g_.rowBytes));
    } else {
        end_ = begin;
    }
    begin_ = begin;
    for (; end_ < end; ++end_) quantiseRow(end_, rows_.get() + (end_ - begin_) * g_.rowBytes);
}

void QuantisedRows::quantiseRow(std::int64_t paddedRow, std::uint8_t* line) {
    const std::int64_t row = paddedRow - g_.attributes.pads[0], plane = g_.h * g_.w;
    if (row < 0 || row >= g_.h) {
        std::fill_n(line, g_.rowBytes, std::uint8_t{0});
        return;
    }
    for (std::int64_t channel = 0; channel < g_.c;) {
        const std::int64_t inQuad = std::min<std::int64_t>(4, g_.groupIn - channel % g_.groupIn);
        const float* channels[4] = {};
        for (std::int64_t i = 0; i < inQuad; ++i) {
            channels[i] = x_ + (channel + i) * plane + row * g_.w;
        }
        quantiseColumns(channels, reinterpret_cast<std::uint32_t*>(line));
        line += g_.quadBytes;
        channel += inQuad;
    }
}

/// One row of up to four channels, into its padded column phases.
void QuantisedRows::quantiseColumns(const float* const* channels, std::uint32_t* out) {
    const std::int64_t stride = g_.attributes.strides[1], left = g_.attributes.pads[1];
    if (stride == 1 && g_.phaseColumns == left + g_.w + g_.attributes.pads[3]) {
        // One phase, which is the padded row itself.
        std::fill_n(out, left, 0u);
        kernels_.quantiseRow(channels, g_.w, q_, out + left);
        std::fill(out + left + g_.w, out + g_.phaseColumns, 0u);
        return;
    }
    kernels_.quantiseRow(channels, g_.w, q_, quads_.get());
    for (const std::int64_t residue : g_.phaseResidues) {
        std::int64_t column = residue - left;
        for (std::int64_t i = 0; i < g_.phaseColumns; ++i, column += stride) {
            *out++ = column >= 0 && column < g_.w ? quads_[static_cast<std::size_t>(column)] : 0;
        }
    }
}

}  // namespace zorv
