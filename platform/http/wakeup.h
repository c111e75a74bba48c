#pragma once

// How a follower sleeps until the leader ends its exchange. A condition
// variable would do, but it hands the pool's mutex back marked contended, so
// the follower's next unlock of it always costs a futex system call: one
// wasted call per request. A Wakeup is waited for without the mutex.

#include <atomic>
#include <cstdint>

namespace Tessel::Http {

class Wakeup {
 public:
  // Wakes the threads waiting, or the next wait if none waits yet.
  void Post() noexcept;
  // Returns when posted (consuming it), at the monotonic deadline (µs), or
  // spuriously: the caller checks what it waits for, under its lock.
  void WaitUntil(int64_t deadlineUs) noexcept;

 private:
  enum : int { kIdle = 0, kPosted = 1, kSleeping = 2 };
  std::atomic<int> state_{kIdle};
};

}  // namespace Tessel::Http
