// A running stream allocates nothing of its own. This program counts what operator new is asked for
// outside the model runtime.
#include <gtest/gtest.h>
#include <zorv_core.h>

#include <atomic>
#include <memory>

#include "support/audio.h"
#include "support/own_allocations.h"
#include "support/test_motion.h"

namespace zorv {
namespace {

using test::modelRuns;
using test::RuntimeCalls;

std::atomic<long> allocations = 0;

bool countAllocation(const void*) {
    allocations += !test::inRuntime;
    return false;
}

class MotionAllocations : public testing::TestWithParam<int> {
  protected:
    /// Pushes `blocks` x 20 ms and pulls what is ready; returns the allocations of the calls.
    long stream(int blocks) {
        const long before = allocations;
        for (int i = 0; i < blocks; ++i) {
            zorv_motion_push(motion_, audio_.data() + at_, 320);
            at_ = (at_ + 320) % (audio_.size() - 320);
            pulled_ +=
                zorv_motion_avail(motion_) > 0 ? zorv_motion_pull(motion_, idx_, xs_, xd_, 8) : 0;
        }
        return allocations - before;
    }

    void SetUp() override {
        motion_ = zorv_motion_create(files_.dir().c_str(), 1, nullptr);
        ASSERT_TRUE(motion_) << zorv_motion_last_error();
        ASSERT_GT(allocations, 0) << "the counter counts";
        zorv_motion_set_eager(motion_, GetParam());
    }
    void TearDown() override { zorv_motion_destroy(motion_); }

    RuntimeCalls calls_{countAllocation};
    const test::TestMotion files_;
    const std::vector<float> audio_ = test::speechLike(16000 * 7);
    zorv_motion* motion_ = nullptr;
    std::size_t at_ = 0;
    int pulled_ = 0;
    int idx_[8];
    float xs_[8 * 63], xd_[8 * 63];
};

TEST_P(MotionAllocations, NoneAfterTheFirstUseOfEachModel) {
    stream(2 * 20);  // scratch memory is made here
    if (GetParam() == 0) {
        EXPECT_EQ(stream(2 * 40), 0) << "windows";
        EXPECT_EQ(pulled_, 0);
    }
    stream(2 * 40);
    ASSERT_GT(pulled_, 0) << "all three models have run";
    const long runs = modelRuns;
    EXPECT_EQ(stream(2 * 25 * 20), 0) << "20 seconds, two blocks a frame";
    EXPECT_GT(pulled_, 500);
    EXPECT_GT(modelRuns - runs, 500) << "the hook was in use";

    zorv_motion_finish(motion_);
    while (zorv_motion_pull(motion_, idx_, xs_, xd_, 8) > 0) {
    }
    zorv_motion_reset(motion_, 0, 1, 0);
    EXPECT_EQ(stream(2 * 160), 0) << "the next stream";
    EXPECT_STREQ(zorv_motion_last_error(), "");
}

INSTANTIATE_TEST_SUITE_P(Eager, MotionAllocations, testing::Values(0, 2));

}  // namespace
}  // namespace zorv
