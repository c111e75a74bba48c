#include "platform/tessel/logging_batch.h"

#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <shared_mutex>

#include "platform/tessel/logging.h"
#include "platform/tessel/logging_sink.h"
#include "platform/tessel/logging_spool.h"

namespace Tessel::Service {
namespace Logging {
namespace {

thread_local HeldTraces tHeld;

// In a child of fork(), only the forking thread's own call goes on, and what
// it held for a call of the parent's is the parent's to write.
void RenewBatchesInChild() {
  tHeld.used = 0;
  RenewSpoolInChild(tHeld.depth > 0 ? 1 : 0);
}

struct ForkHandler {
  ForkHandler() { pthread_atfork(nullptr, nullptr, &RenewBatchesInChild); }
} gForkHandler;

}  // namespace

HeldTraces& Held() noexcept { return tHeld; }

bool Hold(int level, const std::string& line) {
  HeldTraces& held = tHeld;
  if (held.depth == 0 || level <= 3 || line.size() > sizeof held.data) return false;
  if (held.used + line.size() > sizeof held.data) return false;
  if (held.used == 0) held.sinceUs = MonotonicUs();
  std::memcpy(held.data + held.used, line.data(), line.size());
  held.used += line.size();
  return true;
}

void HandOver(int fd, std::string_view text, bool now) {
  HeldTraces& held = tHeld;
  Commit(fd, std::string_view(held.data, held.used), text, now);
  held.used = 0;
}

namespace {

// Hands the held traces over, written now when `now`, else by the spool's rule.
void HandOverHeld(bool now) noexcept {
  try {
    SinkState& sink = Sink();
    std::shared_lock<std::shared_mutex> lock(sink.lock);
    const int fd = sink.builtIn.Descriptor();
    if (fd >= 0) HandOver(fd, {}, now);
  } catch (...) {
  }
}

}  // namespace
}  // namespace Logging

LogBatch::LogBatch() noexcept {
  if (Logging::tHeld.depth++ == 0) Logging::CallStarted();
}

LogBatch::~LogBatch() {
  Logging::HeldTraces& held = Logging::tHeld;
  if (--held.depth > 0) return;
  // The last call out writes what others left, as does a call with traces.
  if (!Logging::CallEnded() && held.used == 0) return;
  Logging::HandOverHeld(false);
  held.used = 0;
}

// Only a sink that writes to a descriptor holds traces. The sleeper wakes
// when its own oldest trace is due too.
LogSleep::LogSleep() noexcept {
  if ((Logging::HoldFlags() & Logging::kHoldable) == 0) return;
  const Logging::HeldTraces& held = Logging::tHeld;
  startUs_ = Logging::MonotonicUs();
  wakeByUs_ = Logging::SleeperEnters(startUs_);
  if (held.used > 0) wakeByUs_ = std::min(wakeByUs_, held.sinceUs + Logging::kSpoolAgeUs);
}

LogSleep::~LogSleep() {
  if (wakeByUs_ == INT64_MAX) return;
  const Logging::HeldTraces& held = Logging::tHeld;
  const bool keeper = Logging::SleeperLeaves();
  const bool due = held.used > 0 && Logging::MonotonicUs() - held.sinceUs >= Logging::kSpoolAgeUs;
  if (keeper || due) Logging::HandOverHeld(due);
}

int LogSleep::PollTimeoutMs(int timeoutMs) const noexcept {
  if (wakeByUs_ == INT64_MAX) return timeoutMs;
  const int64_t ms = std::max<int64_t>(0, (wakeByUs_ - startUs_ + 999) / 1000);
  return timeoutMs >= 0 && timeoutMs < ms ? timeoutMs : static_cast<int>(ms);
}

}  // namespace Tessel::Service
