#include "platform/tessel/logging_spool.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <new>
#include <string>

namespace Tessel::Service::Logging {
namespace {

struct Spool {
  std::mutex mutex;
  std::condition_variable written;
  std::string pending;
  std::string writing;  // what the writer writes now; its capacity is kept
  bool busy = false;
  uint64_t accepted = 0;  // bytes handed over, ever
  uint64_t done = 0;      // bytes written (or given up on)
  // Outside the mutex: calls running (outermost batches), sleepers
  // registered, and when pending must be written (kNoDeadline while it is
  // empty), so that the last call or sleeper out finds what to write.
  std::atomic<int> activeCalls{0};
  std::atomic<int> sleepers{0};
  std::atomic<int64_t> deadlineUs{kNoDeadline};
};

Spool& TheSpool() {
  static Spool spool;
  return spool;
}

void WriteFully(int fd, const std::string& text) {
  size_t offset = 0;
  while (offset < text.size()) {
    const ssize_t n = ::write(fd, text.data() + offset, text.size() - offset);
    if (n <= 0) return;  // a log that cannot be written is given up, never retried for ever
    offset += static_cast<size_t>(n);
  }
}

// Writes what the spool holds, as the one writer, or leaves it to the writer
// at work (durable: waits until it has written up to mine). Called with the
// spool's mutex held.
void Drain(std::unique_lock<std::mutex>& lock, int fd, bool durable) {
  Spool& spool = TheSpool();
  const uint64_t mine = spool.accepted;
  if (spool.busy) {
    if (durable) spool.written.wait(lock, [&] { return spool.done >= mine; });
    return;
  }
  spool.busy = true;
  while (!spool.pending.empty()) {
    spool.writing.swap(spool.pending);
    spool.deadlineUs = kNoDeadline;
    lock.unlock();
    WriteFully(fd, spool.writing);
    lock.lock();
    spool.done += spool.writing.size();
    spool.writing.clear();
    spool.written.notify_all();
  }
  spool.busy = false;
  if (spool.pending.capacity() > kSpoolLimit) spool.pending.shrink_to_fit();
}

}  // namespace

int64_t MonotonicUs() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void MakeSpool() { TheSpool(); }

void Commit(int fd, std::string_view held, std::string_view text, bool now) {
  Spool& spool = TheSpool();
  std::unique_lock<std::mutex> lock(spool.mutex);
  while (spool.busy && spool.pending.size() > kSpoolLimit) spool.written.wait(lock);
  if (held.size() + text.size() > 0) {
    const bool first = spool.pending.empty();
    spool.pending.append(held).append(text);
    spool.accepted += held.size() + text.size();
    if (first) spool.deadlineUs = MonotonicUs() + kSpoolAgeUs;
  }
  if (spool.pending.empty()) return;
  // Read after the deadline is set: either this sees the last call's end (or
  // sleeper's), or that one sees the deadline and drains.
  if (now || spool.activeCalls.load() == 0 || spool.sleepers.load() == 0 ||
      spool.pending.size() >= kSpoolBatch || MonotonicUs() >= spool.deadlineUs.load()) {
    Drain(lock, fd, now);
  }
}

void DrainSpool(int fd) {
  Spool& spool = TheSpool();
  std::unique_lock<std::mutex> lock(spool.mutex);
  if (!spool.pending.empty() && fd >= 0) Drain(lock, fd, true);
}

void CallStarted() noexcept { TheSpool().activeCalls.fetch_add(1); }

bool CallEnded() noexcept {
  Spool& spool = TheSpool();
  spool.activeCalls.fetch_sub(1);
  return spool.deadlineUs.load() != kNoDeadline;
}

// One that registers before records are handed over wakes by their deadline
// too: it wakes within kSpoolAgeUs of registering.
int64_t SleeperEnters(int64_t nowUs) noexcept {
  Spool& spool = TheSpool();
  spool.sleepers.fetch_add(1);
  return std::min(spool.deadlineUs.load(), nowUs + kSpoolAgeUs);
}

bool SleeperLeaves() noexcept {
  Spool& spool = TheSpool();
  const int left = spool.sleepers.fetch_sub(1) - 1;
  const int64_t deadline = spool.deadlineUs.load();
  return deadline != kNoDeadline && (left == 0 || MonotonicUs() >= deadline);
}

void RenewSpoolInChild(int calls) noexcept {
  Spool& spool = TheSpool();
  ::new (static_cast<void*>(&spool.mutex)) std::mutex();
  ::new (static_cast<void*>(&spool.written)) std::condition_variable();
  spool.pending.clear();
  spool.deadlineUs = kNoDeadline;
  spool.sleepers = 0;
  spool.busy = false;
  spool.accepted = spool.done = 0;
  spool.activeCalls = calls;
}

}  // namespace Tessel::Service::Logging
