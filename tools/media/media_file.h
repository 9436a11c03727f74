// One stream of a media file, opened for decoding: shared by the audio and the video reader.
#pragma once

#include <string>

#include "av.h"

namespace zorv::tools {

class MediaFile {
  public:
    /// Opens the best stream of `type`. `option` names the command line's source of `path`.
    MediaFile(const std::string& path, AVMediaType type, const std::string& option);

    /// Decodes the next frame into `frame`; false at the end of the stream. Damaged packets in
    ///  the middle are skipped, as players do.
    bool next(AVFrame* frame);

    AVCodecContext* codec() { return codec_.get(); }
    AVStream* stream() { return format_->streams[index_]; }
    const std::string& path() const { return path_; }

    /// Presentation time of a decoded frame in seconds on the file's clock; 0 if unknown.
    double seconds(const AVFrame* frame);

  private:
    std::string path_;
    av::Owner<AVFormatContext> format_;
    av::Owner<AVCodecContext> codec_;
    av::Owner<AVPacket> packet_ = av::newPacket();
    int index_ = -1;
    bool draining_ = false;
};

}  // namespace zorv::tools
