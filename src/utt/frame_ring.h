// Finished frames on their way to the host.
#pragma once

#include <array>
#include <cstdint>
#include <utility>
#include <vector>

namespace zorv {

enum class FrameKind : std::int32_t {
    kIdle = 0,    ///< the bundle's own frame
    kSpeech = 1,  ///< rendered from the motion source's keypoints
    kRamp = 2,    ///< rendered while the lips return to rest
};

/// What is known of a frame besides its pixels.
struct FrameInfo {
    FrameKind kind = FrameKind::kIdle;
    int index = 0;                ///< bundle frame
    int speechSequence = -1;      ///< number among its utterance's shown frames, for speech
    std::uint64_t utterance = 0;  ///< of a ramp, the one that it closes; 0 for idle frames
    std::int64_t number = -1;     ///< in its utterance, for speech
    std::int64_t skipped = 0;     ///< all speech frames left out before it for being late
    bool gap = false;             ///< not of speech: speech was left out right before it
    std::vector<float> driving;   ///< 63 floats; empty for idle frames
};

using Pixels = std::vector<std::uint8_t>;

/// Up to kSlots frames, oldest first. Frames move in and out by swapping buffers: a writer
/// composes into a buffer of its own and swaps it for a free one, a reader swaps the oldest frame
/// out, copies it without the engine's lock, and takes it off the ring when nothing came between.
/// Counters never wrap; a slot is a counter modulo kSlots. Not thread-safe.
class FrameRing {
  public:
    static constexpr std::uint64_t kSlots = 8;

    struct Slot {
        Pixels pixels;
        FrameInfo info;
        std::uint64_t sequence = 0;  ///< its number among all frames ever put
    };

    int size() const { return static_cast<int>(written_ - read_); }
    /// Those that are not speech.
    int others() const {
        int count = 0;
        for (std::uint64_t at = read_; at != written_; ++at) {
            count += slots_[at % kSlots].info.kind != FrameKind::kSpeech;
        }
        return count;
    }

    /// REQUIRES: size() < kSlots. `pixels` becomes a free buffer, possibly empty.
    void put(Pixels& pixels, FrameInfo&& info) {
        Slot& slot = slots_[written_ % kSlots];
        slot.pixels.swap(pixels);
        slot.info = std::move(info);
        slot.sequence = sequence_++;
        ++written_;
    }

    /// The oldest frame. REQUIRES: size() > 0.
    Slot& front() { return slots_[read_ % kSlots]; }

    /// Takes the oldest frame off: the host has it.
    void pop() {
        last_ = std::move(front().info);
        anyPopped_ = true;
        ++read_;
    }

    /// Drops every frame but the `kept` oldest; their sequence numbers are not used again.
    void drop(int kept = 0) {
        if (size() > kept) written_ = read_ + static_cast<std::uint64_t>(kept);
    }

    /// The frame after which the next one is shown: the newest that waits, else the last that the
    /// host got; null before the first.
    const FrameInfo* newest() const {
        if (size() > 0) return &slots_[(written_ - 1) % kSlots].info;
        return anyPopped_ ? &last_ : nullptr;
    }

  private:
    std::array<Slot, kSlots> slots_;
    std::uint64_t written_ = 0;
    std::uint64_t read_ = 0;
    std::uint64_t sequence_ = 0;
    FrameInfo last_;
    bool anyPopped_ = false;
};

}  // namespace zorv
