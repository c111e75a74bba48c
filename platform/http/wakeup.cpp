#include "platform/http/wakeup.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <ctime>

namespace Tessel::Http {

namespace {

long Futex(std::atomic<int>* word, int op, int value, const timespec* timeout) {
  static_assert(sizeof(std::atomic<int>) == sizeof(int), "a futex is a plain int");
  return syscall(SYS_futex, reinterpret_cast<int*>(word), op | FUTEX_PRIVATE_FLAG, value, timeout,
                 nullptr, FUTEX_BITSET_MATCH_ANY);
}

}  // namespace

void Wakeup::Post() noexcept {
  // Only a sleeper costs a system call.
  if (state_.exchange(kPosted) == kSleeping) Futex(&state_, FUTEX_WAKE, INT_MAX, nullptr);
}

void Wakeup::WaitUntil(int64_t deadlineUs) noexcept {
  int expected = kIdle;
  if (state_.compare_exchange_strong(expected, kSleeping)) {
    timespec until{};
    until.tv_sec = static_cast<time_t>(deadlineUs / 1000000);
    until.tv_nsec = static_cast<long>(deadlineUs % 1000000) * 1000;
    // An absolute CLOCK_MONOTONIC deadline: FUTEX_WAIT_BITSET without the
    // realtime flag. A signal or a spurious return just goes round again.
    while (state_.load() == kSleeping) {
      if (Futex(&state_, FUTEX_WAIT_BITSET, kSleeping,
                deadlineUs == INT64_MAX ? nullptr : &until) != 0 &&
          errno == ETIMEDOUT) {
        break;
      }
    }
  }
  state_.exchange(kIdle);  // consumes a post, or ends the sleep at the deadline
}

}  // namespace Tessel::Http
