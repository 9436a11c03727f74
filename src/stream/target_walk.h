// Which target frame each output frame is drawn on, and its driving keypoints.
#pragma once

#include <cstddef>

namespace zorv {

/// Target frames 0, 1, ..., NT-1, NT-2, ..., 1, 0, 1, ...: back and forth without repeating the
/// ends. With NT = 1 it goes to index 1, which no bundle of one frame has, and stays there.
class TargetWalk {
  public:
    explicit TargetWalk(int nt) : nt_(nt) {}

    int current() const { return current_; }

    void advance() {
        int next = current_ + step_;
        if (next >= nt_) {
            next = nt_ - 2;
            step_ = -1;
        }
        if (next < 0) {
            next = 1;
            step_ = 1;
        }
        current_ = next;
    }

  private:
    int nt_;
    int current_ = 0;
    int step_ = 1;
};

/// driving = gain x offsets + base, value by value.
inline void driveKeypoints(const float* base, const float* offsets, float gain, std::size_t n,
                           float* driving) {
    for (std::size_t i = 0; i < n; ++i) driving[i] = gain * offsets[i] + base[i];
}

}  // namespace zorv
