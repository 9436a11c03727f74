// Pictures of a video file as luma and red-difference planes of full size.
#pragma once

#include <cstdint>
#include <string>

#include "media_file.h"

namespace zorv::tools {

/// Views into the reader's current picture: limited-range bytes, rows `stride` bytes apart.
struct Picture {
    const uint8_t* luma = nullptr;
    const uint8_t* red = nullptr;  // Cr, 128 = neutral
    int lumaStride = 0, redStride = 0;
};

class VideoReader {
  public:
    static constexpr int kFrameRate = 25;

    /// Fails unless the video runs at 25 frames per second.
    explicit VideoReader(const std::string& path);

    int width() { return file_.codec()->width; }
    int height() { return file_.codec()->height; }
    /// The next picture, valid until the next call; false at the end.
    bool read(Picture& picture);
    /// Time of the first picture on the file's clock, in seconds; known after the first read.
    double startSeconds() const { return start_; }

  private:
    MediaFile file_;
    av::Owner<AVFrame> decoded_ = av::newFrame(), planes_ = av::newFrame();
    av::Owner<SwsContext> converter_;
    double start_ = 0.0;
    bool started_ = false;
};

}  // namespace zorv::tools
