// The operator GridSampleFast; its kernels are in gridsample_fast.h.
#pragma once

#include <onnxruntime_cxx_api.h>

namespace zorv {

/// Makes com.velmarin::GridSampleFast and ResizeFast known to sessions made with `options`: X [N,
/// C, H, W] and grid [N, h, w, 2] give Y [N, C, h, w]. A grid of another form gives Y the size of
/// X. Any thread.
void registerGridSampleFast(Ort::SessionOptions& options);

}  // namespace zorv
