#pragma once

// Lock annotations that clang's -Wthread-safety checks (scripts/lint runs it):
// which mutex guards a member, which mutex a function needs held. Other
// compilers see none of them.
#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define TESSEL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TESSEL_THREAD_ANNOTATION(x)
#endif

#define TESSEL_CAPABILITY(name) TESSEL_THREAD_ANNOTATION(capability(name))
#define TESSEL_SCOPED_CAPABILITY TESSEL_THREAD_ANNOTATION(scoped_lockable)
#define TESSEL_GUARDED_BY(mutex) TESSEL_THREAD_ANNOTATION(guarded_by(mutex))
#define TESSEL_PT_GUARDED_BY(mutex) TESSEL_THREAD_ANNOTATION(pt_guarded_by(mutex))
#define TESSEL_REQUIRES(...) TESSEL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define TESSEL_EXCLUDES(...) TESSEL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define TESSEL_ACQUIRE(...) TESSEL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TESSEL_RELEASE(...) TESSEL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TESSEL_ASSERT_CAPABILITY(mutex) TESSEL_THREAD_ANNOTATION(assert_capability(mutex))
// For code whose locking the analysis cannot follow (locks taken in a loop).
#define TESSEL_NO_THREAD_SAFETY_ANALYSIS TESSEL_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace Tessel {

// A std::mutex the analysis knows. It waits on std::condition_variable
// itself, so a wait is visible as needing the mutex held.
class TESSEL_CAPABILITY("mutex") Mutex {
 public:
  constexpr Mutex() noexcept = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock() TESSEL_ACQUIRE() { mutex_.lock(); }
  void Unlock() TESSEL_RELEASE() { mutex_.unlock(); }
  // Tells the analysis that the caller holds it, where it cannot see that:
  // in a C library's callback made from a call under this mutex.
  void AssertHeld() const TESSEL_ASSERT_CAPABILITY(this) {}

  // Lets go while waiting on `cv`, and holds it again on return.
  void Wait(std::condition_variable& cv) TESSEL_REQUIRES(this) {
    std::unique_lock<std::mutex> held(mutex_, std::adopt_lock);
    cv.wait(held);
    held.release();
  }
  void WaitFor(std::condition_variable& cv, std::chrono::microseconds limit) TESSEL_REQUIRES(this) {
    std::unique_lock<std::mutex> held(mutex_, std::adopt_lock);
    cv.wait_for(held, limit);
    held.release();
  }

 private:
  std::mutex mutex_;
};

// Holds a Mutex for its scope.
class TESSEL_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) TESSEL_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~MutexLock() TESSEL_RELEASE() { mutex_.Unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace Tessel
