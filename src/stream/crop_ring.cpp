#include "stream/crop_ring.h"

namespace zorv {

CropRing::CropRing(std::size_t cropFloats) {
    for (auto& crop : slots_) crop.resize(cropFloats);
}

float* CropRing::acquire() {
    const MutexLock lock(mutex_);
    while (produced_ - consumed_ >= kSlots && !cancelled_) producerWake_.wait(mutex_);
    return cancelled_ ? nullptr : slot(produced_);
}

void CropRing::publish() {
    const MutexLock lock(mutex_);
    ++produced_;
    consumerWake_.notifyAll();
}

void CropRing::finish() {
    const MutexLock lock(mutex_);
    done_ = true;
    consumerWake_.notifyAll();
}

const float* CropRing::front() {
    const MutexLock lock(mutex_);
    while (produced_ == consumed_ && !done_) consumerWake_.wait(mutex_);
    return produced_ > consumed_ ? slot(consumed_) : nullptr;
}

void CropRing::release() {
    const MutexLock lock(mutex_);
    ++consumed_;
    producerWake_.notifyAll();
}

void CropRing::cancel() {
    const MutexLock lock(mutex_);
    cancelled_ = true;
    producerWake_.notifyAll();
}

}  // namespace zorv
