#include "motion/motion_features.h"

#include <algorithm>
#include <memory>

#include "common/samples.h"

namespace zorv::motion {
namespace {

struct WindowScratch {
    std::array<float, kWindowSamples> samples;
    SpectrumScratch spectrum;
};

/// Made at a thread's first window; threads that only push or pull elsewhere pay nothing.
WindowScratch& windowScratch() {
    thread_local const auto scratch = std::make_unique_for_overwrite<WindowScratch>();
    return *scratch;
}

constexpr std::size_t kFirstPair = 6;  ///< the speech row that belongs to a window's first frame

}  // namespace

FrontEnd::FrontEnd(const MotionTables& tables, ModelRun& student, const Dump& dump)
    : tables_(tables),
      student_(student),
      dump_(dump),
      spectrum_(tables.window.data(), tables.binmat.data()),
      kernels_(*chooseKernel(kSpectrumKernels).entry),
      features_(kFeatureFloats),
      speech_(kSpeechRows * kSpeechFloats),
      audio_(1, 16384, 4),
      rows_(kRowFloats, 16, 8) {
    student_.bindInput(0, features_.data());
    student_.bindOutput(0, speech_.data());
}

bool FrontEnd::nextWindowHeard() const {
    return nextWindow_ * kSamplesPerFrame + kWindowFollowSamples <= samples();
}

void FrontEnd::processNextWindow() {
    processWindow(nextWindow_);
    nextWindow_ += kWindowFrames;
    audio_.releaseBefore(nextWindow_ * kSamplesPerFrame - kWindowLeadSamples);
}

void FrontEnd::processProvisionally(std::int64_t end) {
    const std::int64_t real = rows_.end();
    for (std::int64_t frame = nextWindow_; frame < end; frame += kWindowFrames) {
        processWindow(frame);
        provisionalRows_ = rows_.end() - real;
    }
}

void FrontEnd::dropProvisionalRows() {
    rows_.truncate(rows_.end() - provisionalRows_);
    provisionalRows_ = 0;
}

void FrontEnd::releaseRowsBefore(std::int64_t frame) {
    if (!dump_.isOn()) rows_.releaseBefore(frame);
}

void FrontEnd::reset() {
    audio_.clear();
    rows_.clear();
    nextWindow_ = 0;
    provisionalRows_ = 0;
}

void FrontEnd::processWindow(std::int64_t frame) {
    WindowScratch& scratch = windowScratch();
    copyWindow(frame, scratch.samples.data());
    bandFeatures(spectrum_, kernels_, scratch.samples.data(), scratch.spectrum, features_.data());
    student_.run();
    for (std::size_t r = 0; r < kSpeechRows; ++r) {
        float* row = speech_.data() + r * kSpeechFloats;
        for (std::size_t j = 0; j < kSpeechFloats; ++j) {
            row[j] = row[j] * tables_.scale[j] + tables_.mean[j];
        }
    }
    if (frame == 0) {
        dump_.write("/mel0.bin", features_.data(), features_.size());
        dump_.write("/feat0.bin", speech_.data(), speech_.size());
    }
    rows_.reserve(kWindowFrames);
    for (std::size_t i = 0; i < kWindowFrames; ++i) {
        const float* first = speech_.data() + (kFirstPair + 2 * i) * kSpeechFloats;
        appendRow(first, first + kSpeechFloats, frame + static_cast<std::int64_t>(i));
    }
}

void FrontEnd::copyWindow(std::int64_t frame, float* samples) const {
    const std::int64_t first = frame * kSamplesPerFrame - kWindowLeadSamples;
    const std::int64_t last = first + kWindowSamples;
    const std::int64_t from = std::clamp<std::int64_t>(0, first, last);
    const std::int64_t to = std::clamp<std::int64_t>(audio_.end(), from, last);
    std::fill_n(samples, from - first, 0.f);
    const auto heard = static_cast<std::size_t>(to - from);
    audio_.copy(from, heard, samples + (from - first));
    silenceNonFinite(samples + (from - first), heard);
    std::fill_n(samples + (to - first), last - to, 0.f);
}

void FrontEnd::appendRow(const float* first, const float* second, std::int64_t frame) {
    float* row = rows_.append();
    for (std::size_t j = 0; j < kSpeechFloats; ++j) *row++ = 0.5f * first[j] + 0.5f * second[j];
    const std::size_t emotion = static_cast<std::size_t>(frame) % tables_.emotionCount();
    row = std::copy_n(tables_.emotions.data() + emotion * kEmotionFloats, kEmotionFloats, row);
    std::copy(tables_.rowTail.begin(), tables_.rowTail.end(), row);
}

}  // namespace zorv::motion
