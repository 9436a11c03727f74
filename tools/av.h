// Owners for FFmpeg's objects, and its error codes as text.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include <memory>
#include <string>

namespace zorv::tools::av {

struct Deleter {
    void operator()(AVFormatContext* p) const { avformat_close_input(&p); }
    void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
    void operator()(AVFrame* p) const { av_frame_free(&p); }
    void operator()(AVPacket* p) const { av_packet_free(&p); }
    void operator()(SwrContext* p) const { swr_free(&p); }
    void operator()(SwsContext* p) const { sws_freeContext(p); }
};
template <typename T>
using Owner = std::unique_ptr<T, Deleter>;

inline std::string error_text(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

inline Owner<AVFrame> new_frame() {
    Owner<AVFrame> frame(av_frame_alloc());
    if (!frame) throw std::bad_alloc();
    return frame;
}

inline Owner<AVPacket> new_packet() {
    Owner<AVPacket> packet(av_packet_alloc());
    if (!packet) throw std::bad_alloc();
    return packet;
}

}  // namespace zorv::tools::av
