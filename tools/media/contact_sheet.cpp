#include "contact_sheet.h"

#include <algorithm>

#include "image_writer.h"

namespace zorv::tools {

ContactSheet::ContactSheet(int width, int height, int totalFrames)
    : sourceWidth_(width), sourceHeight_(height) {
    const int count = std::min(kColumns * kRows, totalFrames);
    for (int64_t i = 0; i < count; ++i) {
        chosen_.push_back(static_cast<int>((2 * i + 1) * totalFrames / (2 * count)));
    }
    columns_ = std::min(kColumns, count);
    rows_ = (count + kColumns - 1) / kColumns;
    cellHeight_ = std::max(1, static_cast<int>(int64_t{kCellWidth} * height / width));
    sheetWidth_ = columns_ * (kCellWidth + kGap) + kGap;
    sheetHeight_ = rows_ * (cellHeight_ + kGap) + kGap;
    pixels_.assign(static_cast<size_t>(sheetWidth_) * static_cast<size_t>(sheetHeight_) * 3, 255);
    scaler_.reset(sws_getContext(width, height, AV_PIX_FMT_RGB24, kCellWidth, cellHeight_,
                                 AV_PIX_FMT_RGB24, SWS_AREA, nullptr, nullptr, nullptr));
    if (!scaler_) throw std::bad_alloc();
}

void ContactSheet::add(int index, const uint8_t* rgb) {
    const auto place = std::find(chosen_.begin(), chosen_.end(), index);
    if (place == chosen_.end()) return;
    const int cell = static_cast<int>(place - chosen_.begin());
    const int x = kGap + cell % kColumns * (kCellWidth + kGap);
    const int y = kGap + cell / kColumns * (cellHeight_ + kGap);
    const int stride = 3 * sheetWidth_;
    // The scaler may write a few bytes past each row's end, hence the scratch picture.
    const int scratchStride = 3 * kCellWidth + 64;
    std::vector<uint8_t> scratch(static_cast<size_t>(scratchStride) *
                                 static_cast<size_t>(cellHeight_ + 1));
    uint8_t* out = scratch.data();
    std::vector<uint8_t> copy;
    av::scale(scaler_.get(), rgb, 3 * sourceWidth_, sourceHeight_, &out, &scratchStride, copy);
    av_image_copy_plane(pixels_.data() + static_cast<size_t>(y) * static_cast<size_t>(stride) +
                            static_cast<size_t>(x) * 3,
                        stride, out, scratchStride, 3 * kCellWidth, cellHeight_);
}

void ContactSheet::save(const std::string& path) const {
    PngEncoder(sheetWidth_, sheetHeight_).save(path, pixels_.data());
}

}  // namespace zorv::tools
