#include <zorv_core.h>

#include <algorithm>
#include <stdexcept>
#include <string>

#include "audio/speech_resampler.h"
#include "common/error.h"

namespace {

using Errors = zorv::LastError<zorv::SpeechResampler>;

int resample(const float* audio, int n, int rate, float* out, int max) {
    if (!audio || !out || n < 0) throw std::invalid_argument("bad args");
    if (!zorv::SpeechResampler::fits(rate)) {
        throw std::invalid_argument("a rate of " + std::to_string(rate) +
                                    " Hz; it must be 8000 to 48000 and a multiple of 25");
    }
    zorv::SpeechResampler resampler(rate);
    const auto count = static_cast<std::size_t>(n);
    if (resampler.speechSamples(count) > static_cast<std::uint64_t>(std::max(max, 0))) {
        throw std::invalid_argument("out is too small");
    }
    std::vector<float> speech;
    resampler.push(audio, count, speech);
    resampler.finish(speech);
    std::copy(speech.begin(), speech.end(), out);
    return static_cast<int>(speech.size());
}

}  // namespace

int zorv_resample(const float* audio, int n, int rate, float* out, int max_samples) {
    Errors::clear();
    return zorv::guarded<Errors>("zorv_resample", -1,
                                 [&] { return resample(audio, n, rate, out, max_samples); });
}

const char* zorv_resample_last_error(void) {
    return Errors::get();
}
