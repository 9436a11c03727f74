// Sound of any media file as interleaved floats at a chosen rate.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "media_file.h"
#include "streams.h"

namespace zorv::tools {

class AudioReader : public SoundSource {
  public:
    /// channels: 1 mixes down; 2 keeps a stereo source and makes others mono or stereo (see
    ///  channels()).
    AudioReader(const std::string& path, int rate, int maxChannels, const std::string& option);

    int rate() const override { return rate_; }
    int channels() const override { return channels_; }
    bool read(std::vector<float>& samples) override;

    /// Time of the first sample on the file's clock, in seconds; known after the first read.
    double startSeconds() const { return start_.value_or(0.0); }

  private:
    void configure(const AVFrame* frame);
    void convert(const AVFrame* frame, std::vector<float>& samples);

    MediaFile file_;
    int rate_;
    int channels_ = 1;
    int sourceRate_ = 0, sourceFormat_ = -1;
    AVChannelLayout sourceLayout_ = {};
    std::optional<double> start_;
    av::Owner<SwrContext> resampler_;
    av::Owner<AVFrame> frame_ = av::newFrame();
    bool ended_ = false;
};

struct Speech {
    std::vector<float> samples;  // mono
    double startSeconds = 0.0;
};

/// The whole sound as the library wants it, mono. Fails when there is none.
Speech readSpeech(const std::string& path, const std::string& option, int rate = 16000);

}  // namespace zorv::tools
