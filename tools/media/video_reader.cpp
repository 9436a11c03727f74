#include "video_reader.h"

#include <cmath>

#include "failure.h"
#include "interrupt.h"

namespace zorv::tools {

VideoReader::VideoReader(const std::string& path) : file_(path, AVMEDIA_TYPE_VIDEO, "VIDEO") {
    const double rate = av_q2d(file_.stream()->avg_frame_rate);
    if (std::abs(rate - kFrameRate) > 0.01) {
        fail("'{}' runs at {:.2f} frames per second; give a video of {}", path, rate, kFrameRate);
    }
    planes_->format = AV_PIX_FMT_YUV444P;
    planes_->width = width();
    planes_->height = height();
    if (width() < 1 || height() < 1) fail("'{}' holds no picture", path);
    if (av_frame_get_buffer(planes_.get(), 0) < 0) throw std::bad_alloc();
}

bool VideoReader::read(Picture& picture) {
    throwIfInterrupted();
    if (!file_.next(decoded_.get())) return false;
    if (!started_) start_ = file_.seconds(decoded_.get());
    started_ = true;
    if (decoded_->width != planes_->width || decoded_->height != planes_->height) {
        fail("'{}' changes its size midway; give a video of one size", file_.path());
    }
    converter_.reset(sws_getCachedContext(converter_.release(), decoded_->width, decoded_->height,
                                          static_cast<AVPixelFormat>(decoded_->format),
                                          planes_->width, planes_->height, AV_PIX_FMT_YUV444P,
                                          SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (!converter_) fail("cannot convert the pictures of '{}'", file_.path());
    sws_scale(converter_.get(), decoded_->data, decoded_->linesize, 0, decoded_->height,
              planes_->data, planes_->linesize);
    av_frame_unref(decoded_.get());
    picture = {planes_->data[0], planes_->data[2], planes_->linesize[0], planes_->linesize[2]};
    return true;
}

}  // namespace zorv::tools
