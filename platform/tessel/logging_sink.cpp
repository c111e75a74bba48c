#include "platform/tessel/logging_sink.h"

#include <fcntl.h>
#include <pthread.h>
#include <syslog.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "platform/tessel/logging_batch.h"
#include "platform/tessel/logging_record.h"
#include "platform/tessel/logging_spool.h"

namespace Tessel::Service {
namespace Logging {
namespace {

constexpr char kDestinationVariable[] = "BMCREDFISH_LOG";
constexpr char kMaskVariable[] = "BMCREDFISH_LOG_MASK";

// Written under the exclusive lock whenever the configuration changes.
std::atomic<unsigned> gHoldFlags{0};

// A child forked while another thread changed the sink would find the lock
// held for ever; nothing else of the parent's writers matters there.
void RenewSinkLockInChild() { ::new (static_cast<void*>(&Sink().lock)) std::shared_mutex(); }

struct ForkHandler {
  ForkHandler() { pthread_atfork(nullptr, nullptr, &RenewSinkLockInChild); }
} gForkHandler;

void Configure(BuiltInConfig& sink) {
  const char* value = std::getenv(kDestinationVariable);
  const std::string text = value ? value : "";
  sink.kind = BuiltInConfig::Kind::Stderr;
  if (text == "none") {
    sink.kind = BuiltInConfig::Kind::None;
  } else if (text == "syslog") {
    sink.kind = BuiltInConfig::Kind::Syslog;
  } else if (text.compare(0, 5, "file:") == 0 && text.size() > 5) {
    // Credentials may reach the log: readable by the owner only, and never
    // through a link someone else planted.
    sink.fd =
        ::open(text.c_str() + 5, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
    // A file that cannot be opened leaves the log on standard error rather
    // than losing failures.
    if (sink.fd >= 0) sink.kind = BuiltInConfig::Kind::File;
  }
  const char* mask = std::getenv(kMaskVariable);
  sink.mask = mask != nullptr && std::strcmp(mask, "1") == 0;
  sink.configured = true;
}

void Publish(const SinkState& state) {
  const bool descriptor = state.builtIn.Descriptor() >= 0;
  unsigned flags = 0;
  if (state.builtIn.configured && descriptor && !state.custom) flags |= kHoldable;
  if (state.builtIn.mask) flags |= kMasked;
  gHoldFlags.store(flags, std::memory_order_release);
}

int SyslogPriority(int level) {
  if (level <= 3) return LOG_ERR;
  if (level == 4) return LOG_NOTICE;
  return LOG_DEBUG;
}

// Called with the sink's lock shared.
void WriteBuiltIn(const BuiltInConfig& sink, const Logger& logger, int level,
                  const std::string& message) {
  std::string line;
  switch (sink.kind) {
    case BuiltInConfig::Kind::Syslog:
      line = RecordLine(logger, level, message, sink.mask, false);
      // No openlog: the host process owns the ident and facility.
      syslog(LOG_USER | SyslogPriority(level), "%s[%d] %s", logger.GetName().c_str(), level,
             line.c_str());
      break;
    case BuiltInConfig::Kind::File:
    case BuiltInConfig::Kind::Stderr:
      line = RecordLine(logger, level, message, sink.mask, true);
      if (!Hold(level, line)) HandOver(sink.Descriptor(), line, true);
      break;
    case BuiltInConfig::Kind::None:
      break;
  }
}

}  // namespace

SinkState::SinkState() { MakeSpool(); }

SinkState::~SinkState() {
  DrainSpool(builtIn.Descriptor());
  if (builtIn.fd >= 0) ::close(builtIn.fd);
  builtIn = BuiltInConfig{};
  builtIn.configured = true;
}

SinkState& Sink() {
  static SinkState state;
  return state;
}

unsigned HoldFlags() noexcept { return gHoldFlags.load(std::memory_order_acquire); }

void Deliver(const Logger& logger, int level, const std::string& message) {
  SinkState& state = Sink();
  std::shared_lock<std::shared_mutex> lock(state.lock);
  if (!state.builtIn.configured && !state.custom) {
    lock.unlock();
    {
      std::unique_lock<std::shared_mutex> exclusive(state.lock);
      if (!state.builtIn.configured) Configure(state.builtIn);
      Publish(state);
    }
    lock.lock();
  }
  if (state.custom) {
    (*state.custom)(logger, level, message);
  } else {
    WriteBuiltIn(state.builtIn, logger, level, message);
  }
}

}  // namespace Logging

void SetLogSink(LogSink sink) {
  using Logging::Sink;
  std::shared_ptr<const LogSink> next;
  if (sink) next = std::make_shared<const LogSink>(std::move(sink));
  std::unique_lock<std::shared_mutex> lock(Sink().lock);
  Logging::DrainSpool(Sink().builtIn.Descriptor());  // what waits goes where it was meant to
  Sink().custom.swap(next);
  Logging::Publish(Sink());
}

void ReconfigureLogSink() {
  Logging::SinkState& state = Logging::Sink();
  std::unique_lock<std::shared_mutex> lock(state.lock);
  Logging::DrainSpool(state.builtIn.Descriptor());
  if (state.builtIn.fd >= 0) ::close(state.builtIn.fd);
  state.builtIn = Logging::BuiltInConfig{};
  Logging::Publish(state);
}

}  // namespace Tessel::Service
