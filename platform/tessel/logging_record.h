#pragma once

// The text of a record: the stamp, logger and level that open it, the message
// as one bounded line, credentials masked. Made where the caller says (a
// string, or a thread's held traces), so that a held trace is never copied.
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/tessel/logging.h"

namespace Tessel::Service::Logging {

// Whether text holds a control byte (below 0x20, or 0x7F).
bool HasControlByte(std::string_view text);
// Replaces the Base64 text after each "_jwt: " and "Basic " with "***".
std::string MaskCredentials(std::string_view message);
// A message that needs escaping or cutting, as its record text.
std::string EscapedRecordText(std::string_view message);
// Writes "YYYY-MM-DDTHH:MM:SS.uuuuuuZ " (UTC, now) to `out`, which holds at
// least kStampBytes; returns its length.
constexpr size_t kStampBytes = 40;
size_t FormatStamp(char* out);

// Where a record is made: a string.
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

// The stamp, logger and level that open a record written to a descriptor,
// appended in one piece.
template <typename Out>
void AppendPrefix(const Logger& logger, int level, Out& out) {
  char prefix[64];
  static_assert(sizeof prefix >= kStampBytes + 4, "room for the stamp and the level");
  size_t n = FormatStamp(prefix);
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

// The message as LogRecordText makes it.
template <typename Out>
void AppendRecordText(std::string_view message, Out& out) {
  // A message's own final line break is the record's end, not content.
  if (!message.empty() && message.back() == '\n') message.remove_suffix(1);
  // Most records need no escape: they go in one piece.
  if (message.size() <= kMaxLogRecordBytes && !HasControlByte(message)) {
    out.Append(message);
  } else {
    out.Append(EscapedRecordText(message));
  }
}

// A record as the built-in sink writes it; stamped for a file or standard
// error, where it ends with a line break.
std::string RecordLine(const Logger& logger, int level, const std::string& message, bool mask,
                       bool stamped);

}  // namespace Tessel::Service::Logging
