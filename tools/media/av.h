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

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

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

inline std::string errorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

inline Owner<AVFrame> newFrame() {
    Owner<AVFrame> frame(av_frame_alloc());
    if (!frame) throw std::bad_alloc();
    return frame;
}

inline Owner<AVPacket> newPacket() {
    Owner<AVPacket> packet(av_packet_alloc());
    if (!packet) throw std::bad_alloc();
    return packet;
}

/// Scales or converts a whole picture, rows of `stride` bytes. The scaler reads some bytes past the
/// last row, and past a frame of the library may lie nothing: it gets `copy`, which has room there.
inline void scale(SwsContext* scaler, const uint8_t* picture, int stride, int height,
                  uint8_t* const* out, const int* outStrides, std::vector<uint8_t>& copy) {
    const size_t bytes = static_cast<size_t>(stride) * static_cast<size_t>(height);
    copy.resize(bytes + AV_INPUT_BUFFER_PADDING_SIZE);
    std::copy_n(picture, bytes, copy.data());
    const uint8_t* in = copy.data();
    sws_scale(scaler, &in, &stride, 0, height, out, outStrides);
}

}  // namespace zorv::tools::av
