#include "platform/tessel/logging.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>

namespace Tessel::Service {
namespace {

std::mutex& SinkMutex() {
  static std::mutex m;
  return m;
}

std::shared_ptr<const LogSink>& SinkSlot() {
  static std::shared_ptr<const LogSink> slot;
  return slot;
}

void WriteToStderr(const Logger& logger, int level, const std::string& message) {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  tm utc{};
  gmtime_r(&tv.tv_sec, &utc);
  char stamp[40];
  size_t n = strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(stamp + n, sizeof stamp - n, ".%06ldZ", static_cast<long>(tv.tv_usec));

  std::string line;
  line.reserve(message.size() + logger.GetName().size() + 48);
  line.append(stamp).append(" ").append(logger.GetName()).append("[");
  line.append(std::to_string(level)).append("] ").append(message);
  if (line.empty() || line.back() != '\n') line.push_back('\n');
  // One write per message keeps lines from concurrent threads whole.
  const char* p = line.data();
  size_t left = line.size();
  while (left > 0) {
    ssize_t w = ::write(STDERR_FILENO, p, left);
    if (w <= 0) break;
    p += w;
    left -= static_cast<size_t>(w);
  }
}

}  // namespace

Ref<Logger> CreateLogger(const char* name) { return MakeRef<Logger>(name ? name : ""); }

void SetLogSink(LogSink sink) {
  std::shared_ptr<const LogSink> next;
  if (sink) next = std::make_shared<const LogSink>(std::move(sink));
  std::lock_guard<std::mutex> lock(SinkMutex());
  SinkSlot() = std::move(next);
}

void WriteLog(const Logger& logger, int level, const std::string& message) noexcept {
  try {
    std::shared_ptr<const LogSink> sink;
    {
      std::lock_guard<std::mutex> lock(SinkMutex());
      sink = SinkSlot();
    }
    if (sink) {
      (*sink)(logger, level, message);
    } else {
      WriteToStderr(logger, level, message);
    }
  } catch (...) {
  }
}

}  // namespace Tessel::Service
