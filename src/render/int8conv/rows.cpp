#include "render/int8conv/rows.h"

#include <algorithm>
#include <cstring>

namespace zorv {

QuantisedRows::QuantisedRows(const ConvGeometry& geometry, const Int8ConvKernels& kernels,
                             Quantisation q, std::int64_t steps)
    : g_(geometry),
      kernels_(kernels),
      q_(q),
      padByte_(static_cast<std::uint8_t>(padByte(geometry.attributes, q))),
      rows_(std::make_unique_for_overwrite<std::uint8_t[]>(g_.windowBytes(steps))),
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
    quantiseRows(end_, end);
    end_ = end;
}

/// Padded rows [from, to). Quads of channels come outermost: their rows follow each other in
/// memory.
void QuantisedRows::quantiseRows(std::int64_t from, std::int64_t to) {
    const std::int64_t top = g_.attributes.pads[0], plane = g_.h * g_.w;
    const auto lineOf = [&](std::int64_t row) {
        return rows_.get() + (row - begin_) * g_.rowBytes;
    };
    const std::int64_t first = std::clamp(top, from, to), last = std::clamp(top + g_.h, first, to);
    std::fill(lineOf(from), lineOf(first), padByte_);
    std::fill(lineOf(last), lineOf(to), padByte_);
    std::int64_t offset = 0;  // of the quad in a row
    for (std::int64_t channel = 0; channel < g_.c; offset += g_.quadBytes) {
        const std::int64_t inQuad = std::min<std::int64_t>(4, g_.groupIn - channel % g_.groupIn);
        for (std::int64_t row = first; row < last; ++row) {
            const float* channels[4] = {};
            for (std::int64_t i = 0; i < inQuad; ++i) {
                channels[i] = x_ + (channel + i) * plane + (row - top) * g_.w;
            }
            quantiseColumns(channels, reinterpret_cast<std::uint32_t*>(lineOf(row) + offset));
        }
        channel += inQuad;
    }
}

/// One row of up to four channels, into its padded column phases.
void QuantisedRows::quantiseColumns(const float* const* channels, std::uint32_t* out) {
    const std::int64_t stride = g_.attributes.strides[1], left = g_.attributes.pads[1];
    const std::uint32_t padding = padByte_ * 0x01010101u;
    if (stride == 1 && g_.phaseColumns == left + g_.w + g_.attributes.pads[3]) {
        // One phase, which is the padded row itself.
        std::fill_n(out, left, padding);
        kernels_.quantiseRow(channels, g_.w, q_, out + left);
        std::fill(out + left + g_.w, out + g_.phaseColumns, padding);
        return;
    }
    kernels_.quantiseRow(channels, g_.w, q_, quads_.get());
    for (const std::int64_t residue : g_.phaseResidues) {
        const std::int64_t shift = residue - left;  // column i of the phase is stride i + shift
        const std::int64_t before =
            std::clamp<std::int64_t>((stride - 1 - shift) / stride, 0, g_.phaseColumns);
        const std::int64_t inside = std::clamp<std::int64_t>(
            (g_.w - shift + stride - 1) / stride - before, 0, g_.phaseColumns - before);
        out = std::fill_n(out, before, padding);
        const std::uint32_t* in = quads_.get() + shift + before * stride;
        if (stride == 2) {  // a loop that becomes shuffles of vectors
            for (std::int64_t i = 0; i < inside; ++i) out[i] = in[2 * i];
        } else {
            for (std::int64_t i = 0; i < inside; ++i) out[i] = in[stride * i];
        }
        out = std::fill_n(out + inside, g_.phaseColumns - before - inside, padding);
    }
}

}  // namespace zorv
