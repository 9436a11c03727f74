#include "utt/utterance_book.h"

#include <algorithm>

namespace zorv {

void EventQueue::put(const zorv_utt_event& event) {
    if (count_ == kKept) {
        first_ = (first_ + 1) % kKept;
        --count_;
        ++missed_;
    }
    events_[(first_ + count_) % kKept] = event;
    ++count_;
}

zorv_utt_event EventQueue::take() {
    zorv_utt_event event = events_[first_];
    event.missed = missed_;
    missed_ = 0;
    first_ = (first_ + 1) % kKept;
    --count_;
    return event;
}

bool UtteranceBook::fits(std::size_t n) const {
    if (utterances_.empty() || utterances_.back().ended) return false;
    return utterances_.back().failed || utterances_.back().sound.fits(n);
}

std::uint64_t UtteranceBook::push(const std::int16_t* pcm, std::size_t n, double nowMs) {
    Utterance& back = utterances_.back();
    if (!back.failed) back.sound.append(pcm, n);
    lastPushMs_ = nowMs;
    return back.number;
}

std::uint64_t UtteranceBook::push(Push& prepared, double nowMs) noexcept {
    if (utterances_.empty() || utterances_.back().ended) {
        prepared.utterance.front().number = ++numbers_;
        prepared.utterance.front().startMs = nowMs;
        utterances_.splice(utterances_.end(), prepared.utterance);
    }
    Utterance& back = utterances_.back();
    if (!back.failed) back.sound.append(prepared.pieces);
    lastPushMs_ = nowMs;
    return back.number;
}

void UtteranceBook::end(std::int32_t reason) {
    if (utterances_.empty() || utterances_.back().ended) return;
    utterances_.back().ended = true;
    utterances_.back().reason = reason;
}

void UtteranceBook::mark() {
    Utterance& utterance = speaking();
    if (!utterance.ended) end(ZORV_REASON_FAILURE);
}

void UtteranceBook::interrupt(Freed& freed) {
    for (Utterance& utterance : utterances_) {
        if (utterance.told) continue;
        utterance.spoken = true;
        utterance.reason = ZORV_REASON_INTERRUPT;
        utterance.waiting = 0;
        tellEnd(utterance);
    }
    freed.utterances.splice(freed.utterances.end(), utterances_);
}

void UtteranceBook::failAll(Freed& freed) {
    for (Utterance& utterance : utterances_) {
        if (utterance.spoken) continue;  // its frames are made
        giveUp(utterance, freed);
        utterance.ended = utterance.spoken = true;
    }
    settle(freed);
}

const UtteranceBook::Utterance* UtteranceBook::current() const {
    for (const Utterance& utterance : utterances_) {
        if (!utterance.spoken) return &utterance;
    }
    return nullptr;
}

UtteranceBook::Utterance& UtteranceBook::speaking() {
    return *std::find_if(utterances_.begin(), utterances_.end(),
                         [](const Utterance& utterance) { return !utterance.spoken; });
}

UtteranceBook::Utterance* UtteranceBook::find(std::uint64_t number) {
    for (Utterance& utterance : utterances_) {
        if (utterance.number == number) return &utterance;
        if (utterance.number > number) break;
    }
    return nullptr;
}

void UtteranceBook::take(std::size_t max, std::vector<std::int16_t>& out) {
    Utterance& utterance = speaking();
    const std::int64_t left = utterance.sound.size() - utterance.taken;
    out.resize(std::min(max, static_cast<std::size_t>(left)));
    utterance.sound.read(utterance.taken, out.size(), out.data());
    utterance.taken += static_cast<std::int64_t>(out.size());
}

/// The sound of frames that wait for the host is kept.
void UtteranceBook::giveUp(Utterance& utterance, Freed& freed) {
    utterance.failed = true;
    utterance.taken = utterance.sound.size();
    utterance.sound.releaseFrom(utterance.frames * frameSamples_, freed.pieces);
}

void UtteranceBook::fail(std::uint64_t number, Freed& freed) {
    Utterance* utterance = find(number);
    if (!utterance || utterance->spoken) return;
    giveUp(*utterance, freed);
    settle(freed);
}

void UtteranceBook::frameMade(std::uint64_t number, std::int64_t frame) {
    Utterance* utterance = find(number);
    if (!utterance) return;
    utterance->frames = frame + 1;
    ++utterance->waiting;
}

void UtteranceBook::frameDropped(std::uint64_t number, Freed& freed) {
    Utterance* utterance = find(number);
    if (!utterance) return;
    --utterance->waiting;
    settle(freed);
}

void UtteranceBook::spoken(std::uint64_t number, std::int64_t frames, Freed& freed) {
    Utterance* utterance = find(number);
    if (!utterance) return;
    utterance->spoken = true;
    utterance->frames = frames;
    settle(freed);
}

std::uint32_t UtteranceBook::show(std::uint64_t number, std::int64_t frame, std::int64_t pts,
                                  std::int16_t* sound, Freed& freed) {
    Utterance* utterance = find(number);
    if (!utterance) return 0;
    std::uint32_t flags = 0;
    const std::int64_t begin = frame * frameSamples_;
    if (sound) utterance->sound.read(begin, static_cast<std::size_t>(frameSamples_), sound);
    utterance->sound.releaseBefore(begin + frameSamples_, freed.pieces);
    const std::int64_t missing = frame - utterance->lastFrame - 1;
    if (missing > 0) flags |= ZORV_FRAME_GAP;
    utterance->leftOut += static_cast<std::uint64_t>(missing);
    const bool first = utterance->lastFrame < 0;
    utterance->lastFrame = frame;
    utterance->lastPts = pts;
    --utterance->waiting;
    if (first) {
        flags |= ZORV_FRAME_FIRST;
        events.put(event(*utterance, ZORV_UTT_STARTED, 0));
    }
    if ((utterance->spoken || utterance->failed) && utterance->waiting == 0) {
        flags |= ZORV_FRAME_LAST;
        if (utterance->reason == ZORV_REASON_SILENCE) flags |= ZORV_FRAME_SILENCE;
    }
    settle(freed);
    return flags;
}

bool UtteranceBook::hasNextFrame(std::uint64_t number, int lookAheadSamples) const {
    for (const Utterance& utterance : utterances_) {
        if (utterance.number != number) continue;
        if (utterance.waiting > 0) return true;
        if (utterance.failed || utterance.spoken) return false;
        const std::int64_t begin = (utterance.lastFrame + 1) * frameSamples_;
        const std::int64_t needed = utterance.ended ? 1 : lookAheadSamples;
        return utterance.sound.size() >= begin + needed;
    }
    return false;
}

std::size_t UtteranceBook::soundBytes() const {
    std::size_t bytes = 0;
    for (const Utterance& utterance : utterances_) bytes += utterance.sound.bytes();
    return bytes;
}

zorv_utt_event UtteranceBook::event(const Utterance& utterance, std::int32_t type,
                                    std::int32_t reason) const {
    zorv_utt_event event = {};
    event.type = type;
    event.reason = reason;
    event.utterance = utterance.number;
    event.samples = std::min((utterance.lastFrame + 1) * frameSamples_, utterance.sound.size());
    event.pts = utterance.lastPts;
    event.frames_left_out = utterance.leftOut;
    return event;
}

void UtteranceBook::tellEnd(Utterance& utterance) {
    utterance.told = true;
    const bool interrupted = utterance.reason == ZORV_REASON_INTERRUPT;
    if (utterance.failed || (utterance.lastFrame < 0 && !interrupted)) {
        events.put(event(utterance, ZORV_UTT_FAILED, ZORV_REASON_FAILURE));
    } else if (interrupted) {
        events.put(event(utterance, ZORV_UTT_INTERRUPTED, ZORV_REASON_INTERRUPT));
    } else {
        utterance.leftOut += static_cast<std::uint64_t>(utterance.frames - utterance.lastFrame - 1);
        events.put(event(utterance, ZORV_UTT_FINISHED, utterance.reason));
    }
}

/// Tells the ends that have become certain, in order, and lets go what is over.
void UtteranceBook::settle(Freed& freed) {
    while (!utterances_.empty()) {
        Utterance& front = utterances_.front();
        if (!front.told) {
            if (front.waiting > 0 || !(front.failed || front.spoken)) return;
            tellEnd(front);
        }
        if (!front.spoken) return;  // its end mark is still to come
        freed.utterances.splice(freed.utterances.end(), utterances_, utterances_.begin());
    }
}

}  // namespace zorv
