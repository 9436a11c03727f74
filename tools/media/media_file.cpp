#include "media_file.h"

#include <cerrno>
#include <filesystem>

#include "failure.h"

namespace zorv::tools {
namespace {

void requireReadable(const std::string& path, const std::string& option) {
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (!std::filesystem::exists(status)) {
        fail("cannot read '{}': {}; check the path given to {}", path,
             error ? error.message() : errorText(ENOENT), option);
    }
    if (std::filesystem::is_directory(status)) {
        fail("'{}' is a directory; give {} a media file", path, option);
    }
    if (std::filesystem::is_regular_file(status) && std::filesystem::file_size(path, error) == 0) {
        fail("'{}' is empty; give {} a media file", path, option);
    }
}

}  // namespace

MediaFile::MediaFile(const std::string& path, AVMediaType type, const std::string& option)
    : path_(path) {
    requireReadable(path, option);
    // The "file:" prefix keeps names such as "a:b.wav" from being read as a protocol.
    AVFormatContext* opened = nullptr;
    int code = avformat_open_input(&opened, ("file:" + path).c_str(), nullptr, nullptr);
    format_.reset(opened);
    if (code == AVERROR(EACCES) || code == AVERROR(EPERM)) {
        fail("cannot read '{}': {}; make it readable", path, av::errorText(code));
    }
    if (code < 0 || avformat_find_stream_info(opened, nullptr) < 0) {
        fail(
            "'{}' is not a media file that FFmpeg can read; give {} audio or video such as WAV, "
            "MP3 or MP4",
            path, option);
    }
    const char* kind = type == AVMEDIA_TYPE_AUDIO ? "sound" : "picture";
    const AVCodec* decoder = nullptr;
    index_ = av_find_best_stream(opened, type, -1, -1, &decoder, 0);
    if (index_ == AVERROR_DECODER_NOT_FOUND) {
        fail("'{}' has a {} of a kind that this FFmpeg cannot decode; convert it first", path,
             kind);
    }
    if (index_ < 0) fail("'{}' has no {}; give {} a file that has one", path, kind, option);
    for (unsigned i = 0; i < opened->nb_streams; ++i) {
        if (static_cast<int>(i) != index_) opened->streams[i]->discard = AVDISCARD_ALL;
    }

    codec_.reset(avcodec_alloc_context3(decoder));
    if (!codec_) throw std::bad_alloc();
    codec_->pkt_timebase = stream()->time_base;
    if (avcodec_parameters_to_context(codec_.get(), stream()->codecpar) < 0 ||
        avcodec_open2(codec_.get(), decoder, nullptr) < 0) {
        fail("cannot decode the {} of '{}'; convert it first", kind, path);
    }
}

bool MediaFile::next(AVFrame* frame) {
    for (;;) {
        const int code = avcodec_receive_frame(codec_.get(), frame);
        if (code >= 0) return true;
        if (code == AVERROR_EOF || draining_) return false;
        const int read = av_read_frame(format_.get(), packet_.get());
        if (read < 0) {
            if (read != AVERROR_EOF && read != AVERROR_INVALIDDATA) {
                fail("reading '{}' failed: {}", path_, av::errorText(read));
            }
            draining_ = true;
            avcodec_send_packet(codec_.get(), nullptr);
            continue;
        }
        if (packet_->stream_index == index_) avcodec_send_packet(codec_.get(), packet_.get());
        av_packet_unref(packet_.get());
    }
}

double MediaFile::seconds(const AVFrame* frame) {
    const int64_t time = frame->best_effort_timestamp;
    return time == AV_NOPTS_VALUE ? 0.0 : static_cast<double>(time) * av_q2d(stream()->time_base);
}

}  // namespace zorv::tools
