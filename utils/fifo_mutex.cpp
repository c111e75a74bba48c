#include "utils/fifo_mutex.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

namespace redfish {

namespace {

long Futex(std::atomic<int>* word, int op, int value) {
  static_assert(sizeof(std::atomic<int>) == sizeof(int), "a futex is a plain int");
  return syscall(SYS_futex, reinterpret_cast<int*>(word), op | FUTEX_PRIVATE_FLAG, value, nullptr,
                 nullptr, 0);
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
  // A signal or a spurious return goes round again.
  while (self.granted.load(std::memory_order_acquire) == 0) Futex(&self.granted, FUTEX_WAIT, 0);
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
