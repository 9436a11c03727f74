// Sound of any media file as interleaved floats at a chosen rate.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "media_file.h"
#include "sound_source.h"

namespace zorv::tools {

class AudioReader : public SoundSource {
  public:
    /** channels: 1 mixes down; 2 keeps a stereo source and makes others mono or stereo (see
     *  channels()). */
    AudioReader(const std::string& path, int rate, int max_channels, const std::string& option);

    int rate() const override { return rate_; }
    int channels() const override { return channels_; }
    bool read(std::vector<float>& samples) override;

    /** Time of the first sample on the file's clock, in seconds; known after the first read. */
    double start_seconds() const { return start_.value_or(0.0); }

  private:
    void configure(const AVFrame* frame);
    void convert(const AVFrame* frame, std::vector<float>& samples);

    MediaFile file_;
    int rate_;
    int channels_ = 1;
    int source_rate_ = 0, source_format_ = -1;
    AVChannelLayout source_layout_ = {};
    std::optional<double> start_;
    av::Owner<SwrContext> resampler_;
    av::Owner<AVFrame> frame_ = av::new_frame();
    bool ended_ = false;
};

struct Speech {
    std::vector<float> samples;  // mono, 16,000 Hz
    double start_seconds = 0.0;
};

/** The whole sound as the library wants it: mono, 16,000 Hz. Fails when there is none. */
Speech read_speech(const std::string& path, const std::string& option);

}  // namespace zorv::tools
