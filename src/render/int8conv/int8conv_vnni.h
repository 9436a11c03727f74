// The operator Int8ConvVNNI: a 2-D convolution with int8 weights over float tensors.
#pragma once

#include <onnxruntime_cxx_api.h>

#include "render/int8conv/conv.h"

namespace zorv {

/// Makes com.velmarin.int8::Int8ConvVNNI known to sessions made with `options`. Any thread.
///
/// Inputs X float [N, C, H, W], W int8 [M, C / group, KH, KW], weight scale float [M], bias float
/// [M]; output Y float [N, M, OH, OW]. Attributes strides, pads (top, left, bottom, right),
/// dilations and group as in Conv; `enlarged` and `zero_pads` (0 or 1) as in ConvAttributes, where
/// an enlarged X makes Y [N, M, 2 H, 2 W]. Weights are packed on the node's first run and then
/// stay.
///
/// Without `zero_pads`, padding counts as the smallest value of the input's range: see Int8Conv.
void registerInt8ConvVNNI(Ort::SessionOptions& options);

}  // namespace zorv
