// Sound at any rate becomes what the speech models hear.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "common/units.h"

struct SpeexResamplerState_;

namespace zorv {

constexpr float kSampleScale = 1.0f / 32768;  ///< a 16-bit sample becomes [-1, 1)

/// Resamples one utterance after the other, piece by piece: n samples become exactly
/// speechSamples(n), of which number k lies at k / 16000 s. How the sound was cut changes none of
/// them, and 16 kHz is only scaled. A call that throws std::bad_alloc has changed nothing and can
/// be made again. One thread at a time.
class SpeechResampler {
  public:
    /// 8000 to 48000 Hz in steps of 25: a frame of 40 ms is then a whole number of samples.
    static constexpr bool fits(int rate) { return rate >= 8000 && rate <= 48000 && rate % 25 == 0; }

    /// REQUIRES: fits(rate).
    explicit SpeechResampler(int rate);
    ~SpeechResampler();
    SpeechResampler(const SpeechResampler&) = delete;
    SpeechResampler& operator=(const SpeechResampler&) = delete;

    int rate() const { return rate_; }

    /// ceil(n x 16000 / rate).
    std::uint64_t speechSamples(std::uint64_t n) const {
        const auto rate = static_cast<std::uint64_t>(rate_);
        return n / rate * kSampleRate + (n % rate * kSampleRate + rate - 1) / rate;
    }

    /// Samples of sound, at its own rate, by which what `push` appends stays behind.
    int lookAhead() const { return lookAhead_; }

    /// Forgets what was pushed: the next sample is the first of an utterance.
    void reset() noexcept;

    /// Appends to `out` what is determined by the sound so far.
    void push(const std::int16_t* pcm, std::size_t n, std::vector<float>& out);
    /// The same for samples in [-1, 1]; those that are not finite count as 0.
    void push(const float* samples, std::size_t n, std::vector<float>& out);

    /// Appends the rest of the utterance, as if silence followed, and starts anew.
    void finish(std::vector<float>& out);

  private:
    struct Destroy {
        void operator()(SpeexResamplerState_* state) const;
    };

    template <class Sample>
    void append(const Sample* samples, std::size_t n, std::vector<float>& out);

    /// Feeds one piece and writes what it determines; returns the samples written.
    std::size_t feed(const float* samples, std::size_t n, float* out, std::size_t room);

    const int rate_;
    const std::unique_ptr<SpeexResamplerState_, Destroy> state_;  ///< null at 16 kHz
    int lookAhead_ = 0;
    std::uint64_t pushed_ = 0;    ///< samples of this utterance, at its own rate
    std::uint64_t appended_ = 0;  ///< and at 16 kHz
};

}  // namespace zorv
