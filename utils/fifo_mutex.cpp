#include "utils/fifo_mutex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <ctime>

#include "platform/tessel/logging.h"

namespace redfish {

namespace {

long Futex(std::atomic<int>* word, int op, int value, const timespec* until = nullptr) {
  static_assert(sizeof(std::atomic<int>) == sizeof(int), "a futex is a plain int");
  return syscall(SYS_futex, reinterpret_cast<int*>(word), op | FUTEX_PRIVATE_FLAG, value, until,
                 nullptr, FUTEX_BITSET_MATCH_ANY);
}

// Sleeps until *word is not 0, a wake-up, or the monotonic time untilUs.
void WaitWhileZero(std::atomic<int>* word, int64_t untilUs) {
  if (untilUs == INT64_MAX) {
    Futex(word, FUTEX_WAIT, 0);
    return;
  }
  timespec until{};
  until.tv_sec = static_cast<time_t>(untilUs / 1000000);
  until.tv_nsec = static_cast<long>(untilUs % 1000000) * 1000;
  Futex(word, FUTEX_WAIT_BITSET, 0, &until);
}

}  // namespace

// Lives on the waiting thread's stack until its turn comes.
struct FifoMutex::Waiter {
  std::atomic<int> granted{0};
  Waiter* next = nullptr;
};

void FifoMutex::lock() {
  Waiter self;
  {
    std::lock_guard<std::mutex> guard(queue_);
    if (!held_) {
      held_ = true;
      return;
    }
    if (tail_ != nullptr) {
      tail_->next = &self;
    } else {
      head_ = &self;
    }
    tail_ = &self;
  }
  // Asleep in the library, so it keeps the log's deadline as the HTTP
  // client's sleepers do: other calls' traces then wait to leave together
  // instead of one write a call. A signal, a spurious return or the log's
  // deadline goes round again.
  while (self.granted.load(std::memory_order_acquire) == 0) {
    const Tessel::Service::LogSleep logSleep;
    WaitWhileZero(&self.granted, logSleep.Until(INT64_MAX));
  }
}

void FifoMutex::unlock() {
  Waiter* next = nullptr;
  {
    std::lock_guard<std::mutex> guard(queue_);
    next = head_;
    if (next == nullptr) {
      held_ = false;
      return;
    }
    // Stays held: the first waiter owns it from here on.
    head_ = next->next;
    if (head_ == nullptr) tail_ = nullptr;
  }
  next->granted.store(1, std::memory_order_release);
  // The waiter may already have returned (a spurious wake saw the grant) and
  // its word be gone: a wake of a stale address wakes nobody, or someone who
  // checks its own word and sleeps again.
  Futex(&next->granted, FUTEX_WAKE, 1);
}

}  // namespace redfish
