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
    int index = 0;               ///< bundle frame
    int speechSequence = -1;     ///< number within its utterance, for speech
    std::vector<float> driving;  ///< 63 floats; empty for idle frames
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
    };

    int size() const { return static_cast<int>(written_ - read_); }

    /// REQUIRES: size() < kSlots. `pixels` becomes a free buffer, possibly empty.
    void put(Pixels& pixels, FrameInfo&& info) {
        Slot& slot = slots_[written_ % kSlots];
        slot.pixels.swap(pixels);
        slot.info = std::move(info);
        ++written_;
    }

    /// The oldest frame. REQUIRES: size() > 0.
    Slot& front() { return slots_[read_ % kSlots]; }
    /// Its number among all frames ever put.
    std::uint64_t frontSequence() const { return read_; }

    /// The host has the oldest frame.
    void pop() {
        last_ = std::move(front().info);
        anyPopped_ = true;
        ++read_;
    }

    /// Drops every frame; their numbers are not used again.
    void drop() { read_ = written_; }

    /// The last frame that the host got; null before the first.
    const FrameInfo* lastPopped() const { return anyPopped_ ? &last_ : nullptr; }

  private:
    std::array<Slot, kSlots> slots_;
    std::uint64_t written_ = 0;
    std::uint64_t read_ = 0;
    FrameInfo last_;
    bool anyPopped_ = false;
};

}  // namespace zorv
