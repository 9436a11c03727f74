#include "paste/frame_view.h"

#include <cstring>

#include "common/memory.h"

namespace zorv {

PlaneSize planeSize(PixelForm form, int plane, int W, int H) {
    const std::ptrdiff_t width = W;
    if (form == PixelForm::kRgba) return {4 * width, H};
    if (form == PixelForm::kRgb) return {3 * width, H};
    if (plane == 0) return {width, H};
    const std::ptrdiff_t half = (width + 1) / 2;
    return {form == PixelForm::kNv12 ? 2 * half : half, H / 2 + H % 2};
}

std::size_t packedSize(PixelForm form, int W, int H) {
    std::size_t bytes = 0;
    for (int p = 0; p < planeCount(form); ++p) {
        const PlaneSize size = planeSize(form, p, W, H);
        bytes += checkedProduct(static_cast<std::size_t>(size.bytes),
                                static_cast<std::size_t>(size.rows));
    }
    return bytes;
}

FrameView packedView(PixelForm form, std::uint8_t* buffer, int W, int H) {
    FrameView view;
    for (int p = 0; p < planeCount(form); ++p) {
        const PlaneSize size = planeSize(form, p, W, H);
        view.plane[p] = buffer;
        view.stride[p] = size.bytes;
        buffer += size.bytes * size.rows;
    }
    return view;
}

void copyFrame(PixelForm form, const FrameView& from, const FrameView& to, int W, int H) {
    for (int p = 0; p < planeCount(form); ++p) {
        const PlaneSize size = planeSize(form, p, W, H);
        const auto bytes = static_cast<std::size_t>(size.bytes);
        if (from.stride[p] == size.bytes && to.stride[p] == size.bytes) {
            std::memcpy(to.plane[p], from.plane[p], bytes * static_cast<std::size_t>(size.rows));
            continue;
        }
        for (int y = 0; y < size.rows; ++y) std::memcpy(to.row(p, y), from.row(p, y), bytes);
    }
}

}  // namespace zorv
