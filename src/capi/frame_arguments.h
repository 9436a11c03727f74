// Checks what hosts say of the form and the planes of a frame.
#pragma once

#include <zorv_core.h>

#include "paste/frame_view.h"

namespace zorv {

inline bool isPixelForm(int pixels) {
    return pixels >= ZORV_PIXELS_RGBA && pixels <= ZORV_PIXELS_NV12;
}
inline bool isMatrix(int matrix) {
    return matrix >= ZORV_MATRIX_AUTO && matrix <= ZORV_MATRIX_BT709;
}
static_assert(static_cast<int>(PixelForm::kRgba) == ZORV_PIXELS_RGBA &&
              static_cast<int>(PixelForm::kRgb) == ZORV_PIXELS_RGB &&
              static_cast<int>(PixelForm::kI420) == ZORV_PIXELS_I420 &&
              static_cast<int>(PixelForm::kNv12) == ZORV_PIXELS_NV12);

/// `matrix` is a ZORV_MATRIX_ value; H decides what AUTO means.
inline YuvMatrix resolvedMatrix(int matrix, int H) {
    if (matrix == ZORV_MATRIX_AUTO) return matrixFor(H);
    return matrix == ZORV_MATRIX_BT709 ? YuvMatrix::kBt709 : YuvMatrix::kBt601;
}

/// False when a plane of the form is missing or its rows would overlap.
inline bool readPlanes(PixelForm form, int W, int H, std::uint8_t* const* plane,
                       const std::int32_t* stride, FrameView& view) {
    for (int p = 0; p < planeCount(form); ++p) {
        if (!plane[p] || stride[p] < planeSize(form, p, W, H).bytes) return false;
        view.plane[p] = plane[p];
        view.stride[p] = stride[p];
    }
    return true;
}

}  // namespace zorv
