#pragma once

#include <atomic>
#include <functional>
#include <string>

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

// Where finished messages go. The default sink writes each message as one
// line on standard error. Installing an empty function restores the default.
using LogSink = std::function<void(const Logger& logger, int level, const std::string& message)>;
void SetLogSink(LogSink sink);

// Hands a finished message to the sink; swallows anything the sink throws.
void WriteLog(const Logger& logger, int level, const std::string& message) noexcept;

template <typename... Args>
void LogInternal(const Logger* logger, int level, const char* format,
                 const Args&... args) noexcept {
  if (logger == nullptr || logger->GetLevel() < level) return;
  try {
    WriteLog(*logger, level, Detail::ASPrintInternal(format, args...));
  } catch (...) {
    // Logging must never take the caller down; an unformattable message is dropped.
  }
}

template <typename... Args>
void LogInternal(const Ref<Logger>& logger, int level, const char* format,
                 const Args&... args) noexcept {
  LogInternal(logger.Get(), level, format, args...);
}

}  // namespace Tessel::Service
