// Hands rendered crops from one render thread to one compositing thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "common/mutex.h"

namespace zorv {

/// A ring of kSlots crops between one producer and one consumer. Crops are written and read
/// without the lock: a slot belongs to the producer between acquire and publish, to the consumer
/// between front and release. Every wait also ends when the other side has given up:
///     producer: while ((slot = acquire())) { fill; publish(); }   finish();
///     consumer: while ((slot = front())) { use; release(); }      or cancel();
class CropRing {
  public:
    static constexpr std::uint64_t kSlots = 4;

    explicit CropRing(std::size_t cropFloats);

    /// Producer: waits for a free slot; null once the consumer has cancelled.
    float* acquire();
    void publish();
    /// Producer: nothing more comes. Crops already published are still handed out.
    void finish();

    /// Consumer: waits for the oldest crop; null when the producer has finished and none is left.
    const float* front();
    void release();
    /// Consumer: takes no more.
    void cancel();

  private:
    float* slot(std::uint64_t counter) { return slots_[counter % kSlots].data(); }

    std::array<std::vector<float>, kSlots> slots_;

    Mutex mutex_;
    CondVar consumerWake_;
    CondVar producerWake_;
    // The counters never wrap; a slot is a counter modulo kSlots.
    std::uint64_t produced_ ZORV_GUARDED_BY(mutex_) = 0;
    std::uint64_t consumed_ ZORV_GUARDED_BY(mutex_) = 0;
    bool done_ ZORV_GUARDED_BY(mutex_) = false;
    bool cancelled_ ZORV_GUARDED_BY(mutex_) = false;
};

}  // namespace zorv
