// A mutex, its lock and a condition variable that clang's thread-safety analysis understands. Built
// with clang, -Wthread-safety checks every access to a guarded member; other compilers ignore the
// annotations.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define ZORV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZORV_THREAD_ANNOTATION(x)
#endif

/// A member that is read and written with the mutex held only.
#define ZORV_GUARDED_BY(mutex) ZORV_THREAD_ANNOTATION(guarded_by(mutex))
/// A pointer whose target is read and written with the mutex held only.
#define ZORV_TARGET_GUARDED_BY(mutex) ZORV_THREAD_ANNOTATION(pt_guarded_by(mutex))
/// A function that is called with the mutex held, or without it.
#define ZORV_REQUIRES(...) ZORV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZORV_EXCLUDES(...) ZORV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
/// The order in which two mutexes are taken.
#define ZORV_ACQUIRED_BEFORE(...) ZORV_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))

namespace zorv {

class ZORV_THREAD_ANNOTATION(capability("mutex")) Mutex {
  public:
    void lock() ZORV_THREAD_ANNOTATION(acquire_capability()) { mutex_.lock(); }
    void unlock() ZORV_THREAD_ANNOTATION(release_capability()) { mutex_.unlock(); }

  private:
    friend class CondVar;
    std::mutex mutex_;
};

/// Holds a mutex for a block.
class ZORV_THREAD_ANNOTATION(scoped_lockable) MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ZORV_THREAD_ANNOTATION(acquire_capability(mutex))
        : mutex_(mutex) {
        mutex_.lock();
    }
    ~MutexLock() ZORV_THREAD_ANNOTATION(release_capability()) { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};

/// Waits may end early, so callers loop over the condition that they wait for.
class CondVar {
  public:
    void wait(Mutex& mutex) ZORV_REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
        condition_.wait(lock);
        lock.release();
    }
    void waitUntil(Mutex& mutex, std::chrono::steady_clock::time_point due) ZORV_REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.mutex_, std::adopt_lock);
        condition_.wait_until(lock, due);
        lock.release();
    }
    void notifyAll() { condition_.notify_all(); }

  private:
    std::condition_variable condition_;
};

}  // namespace zorv
