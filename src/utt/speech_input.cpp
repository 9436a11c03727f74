#include "utt/speech_input.h"

#include <algorithm>

namespace zorv {

bool SpeechInput::fits(std::size_t n) const {
    return !utterances_.empty() && !utterances_.back().ended && utterances_.back().sound.fits(n);
}

void SpeechInput::push(const std::int16_t* pcm, std::size_t n, double nowMs) {
    utterances_.back().sound.append(pcm, n);
    lastPushMs_ = nowMs;
}

void SpeechInput::push(Push& prepared, double nowMs) noexcept {
    if (utterances_.empty() || utterances_.back().ended) {
        prepared.utterance.front().startMs = nowMs;
        utterances_.splice(utterances_.end(), prepared.utterance);
    }
    utterances_.back().sound.append(prepared.pieces);
    lastPushMs_ = nowMs;
}

void SpeechInput::end() {
    if (!utterances_.empty()) utterances_.back().ended = true;
}

bool SpeechInput::exhausted() const {
    const Utterance& front = utterances_.front();
    return front.taken == front.sound.size();
}

void SpeechInput::take(std::size_t max, std::vector<std::int16_t>& out, Sound::Pieces& freed) {
    Utterance& front = utterances_.front();
    const auto left = static_cast<std::size_t>(front.sound.size() - front.taken);
    out.resize(std::min(max, left));
    front.sound.read(front.taken, out.size(), out.data());
    front.taken += static_cast<std::int64_t>(out.size());
    front.sound.releaseBefore(front.taken, freed);
}

void SpeechInput::discard(Sound::Pieces& freed) noexcept {
    Utterance& front = utterances_.front();
    front.taken = front.sound.size();
    front.sound.releaseBefore(front.taken, freed);
}

}  // namespace zorv
