#include "audio_reader.h"

#include <algorithm>
#include <limits>

#include "failure.h"
#include "interrupt.h"

namespace zorv::tools {

AudioReader::AudioReader(const std::string& path, int rate, int maxChannels,
                         const std::string& option)
    : file_(path, AVMEDIA_TYPE_AUDIO, option), rate_(rate) {
    channels_ = std::clamp(file_.codec()->ch_layout.nb_channels, 1, maxChannels);
}

// Also called in the middle of a stream whose format changes.
void AudioReader::configure(const AVFrame* frame) {
    AVChannelLayout layout;
    av_channel_layout_default(&layout, channels_);
    AVChannelLayout source;
    if (frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
        av_channel_layout_default(&source, frame->ch_layout.nb_channels);
    } else {
        av_channel_layout_copy(&source, &frame->ch_layout);
    }
    SwrContext* made = nullptr;
    swr_alloc_set_opts2(&made, &layout, AV_SAMPLE_FMT_FLT, rate_, &source,
                        static_cast<AVSampleFormat>(frame->format), frame->sample_rate, 0, nullptr);
    resampler_.reset(made);
    av_channel_layout_uninit(&source);
    if (!made || swr_init(made) < 0) {
        fail("cannot convert the sound of '{}'; convert it to 16-bit WAV first", file_.path());
    }
    av_channel_layout_uninit(&sourceLayout_);
    av_channel_layout_copy(&sourceLayout_, &frame->ch_layout);
    sourceRate_ = frame->sample_rate;
    sourceFormat_ = frame->format;
}

// A null frame takes what the resampler still holds.
void AudioReader::convert(const AVFrame* frame, std::vector<float>& samples) {
    if (!resampler_) return;
    const int in = frame ? frame->nb_samples : 0;
    const int room = swr_get_out_samples(resampler_.get(), in);
    if (room < 0) fail("cannot convert the sound of '{}'", file_.path());
    const size_t old = samples.size();
    samples.resize(old + static_cast<size_t>(room) * static_cast<size_t>(channels_));
    auto* out = reinterpret_cast<uint8_t*>(samples.data() + old);
    auto** data = frame ? const_cast<const uint8_t**>(frame->extended_data) : nullptr;
    const int made = swr_convert(resampler_.get(), &out, room, data, in);
    if (made < 0) fail("cannot convert the sound of '{}'", file_.path());
    samples.resize(old + static_cast<size_t>(made) * static_cast<size_t>(channels_));
}

bool AudioReader::read(std::vector<float>& samples) {
    if (ended_) return false;
    if (!file_.next(frame_.get())) {
        ended_ = true;
        convert(nullptr, samples);
        return true;
    }
    if (!start_) start_ = file_.seconds(frame_.get());
    const bool changed = frame_->sample_rate != sourceRate_ || frame_->format != sourceFormat_ ||
                         av_channel_layout_compare(&frame_->ch_layout, &sourceLayout_) != 0;
    if (changed) {
        convert(nullptr, samples);
        configure(frame_.get());
    }
    convert(frame_.get(), samples);
    av_frame_unref(frame_.get());
    return true;
}

Speech readSpeech(const std::string& path, const std::string& option, int rate) {
    AudioReader reader(path, rate, 1, option);
    Speech speech;
    while (reader.read(speech.samples)) {
        throwIfInterrupted();
        if (speech.samples.size() > static_cast<size_t>(std::numeric_limits<int>::max())) {
            fail("'{}' is longer than 37 hours; cut it into parts", path);
        }
    }
    if (speech.samples.empty()) {
        fail("'{}' holds no sound (0 samples); give {} a file that does", path, option);
    }
    // Resampling overshoots full scale a little; the library takes [-1, 1].
    for (float& sample : speech.samples) sample = std::clamp(sample, -1.0f, 1.0f);
    speech.startSeconds = reader.startSeconds();
    return speech;
}

}  // namespace zorv::tools
