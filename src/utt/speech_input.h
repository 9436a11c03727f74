// The speech that a host has pushed and the engine has not yet handed to its motion source.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <vector>

#include "utt/sound.h"

namespace zorv {

/// A queue of utterances; the front one is the one that is spoken or comes next. An end is a mark
/// behind the last sample: what is pushed later belongs to the next utterance.
///
///     front: [samples not taken yet] ended   next: [samples ...] open
///
/// An utterance stays in front, empty, until it is dropped. Not thread-safe.
class SpeechInput {
  public:
    struct Utterance {
        Sound sound;
        std::int64_t taken = 0;
        double startMs = 0;
        bool ended = false;
    };
    using Utterances = std::list<Utterance>;

    /// What a push needs, made by the pushing thread before it takes the lock that guards this
    /// object. One of n samples that fit into the last piece needs nothing.
    struct Push {
        Sound::Pieces pieces;
        Utterances utterance;  ///< one, empty
        Push(const std::int16_t* pcm, std::size_t n) : pieces(Sound::cut(pcm, n)), utterance(1) {}
    };
    bool fits(std::size_t n) const;

    /// Appends samples: n >= 1 that fit, or those that were prepared. The first ones of an
    /// utterance give it its start time.
    void push(const std::int16_t* pcm, std::size_t n, double nowMs);
    void push(Push& prepared, double nowMs) noexcept;

    /// Marks the end of the utterance that is being pushed; without audio since the last mark
    /// there is none.
    void end();

    /// Everything goes to `freed`, for the caller to destroy where no lock is held.
    void clear(Utterances& freed) noexcept { freed.splice(freed.end(), utterances_); }

    bool empty() const { return utterances_.empty(); }

    // Of the front utterance, which must exist:

    double startMs() const { return utterances_.front().startMs; }
    bool ended() const { return utterances_.front().ended; }
    bool exhausted() const;
    /// Moves up to `max` samples to `out`, replacing its content.
    void take(std::size_t max, std::vector<std::int16_t>& out, Sound::Pieces& freed);
    void discard(Sound::Pieces& freed) noexcept;
    void drop() { utterances_.pop_front(); }

    /// Of the last sample pushed.
    double lastPushMs() const { return lastPushMs_; }

  private:
    Utterances utterances_;
    double lastPushMs_ = 0;
};

}  // namespace zorv
