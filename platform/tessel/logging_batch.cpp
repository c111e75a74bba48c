#include "platform/tessel/logging_batch.h"

#include <pthread.h>

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
  std::memcpy(held.data + held.used, line.data(), line.size());
  held.used += line.size();
  return true;
}

void HandOver(int fd, std::string_view text, bool now) {
  HeldTraces& held = tHeld;
  Commit(fd, std::string_view(held.data, held.used), text, now);
  held.used = 0;
}

}  // namespace Logging

LogBatch::LogBatch() noexcept {
  if (Logging::tHeld.depth++ == 0) Logging::CallStarted();
}

LogBatch::~LogBatch() {
  Logging::HeldTraces& held = Logging::tHeld;
  if (--held.depth > 0) return;
  // The last call out writes what others left, as does a call with traces.
  if (!Logging::CallEnded() && held.used == 0) return;
  try {
    Logging::SinkState& sink = Logging::Sink();
    std::shared_lock<std::shared_mutex> lock(sink.lock);
    const int fd = sink.builtIn.Descriptor();
    if (fd >= 0) Logging::HandOver(fd, {}, false);
  } catch (...) {
  }
  held.used = 0;
}

}  // namespace Tessel::Service
