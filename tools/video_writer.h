// MP4 with H.264 picture at 25 frames per second and AAC sound.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "av.h"
#include "frame_sink.h"
#include "sound_source.h"

namespace zorv::tools {

/** An encoder with its stream in the file. */
struct EncodedStream {
    av::Owner<AVCodecContext> codec;
    av::Owner<AVFrame> frame = av::new_frame();
    AVStream* stream = nullptr;  // owned by the format context
    int64_t next_time = 0;       // in units of the codec's time base
};

class VideoWriter : public FrameSink {
  public:
    static constexpr int kFrameRate = 25;
    static constexpr int kAudioRate = 48000;  // for sound that can be had at any rate

    /**
     * path         file to write, which may carry any name.
     * sound        what goes with the picture, at a rate that is a multiple of the frame rate.
     * skip_frames  frames' worth of sound to drop from its beginning.
     * Odd widths and heights lose their last column or row, since the chroma is halved.
     */
    VideoWriter(const std::string& path, int width, int height, std::unique_ptr<SoundSource> sound,
                int skip_frames);
    ~VideoWriter() override;

    void write(const uint8_t* rgb) override;
    void finish() override;

  private:
    void open_picture();
    void open_sound();
    void open_file(const std::string& path);
    void encode(EncodedStream& target, AVFrame* frame);
    void encode_sound_until(int64_t sample);
    void encode_sound_block(size_t count);
    void check(int code) const;

    int width_, height_;
    int source_stride_;  // bytes per row of the frames handed in
    std::vector<uint8_t> copy_;
    std::unique_ptr<SoundSource> source_;
    int samples_per_frame_;     // of video, per channel
    std::vector<float> sound_;  // interleaved samples that wait for the encoder
    int64_t sound_to_drop_;
    bool sound_ended_ = false;

    AVFormatContext* format_ = nullptr;
    EncodedStream picture_, audio_;
    av::Owner<AVPacket> packet_ = av::new_packet();
    av::Owner<SwsContext> to_yuv_;
};

}  // namespace zorv::tools
