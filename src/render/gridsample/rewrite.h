// Turns the GridSample nodes of a serialised ONNX model into GridSampleFast nodes, on the
// protobuf bytes themselves: what is not touched is copied byte for byte, so nothing here depends
// on the rest of the schema.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "render/onnx_wire.h"

namespace zorv {

/// What a node of the top-level graph is to the rewrite.
enum class GridSampleVerdict {
    kOtherNode,     ///< no GridSample
    kRewritable,    ///< states bilinear sampling, border padding, corners not aligned
    kDomain,        ///< of a domain other than the standard one
    kMode,          ///< mode absent, or neither "linear" nor "bilinear"
    kPaddingMode,   ///< padding_mode absent or not "border"
    kAlignCorners,  ///< align_corners other than 0
};

/// Judges one serialised NodeProto. The absence of mode or padding_mode refuses a node on purpose
/// although they have defaults. Throws like GsReader::next.
GridSampleVerdict judgeGridSample(std::string_view nodeBytes);

/// One line, in lower case, on why a node is or is not rewritten.
const char* describe(GridSampleVerdict verdict);

/// Whether one serialised NodeProto may be rewritten.
inline bool gsIsRewritableGridSample(std::string_view nodeBytes) {
    return judgeGridSample(nodeBytes) == GridSampleVerdict::kRewritable;
}

/// Rewrites a serialised ModelProto in place and returns the number of nodes rewritten; with 0,
/// and when it throws, the bytes are as before. Needs room for one more copy of the model.
/// Throws std::runtime_error "onnx: bad varint", "onnx: truncated" or "onnx: bad wire type".
std::size_t rewriteGridSampleToFast(std::string& bytes);

/// The same into `out`, which is touched only if a node is rewritten.
std::size_t rewriteGridSampleToFast(std::string_view model, std::string& out);

}  // namespace zorv
