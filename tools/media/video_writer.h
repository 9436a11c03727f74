// MP4 with H.264 picture at 25 frames per second and AAC sound.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "av.h"
#include "streams.h"

namespace zorv::tools {

/// An encoder with its stream in the file.
struct EncodedStream {
    av::Owner<AVCodecContext> codec;
    av::Owner<AVFrame> frame = av::newFrame();
    AVStream* stream = nullptr;  // owned by the format context
    int64_t nextTime = 0;        // in units of the codec's time base
};

class VideoWriter : public FrameSink {
  public:
    static constexpr int kFrameRate = 25;
    static constexpr int kAudioRate = 48000;  // for sound that can be had at any rate

    /// path         file to write, which may carry any name.
    /// sound        what goes with the picture, at a rate that is a multiple of the frame rate.
    /// skipFrames  frames' worth of sound to drop from its beginning.
    /// Odd widths and heights lose their last column or row, since the chroma is halved.
    VideoWriter(const std::string& path, int width, int height, std::unique_ptr<SoundSource> sound,
                int skipFrames);
    ~VideoWriter() override;

    void write(const uint8_t* rgb) override;
    void finish() override;

  private:
    void openPicture();
    void openSound();
    void openFile(const std::string& path);
    void encode(EncodedStream& target, AVFrame* frame);
    void encodeSoundUntil(int64_t sample);
    void encodeSoundBlock(size_t count);
    void check(int code) const;

    int width_, height_;
    int sourceStride_;  // bytes per row of the frames handed in
    std::vector<uint8_t> copy_;
    std::unique_ptr<SoundSource> source_;
    int samplesPerFrame_;       // of video, per channel
    std::vector<float> sound_;  // interleaved samples that wait for the encoder
    int64_t soundToDrop_;
    bool soundEnded_ = false;

    AVFormatContext* format_ = nullptr;
    EncodedStream picture_, audio_;
    av::Owner<AVPacket> packet_ = av::newPacket();
    av::Owner<SwsContext> toYuv_;
};

}  // namespace zorv::tools
