#pragma once

// The traces a thread holds while a LogBatch lives (its call runs), and their
// hand-over to the spool.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/tessel/logging_spool.h"

namespace Tessel::Service::Logging {

// Plain memory: a thread-local object with a destructor would keep the
// library loaded.
struct HeldTraces {
  unsigned depth;
  size_t used;
  int64_t sinceUs;  // when the first of them was made
  char data[8192];
};
// This thread's.
HeldTraces& Held() noexcept;

inline bool InBatch() noexcept { return Held().depth > 0; }

// Holds a finished record (a trace, while a batch lives, when it fits);
// false when it must be written now.
bool Hold(int level, const std::string& line);

// Hands the held traces, then text, to the spool for fd (see Commit). Called
// with the sink's lock held shared.
void HandOver(int fd, std::string_view text, bool now);

// Appends a record straight to the held traces; overflows rather than write.
class HeldOut {
 public:
  HeldOut() noexcept : held_(Held()), start_(held_.used) {
    if (start_ == 0) held_.sinceUs = MonotonicUs();
  }
  size_t Size() const { return held_.used - start_; }
  bool Overflowed() const { return overflowed_; }
  // What was appended so far.
  std::string_view Text() const { return std::string_view(held_.data + start_, Size()); }
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

}  // namespace Tessel::Service::Logging
