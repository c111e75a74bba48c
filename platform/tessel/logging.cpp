#include "platform/tessel/logging.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <shared_mutex>

namespace Tessel::Service {
namespace {

constexpr char kDestinationVariable[] = "BMCREDFISH_LOG";
constexpr char kMaskVariable[] = "BMCREDFISH_LOG_MASK";

// Where the built-in sink writes, chosen from the environment by the first
// message after start or ReconfigureLogSink.
struct BuiltInConfig {
  enum class Kind { Stderr, Syslog, File, None };
  bool configured = false;
  Kind kind = Kind::Stderr;
  int fd = -1;
  bool mask = false;
};

struct SinkState {
  // Shared by every writer, so that records are written concurrently (one
  // write each keeps them whole); exclusive only to change the sink, so that
  // a file is never closed under a writer.
  std::shared_mutex lock;
  std::shared_ptr<const LogSink> custom;
  BuiltInConfig builtIn;
  // At unload or exit: a message logged later goes to standard error.
  ~SinkState() {
    if (builtIn.fd >= 0) ::close(builtIn.fd);
    builtIn = BuiltInConfig{};
    builtIn.configured = true;
  }
};

// What a held trace needs of the configuration, readable without the lock:
// kHoldable while the built-in sink writes to a descriptor and no other sink
// is set, kMasked when credentials are masked. Written under the exclusive
// lock whenever the configuration changes.
constexpr unsigned kHoldable = 1;
constexpr unsigned kMasked = 2;
std::atomic<unsigned> gHoldable{0};

SinkState& State() {
  static SinkState state;
  return state;
}

// The traces a thread holds while a LogBatch lives. Plain memory: a
// thread-local object with a destructor would keep the library loaded.
struct HeldTraces {
  unsigned depth;
  size_t used;
  char data[8192];
};
thread_local HeldTraces tHeld;

// A child forked while another thread changed the sink would find the lock
// held for ever; nothing else of the parent's writers matters there, nor what
// the forking thread held for a call of the parent's.
void RenewSinkLockInChild() {
  ::new (static_cast<void*>(&State().lock)) std::shared_mutex();
  tHeld.used = 0;
}

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

// Writes the held traces, then text, in one system call where it can.
void WriteAll(int fd, std::string_view text) {
  iovec parts[2] = {{tHeld.data, tHeld.used}, {const_cast<char*>(text.data()), text.size()}};
  tHeld.used = 0;
  iovec* next = parts;
  int left = 2;
  while (left > 0) {
    if (next->iov_len == 0) {
      ++next;
      --left;
      continue;
    }
    const ssize_t written = ::writev(fd, next, left);
    if (written <= 0) return;
    auto n = static_cast<size_t>(written);
    for (; left > 0 && n >= next->iov_len; ++next, --left) n -= next->iov_len;
    if (left > 0) {
      next->iov_base = static_cast<char*>(next->iov_base) + n;
      next->iov_len -= n;
    }
  }
}

// Holds a trace while a batch lives and it fits; false when it must be
// written now.
bool Hold(int level, const std::string& line) {
  if (tHeld.depth == 0 || level <= 3 || line.size() > sizeof tHeld.data) return false;
  if (tHeld.used + line.size() > sizeof tHeld.data) return false;
  std::memcpy(tHeld.data + tHeld.used, line.data(), line.size());
  tHeld.used += line.size();
  return true;
}

// Where a record is made: a string, or straight in the held traces.
class StringOut {
 public:
  explicit StringOut(std::string& text) : text_(text) {}
  size_t Size() const { return text_.size(); }
  StringOut& Append(std::string_view text) {
    text_.append(text);
    return *this;
  }
  StringOut& Append(char c) {
    text_.push_back(c);
    return *this;
  }

 private:
  std::string& text_;
};

// Appends a record straight to the held traces; overflows rather than write.
class HeldOut {
 public:
  HeldOut() : start_(tHeld.used) {}
  size_t Size() const { return tHeld.used - start_; }
  bool Overflowed() const { return overflowed_; }
  HeldOut& Append(std::string_view text) {
    if (overflowed_ || tHeld.used + text.size() > sizeof tHeld.data) {
      overflowed_ = true;
    } else {
      std::memcpy(tHeld.data + tHeld.used, text.data(), text.size());
      tHeld.used += text.size();
    }
    return *this;
  }
  HeldOut& Append(char c) { return Append(std::string_view(&c, 1)); }
  // Takes back what was appended.
  void Undo() { tHeld.used = start_; }

 private:
  size_t start_;
  bool overflowed_ = false;
};

int Descriptor(const BuiltInConfig& sink) {
  return sink.kind == BuiltInConfig::Kind::File ? sink.fd : STDERR_FILENO;
}

// The UTC time of day to the microsecond. The text of the second is kept per
// thread: most records of a thread fall into the second of its last one.
template <typename Out>
void AppendStamp(Out& line) {
  struct Second {
    time_t at;
    char text[24];
  };
  thread_local Second tSecond{-1, {}};
  timeval tv{};
  gettimeofday(&tv, nullptr);
  if (tv.tv_sec != tSecond.at) {
    tm utc{};
    gmtime_r(&tv.tv_sec, &utc);
    strftime(tSecond.text, sizeof tSecond.text, "%Y-%m-%dT%H:%M:%S", &utc);
    tSecond.at = tv.tv_sec;
  }
  char micros[] = ".000000Z ";
  long us = static_cast<long>(tv.tv_usec);
  for (int digit = 6; digit >= 1; --digit, us /= 10)
    micros[digit] = static_cast<char>('0' + us % 10);
  line.Append(tSecond.text).Append(std::string_view(micros, sizeof micros - 1));
}

// The stamp, logger and level that open a record written to a descriptor.
template <typename Out>
void AppendPrefix(const Logger& logger, int level, Out& out) {
  AppendStamp(out);
  const char levelText[] = {'[', static_cast<char>('0' + level % 10), ']', ' '};
  out.Append(logger.GetName()).Append(std::string_view(levelText, sizeof levelText));
}

int SyslogPriority(int level) {
  if (level <= 3) return LOG_ERR;
  if (level == 4) return LOG_NOTICE;
  return LOG_DEBUG;
}

template <typename Out>
void AppendRecordText(std::string_view message, Out& out) {
  // A message's own final line break is the record's end, not content.
  if (!message.empty() && message.back() == '\n') message.remove_suffix(1);
  const size_t start = out.Size();
  // Most records need no escape: they go in one piece.
  if (message.size() <= kMaxLogRecordBytes &&
      std::none_of(message.begin(), message.end(), [](char c) {
        const auto u = static_cast<unsigned char>(c);
        return u < 0x20 || u == 0x7f;
      })) {
    out.Append(message);
    return;
  }
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
    if (out.Size() - start + piece.size() > kMaxLogRecordBytes) break;
    out.Append(piece);
  }
  if (i < message.size()) {
    out.Append(" [cut ").Append(std::to_string(message.size() - i)).Append(" bytes]");
  }
}

// A record as the built-in sink writes it; stamped for a file or standard
// error, where it ends with a line break.
std::string Line(const Logger& logger, int level, const std::string& message, bool mask,
                 bool stamped) {
  std::string line;
  line.reserve(std::min(message.size(), kMaxLogRecordBytes) + logger.GetName().size() + 64);
  StringOut out(line);
  if (stamped) AppendPrefix(logger, level, out);
  AppendRecordText(mask ? MaskCredentials(message) : message, out);
  if (stamped) out.Append('\n');
  return line;
}

// Called with the sink's lock shared.
void WriteBuiltIn(const BuiltInConfig& sink, const Logger& logger, int level,
                  const std::string& message) {
  std::string line;
  switch (sink.kind) {
    case BuiltInConfig::Kind::Syslog:
      line = Line(logger, level, message, sink.mask, false);
      // No openlog: the host process owns the ident and facility.
      syslog(LOG_USER | SyslogPriority(level), "%s[%d] %s", logger.GetName().c_str(), level,
             line.c_str());
      break;
    case BuiltInConfig::Kind::File:
    case BuiltInConfig::Kind::Stderr:
      line = Line(logger, level, message, sink.mask, true);
      if (!Hold(level, line)) WriteAll(Descriptor(sink), line);
      break;
    case BuiltInConfig::Kind::None:
      break;
  }
}

void Publish(const SinkState& state) {
  const bool descriptor = state.builtIn.kind == BuiltInConfig::Kind::File ||
                          state.builtIn.kind == BuiltInConfig::Kind::Stderr;
  unsigned flags = 0;
  if (state.builtIn.configured && descriptor && !state.custom) flags |= kHoldable;
  if (state.builtIn.mask) flags |= kMasked;
  gHoldable.store(flags, std::memory_order_release);
}

}  // namespace

std::string LogRecordText(std::string_view message) {
  std::string out;
  out.reserve(std::min(message.size(), kMaxLogRecordBytes) + 32);
  StringOut text(out);
  AppendRecordText(message, text);
  return out;
}

Ref<Logger> CreateLogger(const char* name) { return MakeRef<Logger>(name ? name : ""); }

void SetLogSink(LogSink sink) {
  std::shared_ptr<const LogSink> next;
  if (sink) next = std::make_shared<const LogSink>(std::move(sink));
  std::unique_lock<std::shared_mutex> lock(State().lock);
  State().custom.swap(next);
  Publish(State());
}

void ReconfigureLogSink() {
  SinkState& state = State();
  std::unique_lock<std::shared_mutex> lock(state.lock);
  if (state.builtIn.fd >= 0) ::close(state.builtIn.fd);
  state.builtIn = BuiltInConfig{};
  Publish(state);
}

LogBatch::LogBatch() noexcept { ++tHeld.depth; }

LogBatch::~LogBatch() {
  if (--tHeld.depth > 0 || tHeld.used == 0) return;
  try {
    SinkState& state = State();
    std::shared_lock<std::shared_mutex> lock(state.lock);
    if (state.builtIn.kind == BuiltInConfig::Kind::File ||
        state.builtIn.kind == BuiltInConfig::Kind::Stderr) {
      WriteAll(Descriptor(state.builtIn), {});
    }
  } catch (...) {
  }
  tHeld.used = 0;
}

void WriteLog(const Logger& logger, int level, const std::string& message) noexcept {
  try {
    // A trace held for a batch touches nothing shared.
    const unsigned flags = gHoldable.load(std::memory_order_acquire);
    if ((flags & kHoldable) != 0 && tHeld.depth > 0 && level > 3 && level < 10) {
      HeldOut held;
      AppendPrefix(logger, level, held);
      AppendRecordText((flags & kMasked) != 0 ? MaskCredentials(message) : message, held);
      held.Append('\n');
      if (!held.Overflowed()) return;
      held.Undo();  // written below, after what is held
    }
    SinkState& state = State();
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
  } catch (...) {
  }
}

}  // namespace Tessel::Service
