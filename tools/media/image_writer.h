// PNG files: single pictures and numbered frames.
#pragma once

#include <cstdint>
#include <string>

#include "av.h"
#include "streams.h"

namespace zorv::tools {

class PngEncoder {
  public:
    PngEncoder(int width, int height);
    /// Writes width x height x 3 RGB bytes to `path`.
    void save(const std::string& path, const uint8_t* rgb);

  private:
    av::Owner<AVCodecContext> codec_;
    av::Owner<AVFrame> frame_ = av::newFrame();
    av::Owner<AVPacket> packet_ = av::newPacket();
};

/// Frames as 000000.png, 000001.png, ... in a directory that exists.
class PngSequenceWriter : public FrameSink {
  public:
    PngSequenceWriter(std::string directory, int width, int height)
        : directory_(std::move(directory)), encoder_(width, height) {}
    void write(const uint8_t* rgb) override;

  private:
    std::string directory_;
    PngEncoder encoder_;
    int next_ = 0;
};

}  // namespace zorv::tools
