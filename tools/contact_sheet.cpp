#include "contact_sheet.h"

#include <algorithm>

#include "image_writer.h"

namespace zorv::tools {

ContactSheet::ContactSheet(int width, int height, int total_frames)
    : source_width_(width), source_height_(height) {
    const int count = std::min(kColumns * kRows, total_frames);
    for (int64_t i = 0; i < count; ++i)
        chosen_.push_back(static_cast<int>((2 * i + 1) * total_frames / (2 * count)));
    columns_ = std::min(kColumns, count);
    rows_ = (count + kColumns - 1) / kColumns;
    cell_height_ = std::max(1, static_cast<int>(int64_t{kCellWidth} * height / width));
    sheet_width_ = columns_ * (kCellWidth + kGap) + kGap;
    sheet_height_ = rows_ * (cell_height_ + kGap) + kGap;
    pixels_.assign(static_cast<size_t>(sheet_width_) * static_cast<size_t>(sheet_height_) * 3, 255);
    scaler_.reset(sws_getContext(width, height, AV_PIX_FMT_RGB24, kCellWidth, cell_height_,
                                 AV_PIX_FMT_RGB24, SWS_AREA, nullptr, nullptr, nullptr));
    if (!scaler_) throw std::bad_alloc();
}

void ContactSheet::add(int index, const uint8_t* rgb) {
    const auto place = std::find(chosen_.begin(), chosen_.end(), index);
    if (place == chosen_.end()) return;
    const int cell = static_cast<int>(place - chosen_.begin());
    const int x = kGap + cell % kColumns * (kCellWidth + kGap);
    const int y = kGap + cell / kColumns * (cell_height_ + kGap);
    const int stride = 3 * sheet_width_;
    // The scaler may write a few bytes past each row's end, hence the scratch picture.
    const int scratch_stride = 3 * kCellWidth + 64;
    std::vector<uint8_t> scratch(static_cast<size_t>(scratch_stride) *
                                 static_cast<size_t>(cell_height_ + 1));
    uint8_t* out = scratch.data();
    std::vector<uint8_t> copy;
    av::scale(scaler_.get(), rgb, 3 * source_width_, source_height_, &out, &scratch_stride, copy);
    av_image_copy_plane(pixels_.data() + static_cast<size_t>(y) * static_cast<size_t>(stride) +
                            static_cast<size_t>(x) * 3,
                        stride, out, scratch_stride, 3 * kCellWidth, cell_height_);
}

void ContactSheet::save(const std::string& path) const {
    PngEncoder(sheet_width_, sheet_height_).save(path, pixels_.data());
}

}  // namespace zorv::tools
