#include "lip_sync.h"

#include <algorithm>
#include <cmath>

#include "audio_reader.h"
#include "failure.h"
#include "mouth_measure.h"

namespace zorv::tools {
namespace {

constexpr int kSamplesPerFrame = 640;
constexpr int kMaxLag = 12;
constexpr int kQuick = 4;          // frames in which speech would move the mouth
constexpr int kSilenceMargin = 8;  // frames of silence on both sides that are not judged

/// The sound, one value per video frame.
struct Envelope {
    std::vector<float> level;  // RMS, smoothed over three frames
    std::vector<char> silent;  // there is sound and every sample of it is zero
};

struct Match {
    int lag = 0;
    double correlation = -2.0;
};

Envelope makeEnvelope(const std::vector<float>& samples, size_t frames, int64_t firstSample) {
    std::vector<float> rms(frames);
    Envelope envelope;
    envelope.silent.assign(frames, 1);
    const auto count = static_cast<int64_t>(samples.size());
    for (size_t t = 0; t < frames; ++t) {
        double sum = 0;
        const int64_t begin = firstSample + static_cast<int64_t>(t) * kSamplesPerFrame;
        for (int64_t i = std::max<int64_t>(0, begin); i < std::min(count, begin + kSamplesPerFrame);
             ++i) {
            const double value = samples[static_cast<size_t>(i)];
            sum += value * value;
        }
        if (sum != 0 || begin < 0 || begin >= count) envelope.silent[t] = 0;
        rms[t] = static_cast<float>(std::sqrt(sum / kSamplesPerFrame));
    }
    envelope.level.resize(frames);
    for (size_t t = 0; t < frames; ++t) {
        const float before = rms[t > 0 ? t - 1 : t], after = rms[t + 1 < frames ? t + 1 : t];
        envelope.level[t] = 0.25f * before + 0.5f * rms[t] + 0.25f * after;
    }
    return envelope;
}

double pearson(const float* a, const float* b, size_t n) {
    double sa = 0, sb = 0, saa = 0, sbb = 0, sab = 0;
    for (size_t i = 0; i < n; ++i) {
        sa += a[i], sb += b[i];
        saa += double{a[i]} * a[i], sbb += double{b[i]} * b[i], sab += double{a[i]} * b[i];
    }
    const double count = static_cast<double>(n);
    const double va = saa - sa * sa / count, vb = sbb - sb * sb / count;
    return va > 1e-12 && vb > 1e-12 ? (sab - sa * sb / count) / std::sqrt(va * vb) : 0.0;
}

/// The lag whose correlation is highest; positive: the picture comes after the sound.
Match bestMatch(const std::vector<float>& opening, const std::vector<float>& level) {
    const int n = static_cast<int>(opening.size());
    Match best;
    for (int lag = -kMaxLag; lag <= kMaxLag; ++lag) {
        const int from = std::max(0, lag), to = n + std::min(0, lag);
        if (to - from < 2 * kMaxLag) continue;
        const double value = pearson(opening.data() + from, level.data() + (from - lag),
                                     static_cast<size_t>(to - from));
        if (value > best.correlation) best = {lag, value};
    }
    return best;
}

float quantile(std::vector<float> values, double place) {
    if (values.empty()) return 0;
    const auto rank = std::lround(place * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + rank, values.end());
    return values[static_cast<size_t>(rank)];
}

struct Silence {
    int frames = 0;      // judged
    float movement = 0;  // largest change of the height within kQuick frames, pixels
    float drift = 0;     // largest change within one silent stretch, pixels
};

// Speech moves the mouth within a few frames; a head that breathes and tilts changes the measured
// height too, but slowly. The two are told apart by their speed.
Silence judgeSilence(const std::vector<float>& height, const std::vector<char>& silent) {
    Silence result;
    const auto change = [&](size_t from, size_t to) {
        const auto [low, high] = std::minmax_element(height.begin() + static_cast<long>(from),
                                                     height.begin() + static_cast<long>(to));
        return *high - *low;
    };
    const size_t n = height.size();
    for (size_t begin = 0; begin < n;) {
        size_t end = begin;
        while (end < n && silent[end]) ++end;
        // A stretch at the clip's own beginning has no speech before it, one at its end none after.
        const size_t from = begin == 0 ? 0 : begin + kSilenceMargin;
        const size_t to = end == n ? n : end - std::min<size_t>(end, kSilenceMargin);
        if (from < to) {
            result.frames += static_cast<int>(to - from);
            result.drift = std::max(result.drift, change(from, to));
        }
        for (size_t t = from; t < to; ++t) {
            result.movement = std::max(result.movement, change(t, std::min(to, t + kQuick + 1)));
        }
        begin = end + 1;
    }
    return result;
}

/// Median width of the mouth while the sound is at least a quarter of its loudest.
float widthInSpeech(const MouthSeries& mouth, const Envelope& envelope) {
    const float loudest = *std::max_element(envelope.level.begin(), envelope.level.end());
    std::vector<float> widths;
    for (size_t t = 0; t < mouth.width.size(); ++t) {
        if (loudest > 0 && envelope.level[t] >= 0.25f * loudest) widths.push_back(mouth.width[t]);
    }
    return quantile(widths, 0.5);
}

}  // namespace

LipSync measureLipSync(const std::string& video, const std::string& audio, int shiftFrames,
                       const std::optional<Region>& region) {
    LipSync result;
    result.region = region ? *region : findMouth(video);
    const MouthSeries mouth = measureMouth(video, result.region);
    if (mouth.height.size() < 4 * kMaxLag) {
        fail("'{}' has only {} frames; give a video of two seconds or more", video,
             mouth.height.size());
    }
    const bool ownSound = audio.empty();
    const Speech speech = readSpeech(ownSound ? video : audio, ownSound ? "VIDEO" : "--audio");
    // A sound file starts with the picture; the video's own sound starts at its own time.
    const double offset = ownSound ? mouth.startSeconds - speech.startSeconds : 0.0;
    const int64_t firstSample =
        std::llround(offset * 16000) + int64_t{shiftFrames} * kSamplesPerFrame;
    const Envelope envelope = makeEnvelope(speech.samples, mouth.height.size(), firstSample);
    const Match match = bestMatch(mouth.height, envelope.level);
    const Silence silence = judgeSilence(mouth.height, envelope.silent);
    result.frames = mouth.height.size();
    result.lag = match.lag;
    result.correlation = match.correlation;
    result.closed = quantile(mouth.height, 0.05);
    result.opening = quantile(mouth.height, 0.95) - result.closed;
    result.width = widthInSpeech(mouth, envelope);
    result.silentFrames = silence.frames;
    result.silentMovement = silence.movement;
    result.silentDrift = silence.drift;
    return result;
}

}  // namespace zorv::tools
