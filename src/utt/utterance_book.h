// What became of each utterance, from its first pushed sample to its last event.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <list>
#include <vector>

#include "common/units.h"
#include "utt/sound.h"
#include "zorv_core.h"

namespace zorv {

/// Events that wait for the host: the newest kKept of them.
class EventQueue {
  public:
    static constexpr std::size_t kKept = 1024;

    bool empty() const { return count_ == 0; }
    void put(const zorv_utt_event& event);
    /// The oldest event, and how many before it were dropped. REQUIRES: !empty().
    zorv_utt_event take();

  private:
    std::vector<zorv_utt_event> events_ = std::vector<zorv_utt_event>(kKept);
    std::size_t first_ = 0;
    std::size_t count_ = 0;
    std::uint64_t missed_ = 0;
};

/// A queue of utterances. An end is a mark behind the last sample: what is pushed later belongs to
/// the next one. Each runs through
///
///     pushed, ended        the host, or silence
///     taken                sound goes to the motion source: `current` is the first not spoken
///     failed | spoken      no frame will be made any more
///     shown                its frames are pulled, together with their sound
///     told                 its last event was made; it leaves when it is spoken as well
///
/// so several wait in front: spoken ones whose frames have not been pulled, the current one, and
/// those to come. Frames are counted from their utterance's first one; frame k shows the samples
/// from k x frameSamples on, and sound is kept until a frame behind it is pulled.
/// Not thread-safe. What leaves goes to `freed`, for the caller to destroy where no lock is held.
class UtteranceBook {
  public:
    struct Utterance {
        std::uint64_t number = 0;
        Sound sound;
        double startMs = 0;
        bool ended = false;
        std::int32_t reason = 0;  ///< of the end

        std::int64_t taken = 0;
        bool failed = false;
        bool spoken = false;
        std::int64_t frames = 0;  ///< made or left out, so far
        int waiting = 0;          ///< frames made and neither pulled nor dropped

        std::int64_t lastFrame = -1;  ///< that was pulled, with
        std::int64_t lastPts = -1;
        std::uint64_t leftOut = 0;  ///< frames before it that were not shown
        bool told = false;
    };
    using Utterances = std::list<Utterance>;

    /// What has left the book.
    struct Freed {
        Utterances utterances;
        Sound::Pieces pieces;
    };

    /// What a push needs, made by the pushing thread before it takes the lock that guards the book.
    struct Push {
        Push(const std::int16_t* pcm, std::size_t n) : pieces(Sound::cut(pcm, n)), utterance(1) {}
        Sound::Pieces pieces;
        Utterances utterance;  ///< one, empty
    };

    /// Before the first push.
    void setFrameSamples(int samples) { frameSamples_ = samples; }
    int frameSamples() const { return frameSamples_; }

    /// Whether a push of n >= 1 samples needs no prepared memory: they fit, or will not be spoken.
    bool fits(std::size_t n) const;
    /// Returns the utterance's number. REQUIRES: fits(n).
    std::uint64_t push(const std::int16_t* pcm, std::size_t n, double nowMs);
    std::uint64_t push(Push& prepared, double nowMs) noexcept;
    /// Of the last sample pushed.
    double lastPushMs() const { return lastPushMs_; }

    /// Marks the end of the utterance that is being pushed; without sound since the last mark
    /// there is none.
    void end(std::int32_t reason);
    /// Every utterance ends now, interrupted unless it had failed.
    void interrupt(Freed& freed);
    /// Every utterance has failed, those to come included.
    void failAll(Freed& freed);

    /// Null when there is nothing to speak.
    const Utterance* current() const;

    // Of the current utterance, which must exist:

    /// Copies up to `max` samples that were not taken yet, replacing the content of `out`.
    void take(std::size_t max, std::vector<std::int16_t>& out);
    /// Sets the end mark, behind all that was pushed so far.
    void mark();

    // Of the utterance of that number; nothing when it is not in the book.

    /// It is given up: what was pushed of it, and will be up to its end, is dropped.
    void fail(std::uint64_t number, Freed& freed);
    /// Frame `frame` is on its way to the host, or was dropped before it got there.
    void frameMade(std::uint64_t number, std::int64_t frame);
    void frameDropped(std::uint64_t number, Freed& freed);
    /// All its `frames` were made or left out.
    void spoken(std::uint64_t number, std::int64_t frames, Freed& freed);

    /// Frame `frame` is pulled. Its sound goes to `sound` unless that is null. Returns its
    /// ZORV_FRAME_ flags.
    std::uint32_t show(std::uint64_t number, std::int64_t frame, std::int64_t pts,
                       std::int16_t* sound, Freed& freed);

    /// Whether the sound for the frame behind the last pulled one of the utterance is there, for a
    /// source of that look-ahead.
    bool hasNextFrame(std::uint64_t number, int lookAheadSamples) const;

    bool empty() const { return utterances_.empty(); }
    /// Of the memory that holds sound.
    std::size_t soundBytes() const;

    EventQueue events;

  private:
    Utterance* find(std::uint64_t number);
    Utterance& speaking();
    zorv_utt_event event(const Utterance& utterance, std::int32_t type, std::int32_t reason) const;
    void tellEnd(Utterance& utterance);
    void settle(Freed& freed);
    void giveUp(Utterance& utterance, Freed& freed);

    int frameSamples_ = kSamplesPerFrame;
    Utterances utterances_;
    std::uint64_t numbers_ = 0;
    double lastPushMs_ = 0;
};

}  // namespace zorv
