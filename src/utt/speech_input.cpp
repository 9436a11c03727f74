#include "utt/speech_input.h"

#include <algorithm>
#include <utility>

namespace zorv {

void SpeechInput::push(const float* samples, std::size_t n, double nowMs) {
    if (n == 0) return;
    if (utterances_.empty() || utterances_.back().ended) {
        Utterance next;  // without its samples, which there may be no memory for, there is none
        next.samples.assign(samples, samples + n);
        next.startMs = nowMs;
        utterances_.push_back(std::move(next));
    } else {
        std::vector<float>& queue = utterances_.back().samples;
        queue.insert(queue.end(), samples, samples + n);
    }
    lastPushMs_ = nowMs;
}

void SpeechInput::end() {
    if (!utterances_.empty()) utterances_.back().ended = true;
}

void SpeechInput::take(std::size_t max, std::vector<float>& out) {
    Utterance& front = utterances_.front();
    const std::size_t n = std::min(max, front.left());
    const auto begin = front.samples.begin() + static_cast<std::ptrdiff_t>(front.taken);
    out.assign(begin, begin + static_cast<std::ptrdiff_t>(n));
    front.taken += n;
    // Half-read storage is moved together only now and then, so a long push costs linear time.
    if (front.left() == 0) {
        front.clear();
    } else if (front.taken >= front.samples.size() / 2) {
        front.samples.erase(front.samples.begin(),
                            front.samples.begin() + static_cast<std::ptrdiff_t>(front.taken));
        front.taken = 0;
    }
}

}  // namespace zorv
