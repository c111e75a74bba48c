#include "platform/tessel/logging.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
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
  // The descriptor records go to, or -1 when they go to no descriptor.
  int Descriptor() const {
    if (kind == Kind::File) return fd;
    return kind == Kind::Stderr ? STDERR_FILENO : -1;
  }
};

// Records handed over for the descriptor and not yet written. A call's
// traces wait here while other calls run, and leave with theirs in one write
// when the last running call ends, when they fill kSpoolBatch or when the
// oldest has waited kSpoolAgeUs: on a busy host it is the write, not the
// formatting, that a log costs, and a few large writes cost far less than
// one per call. A thread that hands records over while another writes leaves
// them to that writer (a group commit); a failure record, and everything
// before it, is written before its call goes on. The writer holds the sink's
// lock shared while it drains, so the descriptor stays open under it; the
// sink is only changed, and the process only exits, after a drain.
struct Spool {
  std::mutex mutex;
  std::condition_variable written;
  std::string pending;
  std::string writing;  // what the writer writes now; its capacity is kept
  bool busy = false;
  int64_t oldestUs = 0;   // when pending became non-empty
  uint64_t accepted = 0;  // bytes handed over, ever
  uint64_t done = 0;      // bytes written (or given up on)
  // Outside the mutex: calls running (outermost batches), and whether
  // pending holds anything, so that the last call out finds what to write.
  std::atomic<int> activeCalls{0};
  std::atomic<bool> hasPending{false};
};
// A writer slower than its callers makes them wait beyond this much.
constexpr size_t kSpoolLimit = 1 << 20;
constexpr size_t kSpoolBatch = 32 << 10;
constexpr int64_t kSpoolAgeUs = 50000;

void DrainSpool(int fd);

struct SinkState {
  // Shared by every writer, so that records are written concurrently (one
  // write each keeps them whole); exclusive only to change the sink, so that
  // a file is never closed under a writer.
  std::shared_mutex lock;
  std::shared_ptr<const LogSink> custom;
  BuiltInConfig builtIn;
  // Destroyed after the destructor below has drained it.
  Spool spool;
  // At unload or exit: a message logged later goes to standard error.
  ~SinkState() {
    DrainSpool(builtIn.Descriptor());
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

Spool& TheSpool() { return State().spool; }

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
  Spool& spool = TheSpool();
  ::new (static_cast<void*>(&spool.mutex)) std::mutex();
  ::new (static_cast<void*>(&spool.written)) std::condition_variable();
  spool.pending.clear();  // the parent writes them
  spool.hasPending = false;
  spool.busy = false;
  spool.accepted = spool.done = 0;
  spool.activeCalls = tHeld.depth > 0 ? 1 : 0;  // only the forking thread's own call goes on
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

void WriteFully(int fd, const std::string& text) {
  size_t offset = 0;
  while (offset < text.size()) {
    const ssize_t n = ::write(fd, text.data() + offset, text.size() - offset);
    if (n <= 0) return;  // a log that cannot be written is given up, never retried for ever
    offset += static_cast<size_t>(n);
  }
}

int64_t MonotonicUs() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// Writes what the spool holds, as the one writer, or leaves it to the writer
// at work (durable: waits until it has written up to mine). Called with the
// spool's mutex held, and the sink's lock shared.
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
    spool.hasPending = false;
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

// Hands the thread's held traces, then text, to the spool. They are written
// now when now is true, else when the spool's rule says so (see Spool).
// Called with the sink's lock shared.
void Commit(int fd, std::string_view text, bool now) {
  HeldTraces& held = tHeld;
  Spool& spool = TheSpool();
  std::unique_lock<std::mutex> lock(spool.mutex);
  while (spool.busy && spool.pending.size() > kSpoolLimit) spool.written.wait(lock);
  if (held.used + text.size() > 0) {
    if (spool.pending.empty()) spool.oldestUs = MonotonicUs();
    spool.pending.append(held.data, held.used).append(text);
    spool.accepted += held.used + text.size();
    held.used = 0;
    spool.hasPending = true;
  }
  if (spool.pending.empty()) return;
  // Read after hasPending is set: either this sees the last call's end, or
  // that call sees hasPending and drains.
  if (now || spool.activeCalls.load() == 0 || spool.pending.size() >= kSpoolBatch ||
      MonotonicUs() - spool.oldestUs >= kSpoolAgeUs) {
    Drain(lock, fd, now);
  }
}

// Writes whatever waits in the spool: the sink is about to change, or the
// process to end.
void DrainSpool(int fd) {
  Spool& spool = TheSpool();
  std::unique_lock<std::mutex> lock(spool.mutex);
  if (!spool.pending.empty() && fd >= 0) Drain(lock, fd, true);
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
  HeldOut() : held_(tHeld), start_(held_.used) {}
  size_t Size() const { return held_.used - start_; }
  bool Overflowed() const { return overflowed_; }
  HeldOut& Append(std::string_view text) {
    if (overflowed_ || held_.used + text.size() > sizeof held_.data) {
      overflowed_ = true;
    } else {
      std::memcpy(held_.data + held_.used, text.data(), text.size());
      held_.used += text.size();
    }
    return *this;
  }
  HeldOut& Append(char c) { return Append(std::string_view(&c, 1)); }
  // Takes back what was appended.
  void Undo() { held_.used = start_; }

 private:
  HeldTraces& held_;
  size_t start_;
  bool overflowed_ = false;
};

// The stamp (UTC, to the microsecond), logger and level that open a record
// written to a descriptor, appended in one piece. The text of the second is
// kept per thread: most records of a thread fall into the second of its last.
template <typename Out>
void AppendPrefix(const Logger& logger, int level, Out& out) {
  struct Second {
    time_t at;
    size_t length;
    char text[32];
  };
  thread_local Second tSecond{-1, 0, {}};
  Second& second = tSecond;
  timeval tv{};
  gettimeofday(&tv, nullptr);
  if (tv.tv_sec != second.at) {
    tm utc{};
    gmtime_r(&tv.tv_sec, &utc);
    second.length = strftime(second.text, sizeof second.text, "%Y-%m-%dT%H:%M:%S", &utc);
    second.at = tv.tv_sec;
  }
  char prefix[64];
  std::memcpy(prefix, second.text, second.length);
  size_t n = second.length;
  prefix[n] = '.';
  long us = static_cast<long>(tv.tv_usec);
  for (size_t digit = 6; digit >= 1; --digit, us /= 10) {
    prefix[n + digit] = static_cast<char>('0' + us % 10);
  }
  n += 7;
  prefix[n++] = 'Z';
  prefix[n++] = ' ';
  const std::string& name = logger.GetName();
  if (name.size() > sizeof prefix - n - 4) {
    out.Append(std::string_view(prefix, n));
    out.Append(name);
    n = 0;
  } else {
    n += name.copy(prefix + n, name.size());
  }
  prefix[n++] = '[';
  prefix[n++] = static_cast<char>('0' + level % 10);
  prefix[n++] = ']';
  prefix[n++] = ' ';
  out.Append(std::string_view(prefix, n));
}

// Whether text holds a control byte (below 0x20, or 0x7F), eight bytes at a
// time: every trace is scanned, and almost none holds one.
bool HasControlByte(std::string_view text) {
  constexpr uint64_t kOnes = 0x0101010101010101ull, kHighs = 0x8080808080808080ull;
  size_t i = 0;
  for (; i + 8 <= text.size(); i += 8) {
    uint64_t x;
    std::memcpy(&x, text.data() + i, 8);
    const uint64_t del = x ^ (0x7f * kOnes);
    // A byte below n exists exactly when (x - n*ones) & ~x & highs is non-zero.
    if ((((x - 0x20 * kOnes) & ~x) | ((del - kOnes) & ~del)) & kHighs) return true;
  }
  for (; i < text.size(); ++i) {
    const auto u = static_cast<unsigned char>(text[i]);
    if (u < 0x20 || u == 0x7f) return true;
  }
  return false;
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
  if (message.size() <= kMaxLogRecordBytes && !HasControlByte(message)) {
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
      if (!Hold(level, line)) Commit(sink.Descriptor(), line, true);
      break;
    case BuiltInConfig::Kind::None:
      break;
  }
}

void Publish(const SinkState& state) {
  const bool descriptor = state.builtIn.Descriptor() >= 0;
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
  DrainSpool(State().builtIn.Descriptor());  // what waits goes where it was meant to
  State().custom.swap(next);
  Publish(State());
}

void ReconfigureLogSink() {
  SinkState& state = State();
  std::unique_lock<std::shared_mutex> lock(state.lock);
  DrainSpool(state.builtIn.Descriptor());
  if (state.builtIn.fd >= 0) ::close(state.builtIn.fd);
  state.builtIn = BuiltInConfig{};
  Publish(state);
}

LogBatch::LogBatch() noexcept {
  if (tHeld.depth++ == 0) TheSpool().activeCalls.fetch_add(1);
}

LogBatch::~LogBatch() {
  if (--tHeld.depth > 0) return;
  Spool& spool = TheSpool();
  spool.activeCalls.fetch_sub(1);
  // The last call out writes what others left, as does a call with traces.
  if (tHeld.used == 0 && !spool.hasPending.load()) return;
  try {
    SinkState& state = State();
    std::shared_lock<std::shared_mutex> lock(state.lock);
    const int fd = state.builtIn.Descriptor();
    if (fd >= 0) Commit(fd, {}, false);
  } catch (...) {
  }
  tHeld.used = 0;
}

namespace {

// Formats a held trace straight into the held records: no message string is
// made. False (nothing kept) when it does not fit, needs escaping or masking,
// or the record must be cut: the general path below makes it then.
bool HoldFormatted(const Logger& logger, int level, std::string_view format,
                   const Detail::FormatArg* args, size_t count) {
  class Out final : public Detail::FormatSink {
   public:
    void Append(std::string_view text) override { held_.Append(text); }
    HeldOut& Held() { return held_; }

   private:
    HeldOut held_;
  } out;
  HeldOut& held = out.Held();
  AppendPrefix(logger, level, held);
  const size_t messageStart = tHeld.used;
  Detail::FormatTo(format, args, count, out);
  const std::string_view message(tHeld.data + messageStart, tHeld.used - messageStart);
  const bool plain =
      !held.Overflowed() && message.size() <= kMaxLogRecordBytes && !HasControlByte(message);
  if (plain) held.Append('\n');
  if (plain && !held.Overflowed()) return true;
  held.Undo();
  return false;
}

}  // namespace

void WriteLog(const Logger& logger, int level, const char* format, const Detail::FormatArg* args,
              size_t count) noexcept {
  try {
    // A trace held for a batch touches nothing shared.
    const unsigned flags = gHoldable.load(std::memory_order_acquire);
    const bool holdable = (flags & kHoldable) != 0 && tHeld.depth > 0 && level > 3 && level < 10;
    if (holdable && (flags & kMasked) == 0 && HoldFormatted(logger, level, format, args, count)) {
      return;
    }
    const std::string message = Detail::ASPrintV(format, args, count);
    if (holdable) {
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
