#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/tessel/format.h"
#include "platform/tessel/ref.h"

namespace Tessel::Service {

// A named log channel. Higher levels are more verbose: a message of level N is
// written only while the logger's level is at least N.
class Logger : public RefCounted {
 public:
  explicit Logger(std::string name, int level = 3) : name_(std::move(name)), level_(level) {}
  const std::string& GetName() const noexcept { return name_; }
  int GetLevel() const noexcept { return level_.load(std::memory_order_relaxed); }
  void SetLevel(int level) noexcept { level_.store(level, std::memory_order_relaxed); }

 private:
  std::string name_;
  std::atomic<int> level_;
};

Ref<Logger> CreateLogger(const char* name);

// Where finished messages go. Installing an empty function restores the
// built-in sink, which the environment chooses when it first writes:
//   BMCREDFISH_LOG=stderr (default) | syslog | none | file:/path
//     (the file is appended to, created with mode 0600; one that cannot be
//     opened leaves the log on standard error)
//   BMCREDFISH_LOG_MASK=1 writes "***" for the Base64 text after "_jwt: " and
//     "Basic ", the credentials of the request traces.
// The built-in sink writes each message as one record (LogRecordText).
using LogSink = std::function<void(const Logger& logger, int level, const std::string& message)>;
void SetLogSink(LogSink sink);
// Makes the built-in sink read the environment again at its next message.
void ReconfigureLogSink();

// A record never carries more than this many bytes of message text.
constexpr size_t kMaxLogRecordBytes = 4096;
// A message as one line: without its own final line break, control bytes
// escaped ("\n", "\r", "\t", "\xHH"), cut to kMaxLogRecordBytes with
// " [cut N bytes]" naming how many message bytes were left out. Text a BMC
// sent can thus neither forge a record nor make a huge one.
std::string LogRecordText(std::string_view message);

// What stands for a span of a thread's work while it lives on the thread's
// stack: neither copied nor moved.
class ThreadScope {
 public:
  ThreadScope(const ThreadScope&) = delete;
  ThreadScope& operator=(const ThreadScope&) = delete;

 protected:
  ThreadScope() = default;
  ~ThreadScope() = default;
};

// While one lives on a thread (a library call), the built-in sink holds that
// thread's traces (records above level 3) and hands them over when the
// outermost batch ends. They are written with those of other calls, in one
// write, when the last call running ends, when 32 KiB wait, or when the
// oldest has waited 50 ms; so a process that goes quiet has written all. A
// failure record (level 3 or below), and everything handed over before it, is
// written before the call goes on, so the order is kept and no failure waits.
class LogBatch : ThreadScope {
 public:
  LogBatch() noexcept;
  ~LogBatch();
};

// A thread of the library asleep (waiting for an answer), which must wake by
// Until(): only while one lives may handed-over traces wait for other calls,
// because it then writes those whose 50 ms have passed, or all of them when it
// is the last sleeper to wake. It also hands its own call's traces over once
// the oldest is 50 ms old, so that a call stuck on a slow BMC has them written.
class LogSleep : ThreadScope {
 public:
  LogSleep() noexcept;
  ~LogSleep();
  // The monotonic time (µs) to wake by: untilUs or earlier.
  int64_t Until(int64_t untilUs) const noexcept {
    return untilUs < wakeByUs_ ? untilUs : wakeByUs_;
  }
  // The same as a poll() time-out in ms (-1: none).
  int PollTimeoutMs(int timeoutMs) const noexcept;

 private:
  int64_t startUs_ = 0;
  int64_t wakeByUs_ = INT64_MAX;  // while not registered
};

// Formats a message and hands it to the sink; swallows anything either
// throws (logging must never take the caller down). A trace held for a batch
// is formatted straight into the held records.
void WriteLog(const Logger& logger, int level, const char* format, const Detail::FormatArg* args,
              size_t count) noexcept;

template <typename... Args>
void LogInternal(const Logger* logger, int level, const char* format,
                 const Args&... args) noexcept {
  if (logger == nullptr || logger->GetLevel() < level) return;
  const Detail::FormatArg list[] = {Detail::FormatArg(args)..., Detail::FormatArg("")};
  WriteLog(*logger, level, format ? format : "", list, sizeof...(Args));
}

template <typename... Args>
void LogInternal(const Ref<Logger>& logger, int level, const char* format,
                 const Args&... args) noexcept {
  LogInternal(logger.Get(), level, format, args...);
}

inline const Logger* AsLogger(const Logger* logger) noexcept { return logger; }
inline const Logger* AsLogger(const Ref<Logger>& logger) noexcept { return logger.Get(); }

}  // namespace Tessel::Service

// The one way to log: tests the logger's level first and builds the message's
// arguments only when a message of that level would be written.
//   TESSEL_LOG(logger, 5, "PowerState URI: %1", uri);
#define TESSEL_LOG(logger, level, ...)                                                    \
  do {                                                                                    \
    const ::Tessel::Service::Logger* tesselLogger_ = ::Tessel::Service::AsLogger(logger); \
    if (tesselLogger_ != nullptr && tesselLogger_->GetLevel() >= (level)) {               \
      ::Tessel::Service::LogInternal(tesselLogger_, (level), __VA_ARGS__);                \
    }                                                                                     \
  } while (false)
