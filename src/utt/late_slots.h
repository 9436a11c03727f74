// Speech against the clock: 25 frames per second from the moment that the host has one.
#pragma once

#include <cmath>

namespace zorv {

/// Each frame is due 40 ms after the one before. A slot is late when its frame, whose sound has
/// come, is not finished 40 ms after it was due; the frame then takes the next slot. A host that
/// pulls late makes no slot late. pass() is called before every change of what it is given. Not
/// thread-safe.
class LateSlots {
  public:
    /// Counts up to now. `finished`: the frame waits for the host; `possible`: its sound is there.
    void pass(double nowMs, bool finished, bool possible) {
        if (!running_ || finished) return;
        if (!possible) {
            if (dueMs_ < nowMs) dueMs_ = nowMs;
            return;
        }
        const double slots = std::floor((nowMs - dueMs_) / kSlotMs);
        if (slots < 1) return;
        dueMs_ += slots * kSlotMs;
        count_ += slots;
        owed_ += slots;
        lateSincePull_ = true;
    }

    /// The host has a speech frame.
    void pulled(double nowMs) {
        // A host that is further behind than kHostSlackMs has begun a new schedule.
        const double due = running_ ? std::fmax(dueMs_, nowMs - kHostSlackMs) : nowMs;
        running_ = true;
        dueMs_ = due + kSlotMs;
        late_ = lateSincePull_;
        lateSincePull_ = false;
    }
    /// No more speech of this utterance follows.
    void stop() {
        running_ = late_ = lateSincePull_ = false;
        owed_ = 0;
    }

    bool late() const { return late_ || lateSincePull_; }
    double count() const { return count_; }
    /// Frames to leave out until speech has caught up with the clock.
    double owed() const { return owed_; }
    void leftOut(int frames) { owed_ -= frames; }

  private:
    static constexpr double kSlotMs = 40;
    static constexpr double kHostSlackMs = 3 * kSlotMs;

    bool running_ = false;
    double dueMs_ = 0;  ///< of the next frame
    double count_ = 0;
    double owed_ = 0;
    bool late_ = false;
    bool lateSincePull_ = false;
};

}  // namespace zorv
