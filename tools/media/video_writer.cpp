#include "video_writer.h"

#include <algorithm>

#include "failure.h"

namespace zorv::tools {
namespace {

// The best H.264 encoder first; the rest in FFmpeg's order, hardware included.
std::vector<const AVCodec*> h264Encoders() {
    std::vector<const AVCodec*> found;
    for (const char* name : {"libx264", "libopenh264"}) {
        if (const AVCodec* codec = avcodec_find_encoder_by_name(name)) found.push_back(codec);
    }
    void* place = nullptr;
    while (const AVCodec* codec = av_codec_iterate(&place)) {
        if (codec->id == AV_CODEC_ID_H264 && av_codec_is_encoder(codec) &&
            std::find(found.begin(), found.end(), codec) == found.end()) {
            found.push_back(codec);
        }
    }
    return found;
}

av::Owner<AVCodecContext> openH264(const AVCodec* encoder, int width, int height) {
    av::Owner<AVCodecContext> codec(avcodec_alloc_context3(encoder));
    if (!codec) throw std::bad_alloc();
    codec->width = width;
    codec->height = height;
    codec->pix_fmt = AV_PIX_FMT_YUV420P;
    codec->time_base = {1, VideoWriter::kFrameRate};
    codec->framerate = {VideoWriter::kFrameRate, 1};
    codec->gop_size = 2 * VideoWriter::kFrameRate;
    codec->color_range = AVCOL_RANGE_MPEG;
    codec->colorspace = AVCOL_SPC_BT709;
    codec->color_primaries = AVCOL_PRI_BT709;
    codec->color_trc = AVCOL_TRC_BT709;
    codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    codec->thread_count = 2;  // rendering needs the cores more
    if (std::string(encoder->name) == "libx264") {
        av_opt_set(codec->priv_data, "preset", "veryfast", 0);
        av_opt_set(codec->priv_data, "crf", "20", 0);
    } else {
        codec->bit_rate = int64_t{width} * height * 4;
    }
    if (avcodec_open2(codec.get(), encoder, nullptr) < 0) return nullptr;
    return codec;
}

}  // namespace

VideoWriter::VideoWriter(const std::string& path, int width, int height,
                         std::unique_ptr<SoundSource> sound, int skipFrames)
    : width_(width & ~1),
      height_(height & ~1),
      sourceStride_(3 * width),
      source_(std::move(sound)),
      samplesPerFrame_(source_->rate() / kFrameRate),
      soundToDrop_(int64_t{skipFrames} * samplesPerFrame_) {
    if (width_ < 2 || height_ < 2) fail("frames of {} x {} are too small for video", width, height);
    openPicture();
    openSound();
    try {
        openFile(path);
    } catch (...) {
        if (format_) {
            avio_closep(&format_->pb);
            avformat_free_context(format_);
        }
        throw;
    }
}

VideoWriter::~VideoWriter() {
    avio_closep(&format_->pb);
    avformat_free_context(format_);
}

void VideoWriter::openPicture() {
    for (const AVCodec* encoder : h264Encoders()) {
        if ((picture_.codec = openH264(encoder, width_, height_))) break;
    }
    if (!picture_.codec) {
        fail(
            "this FFmpeg has no working H.264 encoder; install one with libx264, or give -o a "
            "directory for PNG frames");
    }
    AVFrame* frame = picture_.frame.get();
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = width_;
    frame->height = height_;
    frame->color_range = AVCOL_RANGE_MPEG;
    frame->colorspace = AVCOL_SPC_BT709;
    toYuv_.reset(sws_getContext(width_, height_, AV_PIX_FMT_RGB24, width_, height_,
                                AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr));
    if (av_frame_get_buffer(frame, 0) < 0 || !toYuv_) throw std::bad_alloc();
    const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
    sws_setColorspaceDetails(toYuv_.get(), bt709, 1, bt709, 0, 0, 1 << 16, 1 << 16);
}

void VideoWriter::openSound() {
    const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (encoder) audio_.codec.reset(avcodec_alloc_context3(encoder));
    AVCodecContext* codec = audio_.codec.get();
    if (codec) {
        codec->sample_rate = source_->rate();
        codec->sample_fmt = AV_SAMPLE_FMT_FLTP;
        codec->bit_rate = 96000 * source_->channels();
        codec->time_base = {1, source_->rate()};
        codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        av_channel_layout_default(&codec->ch_layout, source_->channels());
    }
    if (!codec || avcodec_open2(codec, encoder, nullptr) < 0) {
        fail(
            "this FFmpeg has no working AAC encoder; install one that has, or give -o a directory "
            "for PNG frames");
    }
    AVFrame* frame = audio_.frame.get();
    frame->format = codec->sample_fmt;
    frame->sample_rate = source_->rate();
    frame->nb_samples = codec->frame_size;
    av_channel_layout_copy(&frame->ch_layout, &codec->ch_layout);
    if (av_frame_get_buffer(frame, 0) < 0) throw std::bad_alloc();
}

// The encoder's priming samples come out with negative times; the muxer turns them into an edit
// list, so players start both streams at zero together.
void VideoWriter::openFile(const std::string& path) {
    const std::string url = "file:" + path;
    check(avformat_alloc_output_context2(&format_, nullptr, "mp4", url.c_str()));
    for (EncodedStream* target : {&picture_, &audio_}) {
        target->stream = avformat_new_stream(format_, nullptr);
        if (!target->stream) throw std::bad_alloc();
        target->stream->time_base = target->codec->time_base;
        check(avcodec_parameters_from_context(target->stream->codecpar, target->codec.get()));
    }
    picture_.stream->avg_frame_rate = {kFrameRate, 1};
    check(avio_open(&format_->pb, url.c_str(), AVIO_FLAG_WRITE));
    AVDictionary* options = nullptr;
    av_dict_set(&options, "movflags", "+faststart", 0);
    const int code = avformat_write_header(format_, &options);
    av_dict_free(&options);
    check(code);
}

void VideoWriter::check(int code) const {
    if (code >= 0 && format_ && format_->pb && format_->pb->error < 0) code = format_->pb->error;
    if (code >= 0) return;
    fail("writing the video failed: {}; free some space or name another output",
         av::errorText(code));
}

void VideoWriter::encode(EncodedStream& target, AVFrame* frame) {
    check(avcodec_send_frame(target.codec.get(), frame));
    for (;;) {
        const int code = avcodec_receive_packet(target.codec.get(), packet_.get());
        if (code == AVERROR(EAGAIN) || code == AVERROR_EOF) return;
        check(code);
        packet_->stream_index = target.stream->index;
        av_packet_rescale_ts(packet_.get(), target.codec->time_base, target.stream->time_base);
        check(av_interleaved_write_frame(format_, packet_.get()));
    }
}

void VideoWriter::write(const uint8_t* rgb) {
    AVFrame* frame = picture_.frame.get();
    if (av_frame_make_writable(frame) < 0) throw std::bad_alloc();
    av::scale(toYuv_.get(), rgb, sourceStride_, height_, frame->data, frame->linesize, copy_);
    frame->pts = picture_.nextTime++;
    encode(picture_, frame);
    encodeSoundUntil(picture_.nextTime * samplesPerFrame_);
}

void VideoWriter::encodeSoundUntil(int64_t sample) {
    const auto channels = static_cast<size_t>(source_->channels());
    const auto block = static_cast<size_t>(audio_.codec->frame_size);
    while (audio_.nextTime < sample) {
        while (!soundEnded_ && sound_.size() < block * channels) {
            soundEnded_ = !source_->read(sound_);
            const size_t dropped =
                std::min(sound_.size() / channels, static_cast<size_t>(soundToDrop_));
            sound_.erase(sound_.begin(), sound_.begin() + static_cast<long>(dropped * channels));
            soundToDrop_ -= static_cast<int64_t>(dropped);
        }
        const size_t count = std::min(sound_.size() / channels, block);
        if (count == 0) return;
        encodeSoundBlock(count);
    }
}

void VideoWriter::encodeSoundBlock(size_t count) {
    const auto channels = static_cast<size_t>(source_->channels());
    AVFrame* frame = audio_.frame.get();
    if (av_frame_make_writable(frame) < 0) throw std::bad_alloc();
    for (size_t c = 0; c < channels; ++c) {
        auto* plane = reinterpret_cast<float*>(frame->extended_data[c]);
        for (size_t i = 0; i < count; ++i) plane[i] = sound_[i * channels + c];
    }
    sound_.erase(sound_.begin(), sound_.begin() + static_cast<long>(count * channels));
    frame->nb_samples = static_cast<int>(count);
    frame->pts = audio_.nextTime;
    audio_.nextTime += static_cast<int64_t>(count);
    encode(audio_, frame);
}

void VideoWriter::finish() {
    encodeSoundUntil(picture_.nextTime * samplesPerFrame_);
    encode(picture_, nullptr);
    encode(audio_, nullptr);
    check(av_write_trailer(format_));
    const int flushed = format_->pb->error;
    const int code = avio_closep(&format_->pb);
    check(flushed < 0 ? flushed : code);
}

}  // namespace zorv::tools
