// Descriptors that are readable while there is something for the host.
#pragma once

#include <array>

namespace zorv {

/// What a host can have: bits of the masks that it waits with.
constexpr int kFrameReady = 1;
constexpr int kEventReady = 2;

/// One event descriptor for each mask that was asked for. Not thread-safe.
class WakeUp {
  public:
    static constexpr bool isMask(int mask) { return mask >= 1 && mask <= 3; }

    WakeUp() = default;
    ~WakeUp();
    WakeUp(const WakeUp&) = delete;
    WakeUp& operator=(const WakeUp&) = delete;

    /// The mask's descriptor, made on first use. Throws std::system_error. REQUIRES: isMask(mask).
    int descriptor(int mask);

    /// Sets what the host can have from now on.
    void set(int ready);

  private:
    struct Signal {
        int fd = -1;
        bool up = false;
    };

    void update(int mask);

    int ready_ = 0;
    std::array<Signal, 4> signals_;  ///< by mask
};

}  // namespace zorv
