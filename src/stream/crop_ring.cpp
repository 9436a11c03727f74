#include "stream/crop_ring.h"

namespace zorv {

CropRing::CropRing(std::size_t cropFloats) {
    for (auto& crop : slots_) crop.resize(cropFloats);
}

float* CropRing::acquire() {
    std::unique_lock lock(mutex_);
    producerWake_.wait(lock, [&] { return produced_ - consumed_ < kSlots || cancelled_; });
    return cancelled_ ? nullptr : slot(produced_);
}

void CropRing::publish() {
    const std::lock_guard lock(mutex_);
    ++produced_;
    consumerWake_.notify_one();
}

void CropRing::finish() {
    const std::lock_guard lock(mutex_);
    done_ = true;
    consumerWake_.notify_one();
}

const float* CropRing::front() {
    std::unique_lock lock(mutex_);
    consumerWake_.wait(lock, [&] { return produced_ > consumed_ || done_; });
    return produced_ > consumed_ ? slot(consumed_) : nullptr;
}

void CropRing::release() {
    const std::lock_guard lock(mutex_);
    ++consumed_;
    producerWake_.notify_one();
}

void CropRing::cancel() {
    const std::lock_guard lock(mutex_);
    cancelled_ = true;
    producerWake_.notify_one();
}

}  // namespace zorv
