#include "image_writer.h"

#include <cerrno>
#include <cstdio>

#include "failure.h"

namespace zorv::tools {

PngEncoder::PngEncoder(int width, int height) {
    const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (encoder) codec_.reset(avcodec_alloc_context3(encoder));
    if (codec_) {
        codec_->width = width;
        codec_->height = height;
        codec_->pix_fmt = AV_PIX_FMT_RGB24;
        codec_->time_base = {1, 25};
        codec_->thread_count = 1;       // each picture comes out at once
        codec_->compression_level = 3;  // rendering needs the time more
    }
    if (!codec_ || avcodec_open2(codec_.get(), encoder, nullptr) < 0) {
        fail("this FFmpeg has no working PNG encoder; install one that has");
    }
    frame_->format = AV_PIX_FMT_RGB24;
    frame_->width = width;
    frame_->height = height;
    if (av_frame_get_buffer(frame_.get(), 0) < 0) throw std::bad_alloc();
}

void PngEncoder::save(const std::string& path, const uint8_t* rgb) {
    if (av_frame_make_writable(frame_.get()) < 0) throw std::bad_alloc();
    const int row = 3 * frame_->width;
    av_image_copy_plane(frame_->data[0], frame_->linesize[0], rgb, row, row, frame_->height);
    const bool encoded = avcodec_send_frame(codec_.get(), frame_.get()) >= 0 &&
                         avcodec_receive_packet(codec_.get(), packet_.get()) >= 0;
    if (!encoded) fail("encoding a PNG picture failed");

    std::FILE* file = std::fopen(path.c_str(), "wb");
    const auto size = static_cast<size_t>(packet_->size);
    bool written = file && std::fwrite(packet_->data, 1, size, file) == size;
    int reason = written ? 0 : errno;
    if (file && std::fclose(file) != 0) {
        written = false;
        if (reason == 0) reason = errno;
    }
    av_packet_unref(packet_.get());
    if (!written) {
        fail("writing pictures failed: {}; free some space or name another output",
             errorText(reason));
    }
}

void PngSequenceWriter::write(const uint8_t* rgb) {
    encoder_.save(fmt::format("{}/{:06}.png", directory_, next_++), rgb);
}

}  // namespace zorv::tools
