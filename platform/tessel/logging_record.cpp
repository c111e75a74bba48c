#include "platform/tessel/logging_record.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <ctime>

namespace Tessel::Service {
namespace Logging {
namespace {

bool IsBase64(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
         c == '/' || c == '=';
}

}  // namespace

// Eight bytes at a time: every trace is scanned, and almost none holds one.
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

std::string EscapedRecordText(std::string_view message) {
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
    // An escape is never split: the record stops before it.
    if (out.size() + piece.size() > kMaxLogRecordBytes) break;
    out.append(piece);
  }
  if (i < message.size()) {
    out.append(" [cut ").append(std::to_string(message.size() - i)).append(" bytes]");
  }
  return out;
}

// The text of the second is kept per thread: most records of a thread fall
// into the second of its last.
size_t FormatStamp(char* out) {
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
  std::memcpy(out, second.text, second.length);
  size_t n = second.length;
  out[n] = '.';
  long us = static_cast<long>(tv.tv_usec);
  for (size_t digit = 6; digit >= 1; --digit, us /= 10) {
    out[n + digit] = static_cast<char>('0' + us % 10);
  }
  n += 7;
  out[n++] = 'Z';
  out[n++] = ' ';
  return n;
}

std::string RecordLine(const Logger& logger, int level, const std::string& message, bool mask,
                       bool stamped) {
  std::string line;
  line.reserve(std::min(message.size(), kMaxLogRecordBytes) + logger.GetName().size() + 64);
  StringOut out(line);
  if (stamped) AppendPrefix(logger, level, out);
  AppendRecordText(mask ? MaskCredentials(message) : message, out);
  if (stamped) out.Append('\n');
  return line;
}

}  // namespace Logging

std::string LogRecordText(std::string_view message) {
  std::string out;
  out.reserve(std::min(message.size(), kMaxLogRecordBytes) + 32);
  Logging::StringOut text(out);
  Logging::AppendRecordText(message, text);
  return out;
}

}  // namespace Tessel::Service
