#include "platform/tessel/logging.h"

#include <fcntl.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>

namespace Tessel::Service {
namespace {

constexpr char kDestinationVariable[] = "BMCREDFISH_LOG";
constexpr char kMaskVariable[] = "BMCREDFISH_LOG_MASK";

std::mutex& SinkMutex() {
  static std::mutex m;
  return m;
}

std::shared_ptr<const LogSink>& SinkSlot() {
  static std::shared_ptr<const LogSink> slot;
  return slot;
}

// The built-in sink, chosen from the environment by the first message.
struct BuiltInSink {
  enum class Kind { Stderr, Syslog, File, None };
  bool configured = false;
  Kind kind = Kind::Stderr;
  int fd = -1;
  bool mask = false;
  // At unload or exit: a message logged later goes to standard error.
  ~BuiltInSink() {
    Close();
    kind = Kind::Stderr;
  }
  void Close() {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
};

BuiltInSink& Sink() {
  static BuiltInSink sink;
  return sink;
}

void Configure(BuiltInSink& sink) {
  const char* value = std::getenv(kDestinationVariable);
  const std::string text = value ? value : "";
  sink.kind = BuiltInSink::Kind::Stderr;
  if (text == "none") {
    sink.kind = BuiltInSink::Kind::None;
  } else if (text == "syslog") {
    sink.kind = BuiltInSink::Kind::Syslog;
  } else if (text.compare(0, 5, "file:") == 0 && text.size() > 5) {
    // Credentials may reach the log: readable by the owner only, and never
    // through a link someone else planted.
    sink.fd =
        ::open(text.c_str() + 5, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0600);
    // A file that cannot be opened leaves the log on standard error rather
    // than losing failures.
    if (sink.fd >= 0) sink.kind = BuiltInSink::Kind::File;
  }
  const char* mask = std::getenv(kMaskVariable);
  sink.mask = mask != nullptr && std::strcmp(mask, "1") == 0;
  sink.configured = true;
}

bool IsBase64(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '/' || c == '=';
}

// Replaces the Base64 text after each marker with "***".
std::string MaskCredentials(std::string_view message) {
  static constexpr std::string_view kMarkers[] = {"_jwt: ", "Basic "};
  std::string out;
  out.reserve(message.size());
  size_t i = 0;
  while (i < message.size()) {
    bool masked = false;
    for (std::string_view marker : kMarkers) {
      if (message.compare(i, marker.size(), marker) != 0) continue;
      out.append(marker);
      i += marker.size();
      size_t end = i;
      while (end < message.size() && IsBase64(message[end])) ++end;
      if (end > i) out.append("***");
      i = end;
      masked = true;
      break;
    }
    if (!masked) out.push_back(message[i++]);
  }
  return out;
}

void WriteAll(int fd, const std::string& line) {
  const char* p = line.data();
  size_t left = line.size();
  while (left > 0) {
    ssize_t w = ::write(fd, p, left);
    if (w <= 0) break;
    p += w;
    left -= static_cast<size_t>(w);
  }
}

std::string Stamped(const Logger& logger, int level, const std::string& record) {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  tm utc{};
  gmtime_r(&tv.tv_sec, &utc);
  char stamp[40];
  size_t n = strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
  std::snprintf(stamp + n, sizeof stamp - n, ".%06ldZ", static_cast<long>(tv.tv_usec));

  std::string line;
  line.reserve(record.size() + logger.GetName().size() + 48);
  line.append(stamp).append(" ").append(logger.GetName()).append("[");
  line.append(std::to_string(level)).append("] ").append(record).push_back('\n');
  return line;
}

int SyslogPriority(int level) {
  if (level <= 3) return LOG_ERR;
  if (level == 4) return LOG_NOTICE;
  return LOG_DEBUG;
}

void WriteBuiltIn(const Logger& logger, int level, const std::string& message) {
  std::mutex& mutex = SinkMutex();  // first, so that it outlives the sink at exit
  BuiltInSink& sink = Sink();
  bool mask;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (!sink.configured) Configure(sink);
    if (sink.kind == BuiltInSink::Kind::None) return;
    mask = sink.mask;
  }
  const std::string record = LogRecordText(mask ? MaskCredentials(message) : message);
  const std::string line = Stamped(logger, level, record);
  // Written under the lock, so that the file is not closed meanwhile; one
  // write per record keeps records from concurrent threads whole.
  std::lock_guard<std::mutex> lock(mutex);
  switch (sink.kind) {
    case BuiltInSink::Kind::Syslog:
      // No openlog: the host process owns the ident and facility.
      syslog(LOG_USER | SyslogPriority(level), "%s[%d] %s", logger.GetName().c_str(), level,
             record.c_str());
      break;
    case BuiltInSink::Kind::File:
      WriteAll(sink.fd, line);
      break;
    case BuiltInSink::Kind::Stderr:
      WriteAll(STDERR_FILENO, line);
      break;
    case BuiltInSink::Kind::None:
      break;
  }
}

}  // namespace

std::string LogRecordText(std::string_view message) {
  // A message's own final line break is the record's end, not content.
  if (!message.empty() && message.back() == '\n') message.remove_suffix(1);
  std::string out;
  out.reserve(std::min(message.size(), kMaxLogRecordBytes) + 32);
  size_t i = 0;
  for (; i < message.size(); ++i) {
    const auto u = static_cast<unsigned char>(message[i]);
    char hex[5];
    std::string_view piece = message.substr(i, 1);
    if (u == '\n') {
      piece = "\\n";
    } else if (u == '\r') {
      piece = "\\r";
    } else if (u == '\t') {
      piece = "\\t";
    } else if (u < 0x20 || u == 0x7f) {
      std::snprintf(hex, sizeof hex, "\\x%02x", u);
      piece = std::string_view(hex, 4);
    }
    if (out.size() + piece.size() > kMaxLogRecordBytes) break;
    out.append(piece);
  }
  if (i < message.size()) {
    out.append(" [cut ").append(std::to_string(message.size() - i)).append(" bytes]");
  }
  return out;
}

Ref<Logger> CreateLogger(const char* name) { return MakeRef<Logger>(name ? name : ""); }

void SetLogSink(LogSink sink) {
  std::shared_ptr<const LogSink> next;
  if (sink) next = std::make_shared<const LogSink>(std::move(sink));
  std::lock_guard<std::mutex> lock(SinkMutex());
  SinkSlot() = std::move(next);
}

void ReconfigureLogSink() {
  std::lock_guard<std::mutex> lock(SinkMutex());
  Sink().Close();
  Sink().configured = false;
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
      WriteBuiltIn(logger, level, message);
    }
  } catch (...) {
  }
}

}  // namespace Tessel::Service
