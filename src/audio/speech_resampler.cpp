#include "audio/speech_resampler.h"

#include <speex/speex_resampler.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cmath>
#include <new>

namespace zorv {
namespace {

/// The resampler's quality: flat up to 0.9 of the band, errors below -90 dB, 4 to 8 ms of
/// look-ahead. Quality 6 is 1 dB down at 0.9 of the band; quality 8 costs a quarter more
/// look-ahead.
constexpr int kQuality = 7;
constexpr std::size_t kPiece = 1024;  ///< samples that are converted at a time

float scaled(std::int16_t sample) {
    return static_cast<float>(sample) * kSampleScale;
}

float scaled(float sample) {
    return std::isfinite(sample) ? sample : 0;
}

SpeexResamplerState_* open(int rate) {
    if (rate == kSampleRate) return nullptr;
    SpeexResamplerState_* state =
        speex_resampler_init(1, static_cast<spx_uint32_t>(rate), kSampleRate, kQuality, nullptr);
    if (!state) throw std::bad_alloc();
    return state;
}

}  // namespace

void SpeechResampler::Destroy::operator()(SpeexResamplerState_* state) const {
    speex_resampler_destroy(state);
}

SpeechResampler::SpeechResampler(int rate) : rate_(rate), state_(open(rate)) {
    if (state_) lookAhead_ = speex_resampler_get_input_latency(state_.get());
    reset();
}

SpeechResampler::~SpeechResampler() = default;

void SpeechResampler::reset() noexcept {
    pushed_ = 0;
    appended_ = 0;
    if (!state_) return;
    speex_resampler_reset_mem(state_.get());
    speex_resampler_skip_zeros(state_.get());  // the first output lies on the first input
}

std::size_t SpeechResampler::feed(const float* samples, std::size_t n, float* out,
                                  std::size_t room) {
    auto taken = static_cast<spx_uint32_t>(n);
    auto written = static_cast<spx_uint32_t>(room);
    speex_resampler_process_float(state_.get(), 0, samples, &taken, out, &written);
    assert(taken == n || written == room);
    return written;
}

template <class Sample>
void SpeechResampler::append(const Sample* samples, std::size_t n, std::vector<float>& out) {
    const std::size_t before = out.size();
    // An upper bound of what this push yields. Resizing is the only step that can fail.
    const std::uint64_t bound = state_ ? speechSamples(pushed_ + n) - appended_ : n;
    out.resize(before + bound);
    pushed_ += n;
    float* to = out.data() + before;
    if (!state_) {
        std::transform(samples, samples + n, to, [](Sample x) { return scaled(x); });
        return;
    }
    std::array<float, kPiece> piece;
    while (n > 0) {
        const std::size_t size = std::min(n, kPiece);
        std::transform(samples, samples + size, piece.data(), [](Sample x) { return scaled(x); });
        const auto room = static_cast<std::size_t>(out.data() + out.size() - to);
        to += feed(piece.data(), size, to, room);
        samples += size;
        n -= size;
    }
    const auto size = static_cast<std::size_t>(to - out.data());
    appended_ += size - before;
    out.resize(size);
}

void SpeechResampler::push(const std::int16_t* pcm, std::size_t n, std::vector<float>& out) {
    append(pcm, n, out);
}

void SpeechResampler::push(const float* samples, std::size_t n, std::vector<float>& out) {
    append(samples, n, out);
}

void SpeechResampler::finish(std::vector<float>& out) {
    if (state_) {
        std::size_t at = out.size();
        out.resize(at + (speechSamples(pushed_) - appended_));
        const std::array<float, kPiece> silence{};
        while (at < out.size())
            at += feed(silence.data(), kPiece, out.data() + at, out.size() - at);
    }
    reset();
}

}  // namespace zorv
