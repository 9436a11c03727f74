// Work that is done once, however many threads ask for it.
#pragma once

#include <atomic>

#include "common/mutex.h"

namespace zorv {

/// Guards many pieces of work. The thread that asks for a piece first does it, without a lock
/// held; those that ask meanwhile wait for that piece alone. After a failure the next one tries
/// again. (std::call_once would do, but hangs after an exception under the thread sanitizer.)
class OnceGroup {
  public:
    /// One piece of work.
    class Flag {
      public:
        bool done() const { return state_.load(std::memory_order_acquire) == State::kDone; }

      private:
        friend class OnceGroup;
        enum class State { kOpen, kBusy, kDone };
        std::atomic<State> state_{State::kOpen};  ///< changed with the group's lock held
    };

    /// Returns when work() has returned, on this thread or another; what it wrote is visible then.
    /// Throws what it throws.
    template <class Work>
    void call(Flag& flag, const Work& work) {
        if (flag.done() || !begin(flag)) return;
        try {
            work();
        } catch (...) {
            end(flag, Flag::State::kOpen);
            throw;
        }
        end(flag, Flag::State::kDone);
    }

  private:
    /// False: another thread has done it.
    bool begin(Flag& flag) ZORV_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        while (flag.state_ == Flag::State::kBusy) wake_.wait(mutex_);
        if (flag.done()) return false;
        flag.state_ = Flag::State::kBusy;
        return true;
    }
    void end(Flag& flag, Flag::State state) ZORV_EXCLUDES(mutex_) {
        const MutexLock lock(mutex_);
        flag.state_.store(state, std::memory_order_release);
        wake_.notifyAll();
    }

    Mutex mutex_;
    CondVar wake_;
};

}  // namespace zorv
