// Sizes of one int8 convolution and the layouts of its quantised input and packed weights.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zorv {

/// The node's attributes with their defaults.
struct ConvAttributes {
    std::int64_t strides[2] = {1, 1};     ///< along H, W
    std::int64_t pads[4] = {0, 0, 0, 0};  ///< top, left, bottom, right
    std::int64_t dilations[2] = {1, 1};
    std::int64_t group = 1;
    /// X is first enlarged by two, every pixel becoming four. Then the kernel must be 3 x 3, the
    /// pads 1 and all else as by default.
    bool enlarged = false;
    bool zeroPads = false;  ///< pads count as 0.0 instead of the smallest value
};

/// X is [n, c, h, w], W is [m, c / group, kh, kw], Y is [n, m, oh, ow]. Where X is enlarged, h
/// and w are those before, oh and ow those of Y.
///
/// The quantised input holds four channels of a pixel in four neighbouring bytes, so that pixels
/// that stand side by side in a row of the output are side by side in memory, whatever the stride:
///
///     [row][group][quad of channels][column phase][column][4]
///
/// Rows and columns include the padding, bytes of 0 or zero points. A column phase gathers the
/// columns residue, residue + strideW, residue + 2 strideW, ... that one tap meets.
struct ConvGeometry {
    /// Throws std::runtime_error when the shapes and attributes do not fit together, and
    /// std::bad_alloc when a size leaves 64 bits.
    ConvGeometry(const ConvAttributes& attributes, const std::vector<std::int64_t>& x,
                 const std::vector<std::int64_t>& weights);

    ConvAttributes attributes;
    std::int64_t n, c, h, w, m, kh, kw, oh, ow;
    std::int64_t groupIn, groupOut;  ///< channels of one group
    std::int64_t quads;              ///< of one group; the last one is filled up with zero weights

    std::vector<std::int64_t> phaseResidues;  ///< first padded column of each column phase
    std::int64_t phaseColumns = 0;
    std::int64_t quadBytes = 0, groupBytes = 0, rowBytes = 0;
    std::vector<std::int64_t> tapOffsets;  ///< bytes from a pixel's first tap, [kh][kw]

    std::size_t inputCount() const { return static_cast<std::size_t>(n * c * h * w); }
    /// Padded rows that `count` neighbouring steps read.
    std::int64_t rowsOf(std::int64_t count) const {
        return (count - 1) * attributes.strides[0] + attributes.dilations[0] * (kh - 1) + 1;
    }
    /// Of these rows, with room for a vector that begins at the last pixel.
    std::size_t windowBytes(std::int64_t count) const {
        return static_cast<std::size_t>(rowsOf(count) * rowBytes) + kSlack;
    }
    /// Rows of the output, or pairs of them where X is enlarged.
    std::int64_t steps() const { return attributes.enlarged ? h : oh; }
    /// Multiplications of the whole convolution.
    double macs() const;
    bool empty() const { return n == 0 || m == 0; }

    static constexpr std::size_t kSlack = 64;
};

/// Weights in the order in which a tile of `block` output channels reads them:
///
///     [group][block of channels][quad][tap][channel of the block][4]
///
/// as signed bytes, or widened to 16 bits with the order 0, 2, 1, 3 inside a quad. Channels beyond
/// the group's and input channels beyond groupIn are 0.
struct PackedWeights {
    PackedWeights() = default;
    PackedWeights(const ConvGeometry& geometry, const std::int8_t* weights, int block,
                  bool widened);

    const std::int8_t* of(std::int64_t group, std::int64_t channelBlock) const {
        return bytes.data() + (group * blocks + channelBlock) * blockBytes;
    }

    std::int64_t blocks = 0;  ///< per group
    std::int64_t blockBytes = 0;
    std::vector<std::int8_t> bytes;
    std::vector<std::int32_t> wsum;      ///< per output channel, over its whole kernel
    std::vector<std::int32_t> edgeSums;  ///< [m][2], over the kernel's first and last column
};

}  // namespace zorv
