// Placement of the expression engine's sessions on a CUDA device.
#pragma once

#include <cstddef>

#include "common/ort.h"

namespace zorv::a2x {

/// The device memory limit in bytes that `ZORV_A2X_CUDA_MEM_MIB` (null = unset) asks for;
/// 3072 MiB unless it is above 0.
std::size_t cudaMemoryLimit(const char* setting);

/// Appends the CUDA provider when `ZORV_A2X_CUDA` is "1" and the tag is "w2v" (the speech
/// encoder's sessions) or `ZORV_A2X_CUDA_ALL` is "1" too. Says on standard error what came of it;
/// a provider that cannot be had leaves the options as they were.
void zorv_a2x_maybe_cuda(Ort::SessionOptions& options, const char* tag);

}  // namespace zorv::a2x
