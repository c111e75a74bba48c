#pragma once

// A mutex that serves its waiters in the order they arrived. A std::mutex
// lets whoever runs first take it: the thread that just let go, back for its
// next request, or a newcomer while the woken waiter is still being
// scheduled. When a whole request is held under it, a caller can then wait
// through many requests of callers who came after it. Here unlock() hands
// the mutex to the first waiter directly (it owns it before it even runs),
// so a call waits only for the calls queued before it.
//
// Not recursive, not copyable; lock() and unlock() make it usable with
// std::lock_guard.
// A waiter sleeps on a futex word of its own (a release wakes one thread) and,
// being a thread asleep in the library, keeps the log's deadline meanwhile
// (Tessel::Service::LogSleep).

#include <mutex>

namespace redfish {

class FifoMutex {
 public:
  void lock();    // NOLINT(readability-identifier-naming): std's lockable
  void unlock();  // NOLINT(readability-identifier-naming): std's lockable

 private:
  struct Waiter;

  // Guards the fields below; held for a few instructions, never while a
  // caller waits for its turn.
  std::mutex queue_;
  bool held_ = false;
  Waiter* head_ = nullptr;
  Waiter* tail_ = nullptr;
};

}  // namespace redfish
