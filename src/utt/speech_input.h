// The speech that a host has pushed and the engine has not yet handed to its motion source.
#pragma once

#include <cstddef>
#include <deque>
#include <vector>

namespace zorv {

/// A queue of utterances; the front one is the one that is spoken or comes next. An end is a mark
/// behind the last sample: what is pushed later belongs to the next utterance.
///
///     front: [samples not taken yet] ended   next: [samples ...] open
///
/// An utterance stays in front, empty, until it is dropped. Not thread-safe.
class SpeechInput {
  public:
    /// Appends samples. The first ones of an utterance give it its start time; none at all change
    /// nothing.
    void push(const float* samples, std::size_t n, double nowMs);

    /// Marks the end of the utterance that is being pushed; without audio since the last mark
    /// there is none.
    void end();

    void clear() { utterances_.clear(); }

    bool empty() const { return utterances_.empty(); }

    // Of the front utterance, which must exist:

    double startMs() const { return utterances_.front().startMs; }
    bool ended() const { return utterances_.front().ended; }
    bool exhausted() const { return utterances_.front().left() == 0; }
    /// Moves up to `max` samples to `out`, replacing its content.
    void take(std::size_t max, std::vector<float>& out);
    void discard() { utterances_.front().clear(); }
    void drop() { utterances_.pop_front(); }

    /// Of the last sample pushed.
    double lastPushMs() const { return lastPushMs_; }

  private:
    struct Utterance {
        std::vector<float> samples;
        std::size_t taken = 0;
        double startMs = 0;
        bool ended = false;

        std::size_t left() const { return samples.size() - taken; }
        void clear() {
            samples.clear();
            taken = 0;
        }
    };

    std::deque<Utterance> utterances_;
    double lastPushMs_ = 0;
};

}  // namespace zorv
