// A running stream allocates nothing of its own, and memory that cannot be had fails one call and
// nothing else. This program counts, and refuses, what operator new is asked for outside the model
// runtime.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <onnxruntime_cxx_api.h>
#include <zorv_core.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "support/audio.h"
#include "support/test_motion.h"

namespace {

thread_local bool inRuntime = false;
std::atomic<long> allocations = 0;
thread_local long untilRefusal = -1;  ///< allocations before one that fails; negative: none does

/// Whether code of the model runtime's library is at `address`; what it asks for is never refused.
bool isRuntimeCode(const void* address) {
    Dl_info info;
    return ::dladdr(address, &info) && std::strstr(info.dli_fname, "onnxruntime");
}

void* counted(std::size_t size, std::size_t alignment, const void* caller) {
    if (!inRuntime) {
        ++allocations;
        if (untilRefusal >= 0 && !isRuntimeCode(caller) && untilRefusal-- == 0) {
            throw std::bad_alloc();
        }
    }
    void* memory = nullptr;
    if (::posix_memalign(&memory, alignment, size ? size : 1) == 0) return memory;
    throw std::bad_alloc();
}

const OrtApi* runtime = nullptr;
long modelRuns = 0;

OrtStatus* ORT_API_CALL runUncounted(OrtSession* session, const OrtRunOptions* options,
                                     const OrtIoBinding* binding) noexcept {
    ++modelRuns;
    inRuntime = true;
    OrtStatus* status = runtime->RunWithBinding(session, options, binding);
    inRuntime = false;
    return status;
}

/// Routes model runs through runUncounted while it lives.
class RuntimeHook {
  public:
    RuntimeHook() : api_(Ort::GetApi()) {
        runtime = &Ort::GetApi();
        api_.RunWithBinding = runUncounted;
        Ort::Global<void>::api_ = &api_;
    }
    ~RuntimeHook() { Ort::Global<void>::api_ = runtime; }

  private:
    OrtApi api_;
};

}  // namespace

// Not inlined, or the compiler takes an allocation and its release for a mismatch.
[[gnu::noinline]] void* operator new(std::size_t size) {
    return counted(size, alignof(std::max_align_t), __builtin_return_address(0));
}
[[gnu::noinline]] void* operator new[](std::size_t size) {
    return counted(size, alignof(std::max_align_t), __builtin_return_address(0));
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
    return counted(size, static_cast<std::size_t>(alignment), __builtin_return_address(0));
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace zorv {
namespace {

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
        zorv_motion_set_eager(motion_, GetParam());
    }
    void TearDown() override { zorv_motion_destroy(motion_); }

    RuntimeHook hook_;
    const test::TestMotion files_;
    const std::vector<float> audio_ = test::speechLike(16000 * 7);
    zorv_motion* motion_ = nullptr;
    std::size_t at_ = 0;
    int pulled_ = 0;
    int idx_[8];
    float xs_[8 * 63], xd_[8 * 63];
};

TEST_P(MotionAllocations, NoneAfterTheFirstUseOfEachModel) {
    EXPECT_GT(stream(2 * 20), 0) << "the counter counts: scratch memory and bindings are made here";
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

TEST(MotionOutOfMemory, FailsOneCallAndLosesNothing) {
    const RuntimeHook hook;
    const test::TestMotion files;
    constexpr int kFrames = 500;
    const std::vector<float> audio = test::speechLike(640 * kFrames);
    std::vector<float> xs(63 * kFrames), xd(xs.size()), expected;
    int failures = 0;
    for (long nth = -1;; ++nth) {
        zorv_motion* motion = zorv_motion_create(files.dir().c_str(), 1, nullptr);
        ASSERT_TRUE(motion) << zorv_motion_last_error();
        untilRefusal = nth;
        bool failed = false;
        // A call that fails is made again.
        const auto again = [&](const char* failure, auto&& call) {
            if (call() > 0) return;
            untilRefusal = -1;
            failed = true;
            EXPECT_STREQ(zorv_motion_last_error(), failure);
            EXPECT_GT(call(), 0) << zorv_motion_last_error();
        };
        again("zorv_motion_push: std::bad_alloc",
              [&] { return zorv_motion_push(motion, audio.data(), 640 * kFrames); });
        zorv_motion_finish(motion);
        again("zorv_motion_avail: std::bad_alloc", [&] { return zorv_motion_avail(motion); });
        untilRefusal = -1;
        EXPECT_EQ(zorv_motion_pull(motion, nullptr, xs.data(), xd.data(), kFrames), kFrames);
        zorv_motion_destroy(motion);
        if (nth < 0) expected = xd;
        ASSERT_TRUE(xd == expected) << "allocation " << nth;
        if (nth >= 0 && !failed) break;  // there are no more allocations than this
        failures += failed;
    }
    EXPECT_GT(failures, 20) << "audio, results and the bindings of two models";
}

INSTANTIATE_TEST_SUITE_P(Eager, MotionAllocations, testing::Values(0, 2));

}  // namespace
}  // namespace zorv
