// Folds what stands beside int8 convolutions in a serialised ONNX model into them: a Resize that
// doubles the picture, zero padding; and gives such a model our DepthToSpace.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace zorv {

/// A node that runs as something else.
struct Int8Fold {
    enum class Kind { kResize, kPad, kDepthToSpace };

    Kind kind;
    std::string node;
    std::string into;  ///< the convolution; empty for DepthToSpace, which becomes DepthToSpaceFast
};

/// Writes the folded model into `out`, which is touched only if something is folded, and tells
/// what. Results keep every bit. These nodes of the top-level graph are folded, when no other node
/// reads what lies in between and every setting is constant and stated as below:
///
/// - a Pad of zeros on H and W, into an Int8ConvVNNI without pads;
/// - a Resize by "nearest", "asymmetric", "floor" and scales of 1, 1, 2, 2, into an Int8ConvVNNI of
///   3 x 3 with strides, dilations, group and pads of 1, also behind such a Pad;
/// - in a model with Int8ConvVNNI nodes every DepthToSpace of blocks of 2.
///
/// Throws like GsReader::next.
std::vector<Int8Fold> foldIntoInt8Conv(std::string_view model, std::string& out);

}  // namespace zorv
